// SPDX-License-Identifier: MIT
#include <mixer/api/note_queue_p.h>

#include <algorithm>
#include <cstring>

namespace QTovelMixer {

NoteQueue::NoteQueue() noexcept
{
    for (size_t i = 0; i < capacity; ++i)
        m_cells[i].turn.store(i, std::memory_order_relaxed);
}

// A cell is free for the writer whose ticket it shows, full when it shows the ticket after that,
// and free for the next round when the reader has moved it on by the capacity.
bool NoteQueue::push(int kind, std::string_view text) noexcept
{
    quint64 ticket = m_tail.load(std::memory_order_relaxed);
    for (;;) {
        Cell &cell = m_cells[ticket % capacity];
        const quint64 turn = cell.turn.load(std::memory_order_acquire);
        if (turn < ticket) {
            m_lost.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
        if (turn > ticket) {
            ticket = m_tail.load(std::memory_order_relaxed);
            continue;
        }
        if (!m_tail.compare_exchange_weak(ticket, ticket + 1, std::memory_order_relaxed))
            continue;
        cell.note.kind = kind;
        cell.note.length = quint32(std::min(text.size(), textSize));
        std::memcpy(cell.note.text.data(), text.data(), cell.note.length);
        cell.turn.store(ticket + 1, std::memory_order_release);
        return true;
    }
}

bool NoteQueue::pop(Note &note) noexcept
{
    Cell &cell = m_cells[m_head % capacity];
    if (cell.turn.load(std::memory_order_acquire) != m_head + 1)
        return false;
    note = cell.note;
    cell.turn.store(m_head + capacity, std::memory_order_release);
    ++m_head;
    return true;
}

} // namespace QTovelMixer
