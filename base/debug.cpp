// SPDX-License-Identifier: MIT
#include <base/debug.h>

#include <base/log_line_p.h>
#include <base/nonblocking_p.h>
#include <base/trace_p.h>
#include <base/trace_writer_p.h>

#include <QtCore/QByteArray>

#include <cstdarg>
#include <cstdio>

namespace {
using namespace QTovelMixer;

void writeLong(QtMsgType type, const char *format, va_list arguments, int length)
{
    QByteArray text(length, Qt::Uninitialized);
    std::vsnprintf(text.data(), static_cast<size_t>(length) + 1, format, arguments);
    writeText(type, text.constData());
}

void write(QtMsgType type, const char *format, va_list arguments)
{
    if (!format)
        return;
    TraceRecord record;
    record.event = nullptr;
    record.type = type;
    record.items = 0;
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(record.text, sizeof(record.text), format, arguments);
    if (length >= 0) {
        if (isAudioThread())
            queueRecord(record);
        else if (length < TraceRecord::maxText)
            outsideCallback([&record] { writeRecord(record); });
        else
            outsideCallback([&] { writeLine([&] { writeLong(type, format, again, length); }); });
    }
    va_end(again);
}
} // namespace

extern "C" {

__attribute__((weak)) void BLDEBUG_Error(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write(QtCriticalMsg, format, arguments);
    va_end(arguments);
}

__attribute__((weak)) void BLDEBUG_Log(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write(QtInfoMsg, format, arguments);
    va_end(arguments);
}

__attribute__((weak)) void BLDEBUG_Message(int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    write(QtDebugMsg, format, arguments);
    va_end(arguments);
}
}
