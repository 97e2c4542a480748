// SPDX-License-Identifier: MIT
#include <base/trace_queue_p.h>

#include <algorithm>
#include <cstring>

namespace QTovelMixer {

namespace {
void copyRecord(TraceRecord &to, const TraceRecord &from) noexcept
{
    to.event = from.event;
    to.type = from.type;
    to.items = from.items;
    if (from.event)
        std::copy_n(from.item, from.items, to.item);
    else if (from.items == TraceRecord::ownsText)
        to.longText = from.longText;
    else
        std::memcpy(to.text, from.text, std::strlen(from.text) + 1);
}
} // namespace

bool TraceQueue::push(const TraceRecord &record, quint64 reserve) noexcept
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
            copyRecord(cell.record, record);
            cell.turn.store(free + 1, std::memory_order_release);
            return true;
        }
    }
}

bool TraceQueue::pop(TraceRecord &record) noexcept
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
            copyRecord(record, cell.record);
            cell.turn.store(filled + 1, std::memory_order_release);
            return true;
        }
    }
}

void TraceQueue::touch() noexcept
{
    for (Cell &cell : cells) {
        quint64 fresh = 0;
        cell.turn.compare_exchange_strong(fresh, 0, std::memory_order_relaxed);
    }
}

void TraceQueue::reset() noexcept
{
    for (Cell &cell : cells)
        cell.turn.store(0, std::memory_order_relaxed);
    tail.store(0, std::memory_order_relaxed);
    head.store(0, std::memory_order_relaxed);
}

} // namespace QTovelMixer
