// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_QUEUE_P_H
#define QTOVELMIXER_BASE_TRACE_QUEUE_P_H

#include <base/ticket_queue_p.h>
#include <base/trace_record_p.h>

namespace QTovelMixer {

/// The lines on their way to the thread that writes them. One block of the busiest engine has a few
/// hundred.
class TraceQueue : public TicketQueue<TraceRecord, 2048>
{
public:
    /// Copies the record in, or returns false when no more than `reserve` places are free.
    bool push(const TraceRecord &record, quint64 reserve = 0) noexcept QTOVELMIXER_NONBLOCKING;

    /// Copies the oldest record out, or returns false when there is none that is complete.
    bool pop(TraceRecord &record) noexcept QTOVELMIXER_NONBLOCKING;
};

} // namespace QTovelMixer

#endif
