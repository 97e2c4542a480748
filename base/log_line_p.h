// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_LOG_LINE_P_H
#define QTOVELMIXER_BASE_LOG_LINE_P_H

#include <QtCore/QDebug>
#include <QtCore/QString>

#include <new>

namespace QTovelMixer {

/// Counts a line that will not be written; the number follows in a line of its own.
/// Threads: any.
void countLostLine() noexcept;

/// Calls `write`, which writes a line. One for which there is no memory is lost and counted: what
/// the line is about goes on.
/// Threads: any but audio. Real-time: no.
template <typename Write>
void writeLine(Write &&write)
{
    try {
        write();
    } catch (const std::bad_alloc &) {
        countLostLine();
    }
}

/// Writes the text as one line, in order with the lines of traces: at once, or, while the thread
/// changes the mix or others wait before it, through their queue.
/// Threads: any but audio. Real-time: no.
void writeText(QtMsgType type, const char *text);

/// Writes a warning as one line, as `writeText` does.
/// Threads: any but audio. Real-time: no.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
void writeWarning(const char *format, ...);

/// Writes as one line what `compose` puts into the stream that it is given. Streams of Qt's log
/// write in their destructor, where running out of memory ends the process.
/// Threads: any but audio. Real-time: no.
template <typename Compose>
void composeLine(QtMsgType type, Compose &&compose)
{
    writeLine([&] {
        QString text;
        {
            QDebug stream(&text);
            compose(stream);
        }
        if (text.endsWith(QLatin1Char(' ')))
            text.chop(1);
        writeText(type, qUtf8Printable(text));
    });
}

} // namespace QTovelMixer

#endif
