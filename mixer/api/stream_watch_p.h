// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_STREAM_WATCH_P_H
#define QTOVELMIXER_MIXER_API_STREAM_WATCH_P_H

#include <base/nonblocking.h>

#include <QtCore/QtGlobal>

namespace QTovelMixer {

/// Recognises, from inside the audio callback, a device that has died without saying so: the
/// sound library then only warns, and calls back as fast as the processor can.
/// Threads: `begin` before the stream starts, `block` on the audio thread. Real-time: yes.
class StreamWatch
{
public:
    static constexpr int failingBlocks = 8;             ///< in a row
    static constexpr int fastest = 4;                   ///< times real time
    static constexpr qint64 measuredTime = 100'000'000; ///< ns
    /// Blocks that a server may take at once, to fill its buffer at the start or after a pause.
    static constexpr int prefill = 16;
    static constexpr qint64 pause = measuredTime * 3 / 2; ///< ns

    /// `paced`: the interface never runs faster than its hardware (JACK may).
    void begin(unsigned rate, bool paced) noexcept;

    /// One block at `now` (ns, monotonic), with the number of warnings since the stream began.
    /// False when the device has failed.
    bool block(unsigned frames, qint64 now, quint64 warnings) noexcept QTOVELMIXER_NONBLOCKING;

private:
    bool tooFast(unsigned frames, qint64 now) noexcept;

    unsigned m_rate = 0;
    bool m_paced = true;
    bool m_first = true;
    bool m_mayFill = true;
    int m_failing = 0;
    quint64 m_warnings = 0;
    qint64 m_since = 0;
    qint64 m_frames = 0; ///< delivered since then
};

} // namespace QTovelMixer

#endif
