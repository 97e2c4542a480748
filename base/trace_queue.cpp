// SPDX-License-Identifier: MIT
#include <base/trace_queue_p.h>

#include <algorithm>
#include <cstring>

namespace QTovelMixer {

namespace {
void copyRecord(TraceRecord &to, const TraceRecord &from) noexcept
{
    to.event = from.event;
    to.type = from.type;
    to.items = from.items;
    if (from.event)
        std::copy_n(from.item, from.items, to.item);
    else if (from.items == TraceRecord::ownsText)
        to.longText = from.longText;
    else
        std::memcpy(to.text, from.text, std::strlen(from.text) + 1);
}
} // namespace

bool TraceQueue::push(const TraceRecord &record, quint64 reserve) noexcept
{
    return TicketQueue::push([&record](TraceRecord &place) { copyRecord(place, record); }, reserve);
}

bool TraceQueue::pop(TraceRecord &record) noexcept
{
    return TicketQueue::pop([&record](const TraceRecord &place) { copyRecord(record, place); });
}

} // namespace QTovelMixer
