// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_TEXT_P_H
#define QTOVELMIXER_BASE_TRACE_TEXT_P_H

#include <base/trace_record_p.h>

#include <cstddef>

namespace QTovelMixer {

/// The words of a record that has an event. Made on the stack, without memory or locale, and so
/// also in the handler of a signal.
class TraceText
{
public:
    explicit TraceText(const TraceRecord &record) noexcept;
    const char *text() const noexcept { return buffer; }

private:
    void append(const char *words) noexcept;
    void append(const TraceItem &item) noexcept;
    template <typename... Arguments>
    void appendNumber(Arguments... arguments) noexcept;

    char buffer[1024];
    size_t used = 0;
};

} // namespace QTovelMixer

#endif
