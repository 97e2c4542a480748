// SPDX-License-Identifier: MIT
#include <base/trace_p.h>

#include <base/nonblocking_p.h>
#include <base/thread_marks_p.h>
#include <base/trace_writer_p.h>

#include <QtCore/QtGlobal>

namespace QTovelMixer {

namespace {
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

void beginCallback() noexcept
{
    ThreadMarks::enter(ThreadMarks::Audio);
    expectQueuedLines();
}

void endCallback() noexcept
{
    ThreadMarks::leave(ThreadMarks::Audio);
}

AudioThreadMark::AudioThreadMark() noexcept
{
    beginCallback();
}

AudioThreadMark::~AudioThreadMark() noexcept
{
    endCallback();
}

bool isAudioThread() noexcept
{
    return ThreadMarks::isInside(ThreadMarks::Audio);
}

} // namespace QTovelMixer
