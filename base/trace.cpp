// SPDX-License-Identifier: MIT
#include <base/trace_p.h>

#include <base/log_line_p.h>
#include <base/nonblocking_p.h>
#include <base/trace_queue_p.h>

#include <QtCore/QtGlobal>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

namespace QTovelMixer {

namespace {
// Looking the variable up in the dynamic way may allocate on a thread's first use.
#if defined(__ELF__)
#define QTOVELMIXER_STATIC_TLS __attribute__((tls_model("initial-exec")))
#else
#define QTOVELMIXER_STATIC_TLS
#endif
thread_local int audioMarksOfThread QTOVELMIXER_STATIC_TLS = 0;

int &audioMarks() noexcept QTOVELMIXER_NONBLOCKING
{
    // It lies at a fixed place of the thread's memory.
    return assumeNonblocking([]() -> int & { return audioMarksOfThread; });
}

// Formats on the stack, and the same in every locale.
class LineBuffer
{
public:
    const char *text()
    {
        buffer[used] = '\0';
        return buffer;
    }

    void append(const char *words)
    {
        const size_t length = std::min(std::strlen(words), sizeof(buffer) - 1 - used);
        std::memcpy(buffer + used, words, length);
        used += length;
    }

    template <typename... Arguments>
    void appendNumber(Arguments... arguments)
    {
        char *const start = buffer + used;
        const auto result = std::to_chars(start, buffer + sizeof(buffer) - 1, arguments...);
        if (result.ec == std::errc())
            used += static_cast<size_t>(result.ptr - start);
    }

    void append(const TraceItem &item);

private:
    char buffer[1024];
    size_t used = 0;
};

void LineBuffer::append(const TraceItem &item)
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

TraceItem *nextItem(TraceRecord &record, const char *key, TraceItem::Kind kind) noexcept
{
    Q_ASSERT(record.items < TraceRecord::maxItems);
    if (record.items == TraceRecord::maxItems)
        return nullptr;
    TraceItem *const item = &record.item[record.items++];
    item->key = key;
    item->kind = kind;
    return item;
}
} // namespace

TraceLine::TraceLine(const char *event) noexcept
{
    record.event = event;
    record.type = QtInfoMsg;
    record.items = 0;
}

TraceLine::~TraceLine() noexcept
{
    if (isAudioThread())
        queueRecord(record);
    else
        outsideCallback([this] { writeRecord(record); });
}

TraceLine &TraceLine::item(const char *key, bool value) noexcept
{
    if (TraceItem *const item = nextItem(record, key, TraceItem::Flag))
        item->flag = value;
    return *this;
}

TraceLine &TraceLine::item(const char *key, int value) noexcept
{
    return item(key, qint64{value});
}

TraceLine &TraceLine::item(const char *key, long value) noexcept
{
    return item(key, qint64{value});
}

TraceLine &TraceLine::item(const char *key, qint64 value) noexcept
{
    if (TraceItem *const item = nextItem(record, key, TraceItem::Signed))
        item->number = value;
    return *this;
}

TraceLine &TraceLine::item(const char *key, unsigned value) noexcept
{
    return item(key, quint64{value});
}

TraceLine &TraceLine::item(const char *key, unsigned long value) noexcept
{
    return item(key, quint64{value});
}

TraceLine &TraceLine::item(const char *key, quint64 value) noexcept
{
    if (TraceItem *const item = nextItem(record, key, TraceItem::Unsigned))
        item->count = value;
    return *this;
}

TraceLine &TraceLine::item(const char *key, double value) noexcept
{
    if (TraceItem *const item = nextItem(record, key, TraceItem::Real))
        item->real = value;
    return *this;
}

TraceLine &TraceLine::item(const char *key, const void *value) noexcept
{
    if (TraceItem *const item = nextItem(record, key, TraceItem::Pointer))
        item->pointer = value;
    return *this;
}

void writeText(QtMsgType type, const char *text)
{
    switch (type) {
    case QtDebugMsg:
        qDebug("%s", text);
        break;
    case QtWarningMsg:
        qWarning("%s", text);
        break;
    case QtCriticalMsg:
        qCritical("%s", text);
        break;
    default:
        qInfo("%s", text);
        break;
    }
}

void writeRecord(const TraceRecord &record)
{
    if (!record.event) {
        writeLine([&] { writeText(record.type, record.text); });
        return;
    }
    LineBuffer line;
    line.append("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");
    line.append(record.event);
    for (int i = 0; i < record.items; ++i)
        line.append(record.item[i]);
    writeLine([&] { writeText(record.type, line.text()); });
}

AudioThreadMark::AudioThreadMark() noexcept
{
    ++audioMarks();
}

AudioThreadMark::~AudioThreadMark() noexcept
{
    --audioMarks();
}

bool isAudioThread() noexcept
{
    return audioMarks() > 0;
}

} // namespace QTovelMixer
