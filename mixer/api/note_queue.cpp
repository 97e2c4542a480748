// SPDX-License-Identifier: MIT
#include <mixer/api/note_queue_p.h>

#include <algorithm>
#include <cstring>

namespace QTovelMixer {

bool NoteQueue::push(int kind, std::string_view text) noexcept
{
    const bool kept = m_notes.push([kind, text](Note &note) {
        note.kind = kind;
        note.length = quint32(std::min(text.size(), textSize));
        std::memcpy(note.text.data(), text.data(), note.length);
    });
    if (!kept)
        m_lost.fetch_add(1, std::memory_order_relaxed);
    return kept;
}

bool NoteQueue::pop(Note &note) noexcept
{
    return m_notes.pop([&note](const Note &oldest) { note = oldest; });
}

} // namespace QTovelMixer
