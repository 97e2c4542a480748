// SPDX-License-Identifier: MIT
#include <base/trace_text_p.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

namespace QTovelMixer {

TraceText::TraceText(const TraceRecord &record) noexcept
{
    append("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");
    append(record.event);
    for (int i = 0; i < record.items; ++i)
        append(record.item[i]);
    buffer[used] = '\0';
}

void TraceText::append(const char *words) noexcept
{
    const size_t length = std::min(std::strlen(words), sizeof(buffer) - 1 - used);
    std::memcpy(buffer + used, words, length);
    used += length;
}

template <typename... Arguments>
void TraceText::appendNumber(Arguments... arguments) noexcept
{
    char *const start = buffer + used;
    const auto result = std::to_chars(start, buffer + sizeof(buffer) - 1, arguments...);
    if (result.ec == std::errc())
        used += static_cast<size_t>(result.ptr - start);
}

void TraceText::append(const TraceItem &item) noexcept
{
    append(" ");
    append(item.key);
    append("=");
    switch (item.kind) {
    case TraceItem::Flag:
        append(item.flag ? "true" : "false");
        break;
    case TraceItem::Signed:
        appendNumber(item.number);
        break;
    case TraceItem::Unsigned:
        appendNumber(item.count);
        break;
    case TraceItem::Real:
        if (std::isnan(item.real))
            append("nan"); // whatever its sign bit
        else
            appendNumber(item.real, std::chars_format::general, 6);
        break;
    case TraceItem::Pointer:
        append("0x");
        appendNumber(reinterpret_cast<quintptr>(item.pointer), 16);
        break;
    }
}

} // namespace QTovelMixer
