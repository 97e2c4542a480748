// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_QUEUE_P_H
#define QTOVELMIXER_BASE_TRACE_QUEUE_P_H

#include <base/nonblocking.h>
#include <base/trace_record_p.h>

#include <array>
#include <atomic>

namespace QTovelMixer {

/// A bounded queue of records between any number of threads. Nothing waits: a full queue refuses.
/// An object of static duration needs no initialisation and so can be used at any time before,
/// during and after the life of other static objects.
class TraceQueue
{
public:
    static constexpr quint64 capacity = 2048; // one block of the busiest engine is a few hundred

    /// Copies the record in, or answers false when no more than `reserve` places are free.
    /// Threads: any. Real-time: yes.
    bool push(const TraceRecord &record, quint64 reserve = 0) noexcept QTOVELMIXER_NONBLOCKING;

    /// Copies the oldest record out, or answers false when there is none that is complete.
    /// Threads: any; those that want to keep the order, one at a time. Real-time: yes.
    bool pop(TraceRecord &record) noexcept QTOVELMIXER_NONBLOCKING;

    /// The number of records ever pushed, or ever popped.
    quint64 pushed() const noexcept { return tail.load(std::memory_order_relaxed); }
    quint64 popped() const noexcept { return head.load(std::memory_order_relaxed); }

    /// Makes the system back every page with memory.
    void touch() noexcept;

    /// Forgets everything, also what was being pushed or popped. Threads: the only one.
    void reset() noexcept;

private:
    // A cell's turn is twice the number of the round that may fill it, one more once it is filled.
    struct alignas(64) Cell
    {
        std::atomic<quint64> turn;
        TraceRecord record;
    };

    alignas(64) std::atomic<quint64> tail;
    alignas(64) std::atomic<quint64> head;
    std::array<Cell, capacity> cells;
};

} // namespace QTovelMixer

#endif
