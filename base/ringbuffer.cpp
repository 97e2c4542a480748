// SPDX-License-Identifier: MIT
#include <base/ringbuffer_p.h>

#include <base/debug.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

using QTovelMixer::MirroredMemory;

void BLRINGBUFFER::mirrorAndProduce(quint64 bytes)
{
    bytes = roomFor(bytes);
    if (bytes == 0)
        return;
    char *const fresh = writeSlice().data;
    char *const data = memory.data();
    const quint64 half = memory.size();
    const quint64 first = std::min(bytes, static_cast<quint64>(data + half - fresh));
    std::memcpy(fresh + half, fresh, first);
    std::memcpy(data, data + half, bytes - first);
    RingCounters::produce(bytes);
}

namespace QTovelMixer {

BLRINGBUFFER *createRing(qint32 bytes, MirroredMemory::Way preferred, MirroredMemory::Paging paging)
{
    const size_t capacity = bytes > 0 ? static_cast<size_t>(bytes) : 0;
    std::unique_ptr<BLRINGBUFFER> ring(new (std::nothrow)
                                           BLRINGBUFFER(capacity, preferred, paging));
    return ring && (capacity == 0 || ring->memory.data()) ? ring.release() : nullptr;
}

} // namespace QTovelMixer

BLRINGBUFFER *BLRINGBUFFER_NewEx(int32_t bytes, int32_t)
{
    BLRINGBUFFER *const ring = QTovelMixer::createRing(bytes, MirroredMemory::Mapped);
    if (!ring)
        BLDEBUG_Error(-1, "BLRINGBUFFER_NewEx: Out of memory (%d)!!", int(bytes));
    return ring;
}

BLRINGBUFFER_Slice BLRINGBUFFER_GetWriteSlice(BLRINGBUFFER *ring)
{
    return ring ? ring->writeSlice() : BLRINGBUFFER_Slice{0, nullptr, 0};
}

void BLRINGBUFFER_Produce(BLRINGBUFFER *ring, int32_t bytes)
{
    if (!ring)
        return;
    if (bytes >= 0)
        ring->produce(static_cast<quint64>(bytes));
    else
        ring->withdraw(static_cast<quint64>(-static_cast<qint64>(bytes)));
}

BLRINGBUFFER_Slice BLRINGBUFFER_GetReadSlice(BLRINGBUFFER *ring)
{
    return ring ? ring->readSlice() : BLRINGBUFFER_Slice{0, nullptr, 0};
}

void BLRINGBUFFER_Consume(BLRINGBUFFER *ring, int32_t bytes)
{
    if (ring && bytes > 0)
        ring->consume(static_cast<quint64>(bytes));
}

int32_t BLRINGBUFFER_FillCount(BLRINGBUFFER *ring)
{
    return ring ? static_cast<int32_t>(ring->fill()) : 0;
}

void BLRINGBUFFER_Flush(BLRINGBUFFER *ring)
{
    if (ring)
        ring->flush();
}

void BLRINGBUFFER_Destroy(BLRINGBUFFER **ring)
{
    if (!ring)
        return;
    delete *ring;
    *ring = nullptr;
}
