// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_P_H
#define QTOVELMIXER_BASE_TRACE_P_H

#include <base/nonblocking.h>
#include <base/trace_record_p.h>

#include <QtCore/QtGlobal>

namespace QTovelMixer {

/// One crash-trace line, "[TOVEL_DEBUG_MIXER_CRASH_TRACE] ", the event and the items as
/// " key=value", written as one information message when the object goes out of scope.
/// On a thread inside an audio callback or a change of the mix the line goes through a preallocated
/// queue, and another thread writes it, in order, within about 10 ms; elsewhere it is written at
/// once, unless lines still wait in the queue: then it waits behind them. Lines that must wait and
/// find the queue full are counted, and their number is written as a line of its own.
/// When the program crashes, what is queued is written first.
/// Event and keys must live for ever (string literals), keys without blank and equals sign.
/// Flags are written as true and false, pointers as 0x and hexadecimal digits.
/// Threads: any. Real-time: on a marked thread.
class TraceLine
{
public:
    explicit TraceLine(const char *event) noexcept QTOVELMIXER_NONBLOCKING;
    /// Writes, or queues, the line.
    ~TraceLine() noexcept QTOVELMIXER_NONBLOCKING;
    Q_DISABLE_COPY_MOVE(TraceLine)

    TraceLine &item(const char *key, bool value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, int value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, long value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, qint64 value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, unsigned value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, unsigned long value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, quint64 value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, double value) noexcept QTOVELMIXER_NONBLOCKING;
    TraceLine &item(const char *key, const void *value) noexcept QTOVELMIXER_NONBLOCKING;
    /// Text has no fixed size.
    TraceLine &item(const char *key, const char *value) = delete;

private:
    TraceRecord record;
};

/// Marks the thread as being inside an audio callback, from the one to the other; may be nested.
/// Real-time: yes.
void beginCallback() noexcept QTOVELMIXER_NONBLOCKING;
void endCallback() noexcept QTOVELMIXER_NONBLOCKING;

/// The same as a scope.
/// Real-time: yes.
class AudioThreadMark
{
public:
    AudioThreadMark() noexcept QTOVELMIXER_NONBLOCKING;
    ~AudioThreadMark() noexcept QTOVELMIXER_NONBLOCKING;
    Q_DISABLE_COPY_MOVE(AudioThreadMark)
};

/// Whether the calling thread is inside an audio callback.
/// Real-time: yes.
bool isAudioThread() noexcept QTOVELMIXER_NONBLOCKING;

/// Takes the queue's memory and starts the thread that writes queued lines, if that has not
/// happened yet, and has crashes write them. Until then queued lines wait for the next one that is
/// written at once. Call before the first audio callback.
/// Threads: any but audio. Real-time: no.
void prepareTrace();

/// Call when audio callbacks are about to begin: the writing thread, which does not look at the
/// queue while nothing plays, looks from now on.
/// Threads: any but audio. Real-time: no.
void wakeTrace() noexcept;

/// From the one to the other the calling thread may keep an audio thread waiting: its lines go
/// through the queue, and nobody is woken to write them before the end, since that is a system
/// call. May be nested.
/// Threads: any but audio. Real-time: no.
void holdLines() noexcept;
void releaseLines() noexcept;

/// Returns when every line queued so far has been written.
/// Threads: any but audio. Real-time: no.
void flushTrace();

} // namespace QTovelMixer

#endif
