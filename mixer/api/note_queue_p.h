// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_NOTE_QUEUE_P_H
#define QTOVELMIXER_MIXER_API_NOTE_QUEUE_P_H

#include <base/nonblocking.h>
#include <base/ticket_queue_p.h>

#include <QtCore/QtGlobal>

#include <array>
#include <atomic>
#include <string_view>

namespace QTovelMixer {

/// Short texts on their way from audio threads to one that may log them. A text that finds the
/// queue full is counted and lost; longer ones are cut.
/// Threads: `push` any, `pop` and `takeLost` one. Real-time: yes.
class NoteQueue
{
public:
    static constexpr size_t capacity = 32;
    static constexpr size_t textSize = 232;

    struct Note
    {
        int kind = 0;
        quint32 length = 0;
        std::array<char, textSize> text{};

        std::string_view view() const noexcept { return {text.data(), length}; }
    };

    bool push(int kind, std::string_view text) noexcept QTOVELMIXER_NONBLOCKING;
    bool pop(Note &note) noexcept;
    quint64 takeLost() noexcept { return m_lost.exchange(0); }

private:
    TicketQueue<Note, capacity> m_notes;
    std::atomic<quint64> m_lost{0};
};

} // namespace QTovelMixer

#endif
