// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_TRACE_RECORD_P_H
#define QTOVELMIXER_BASE_TRACE_RECORD_P_H

#include <QtCore/QtGlobal>

namespace QTovelMixer {

/// One named value of a trace line.
struct TraceItem
{
    enum Kind { Flag, Signed, Unsigned, Real, Pointer };

    const char *key;
    union {
        bool flag;
        qint64 number;
        quint64 count;
        double real;
        const void *pointer;
    };
    Kind kind;
};

/// One line on its way to the log: an event with its items, or, when `event` is null, finished
/// text: in the record itself, or, when `items` is `ownsText`, in memory that whoever writes the
/// line gives back with `std::free`. Nothing is initialised, so that the queue of them costs no
/// memory before it is used.
struct TraceRecord
{
    static constexpr int maxItems = 10;
    static constexpr int maxText = 240; // with the final NUL; as much as the items need
    static constexpr int ownsText = -1;

    const char *event;
    QtMsgType type;
    int items;
    union {
        TraceItem item[maxItems];
        char text[maxText];
        char *longText;
    };
};

} // namespace QTovelMixer

#endif
