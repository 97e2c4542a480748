// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TICKET_QUEUE_P_H
#define QTOVELMIXER_BASE_TICKET_QUEUE_P_H

#include <base/nonblocking.h>

#include <QtCore/QtGlobal>

#include <array>
#include <atomic>

namespace QTovelMixer {

/// A bounded queue of records between any number of threads. Nothing waits: a full queue refuses.
/// An object of static duration needs no initialisation and so can be used at any time before,
/// during and after the life of other static objects.
template <typename Record, quint64 Capacity>
class TicketQueue
{
public:
    static constexpr quint64 capacity = Capacity;

    /// Has `fill` write the next record in its place, or returns false when no more than `reserve`
    /// places are free. Threads: any. Real-time: yes, as far as `fill` is.
    template <typename Fill>
    bool push(Fill fill, quint64 reserve = 0) noexcept QTOVELMIXER_NONBLOCKING;

    /// Has `take` read the oldest record in its place, or returns false when there is none that is
    /// complete. Threads: any; those that want to keep the order, one at a time. Real-time: yes, as
    /// far as `take` is.
    template <typename Take>
    bool pop(Take take) noexcept QTOVELMIXER_NONBLOCKING;

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
        Record record;
    };

    alignas(64) std::atomic<quint64> tail;
    alignas(64) std::atomic<quint64> head;
    std::array<Cell, Capacity> cells;
};

template <typename Record, quint64 Capacity>
template <typename Fill>
bool TicketQueue<Record, Capacity>::push(Fill fill, quint64 reserve) noexcept
{
    quint64 position = tail.load(std::memory_order_relaxed);
    for (;;) {
        Cell &cell = cells[position % capacity];
        const quint64 free = position / capacity * 2;
        const quint64 turn = cell.turn.load(std::memory_order_acquire);
        if (turn < free || position + reserve >= head.load(std::memory_order_relaxed) + capacity)
            return false;
        if (turn > free) {
            position = tail.load(std::memory_order_relaxed);
            continue;
        }
        if (tail.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
            fill(cell.record);
            cell.turn.store(free + 1, std::memory_order_release);
            return true;
        }
    }
}

template <typename Record, quint64 Capacity>
template <typename Take>
bool TicketQueue<Record, Capacity>::pop(Take take) noexcept
{
    quint64 position = head.load(std::memory_order_relaxed);
    for (;;) {
        Cell &cell = cells[position % capacity];
        const quint64 filled = position / capacity * 2 + 1;
        const quint64 turn = cell.turn.load(std::memory_order_acquire);
        if (turn < filled)
            return false;
        if (turn > filled) {
            position = head.load(std::memory_order_relaxed);
            continue;
        }
        if (head.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
            take(cell.record);
            cell.turn.store(filled + 1, std::memory_order_release);
            return true;
        }
    }
}

template <typename Record, quint64 Capacity>
void TicketQueue<Record, Capacity>::touch() noexcept
{
    for (Cell &cell : cells) {
        quint64 fresh = 0;
        cell.turn.compare_exchange_strong(fresh, 0, std::memory_order_relaxed);
    }
}

template <typename Record, quint64 Capacity>
void TicketQueue<Record, Capacity>::reset() noexcept
{
    for (Cell &cell : cells)
        cell.turn.store(0, std::memory_order_relaxed);
    tail.store(0, std::memory_order_relaxed);
    head.store(0, std::memory_order_relaxed);
}

} // namespace QTovelMixer

#endif
