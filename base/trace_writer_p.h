// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_WRITER_P_H
#define QTOVELMIXER_BASE_TRACE_WRITER_P_H

#include <base/nonblocking.h>
#include <base/trace_record_p.h>

namespace QTovelMixer {

/// Queues a record for the writing thread; counts it as lost when there is no room.
/// Threads: audio. Real-time: yes.
void queueRecord(const TraceRecord &record) noexcept QTOVELMIXER_NONBLOCKING;

/// Says that records may be queued by threads that wake nobody, now and in the next second.
/// Threads: any. Real-time: yes.
void expectQueuedLines() noexcept QTOVELMIXER_NONBLOCKING;

/// Writes the record to the log at once; or queues it, while the thread changes the mix or lines
/// before this one still wait.
/// Threads: any but audio. Real-time: no.
void writeRecord(const TraceRecord &record);

/// For the handler of a crash: lets the writing thread write what is queued, for a limited time,
/// and then writes the rest to the standard error stream. Threads: any, in the handler of a signal
/// too.
void flushTraceInCrash() noexcept;

/// Has the process do that when it crashes. What the program did in that case before comes
/// afterwards.
void watchForCrashes();

} // namespace QTovelMixer

#endif
