// SPDX-License-Identifier: MIT
#include <base/ringbuffer_p.h>

#include <base/debug.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>

using QTovelMixer::MirroredMemory;

namespace {
constexpr size_t cacheLine = 64;
}

// Two counters that only grow (but for a withdrawal); their difference is what is readable. Each
// side publishes its counter with release and reads the other's with acquire, so the bytes written
// before a Produce are visible to whoever sees them counted, and bytes are overwritten only after
// their Consume. The rest of a side belongs to that side alone and is atomic only because a third
// thread may do that side's calls while the side rests.
struct BLRINGBUFFER
{
    BLRINGBUFFER(size_t bytes, MirroredMemory::Way preferred)
        : memory(bytes, preferred), capacity(bytes)
    {}

    const MirroredMemory memory;
    const quint64 capacity;

    struct alignas(cacheLine) Producer
    {
        std::atomic<quint64> produced{0};
        std::atomic<quint64> offset{0};   ///< produced, modulo the memory's size
        std::atomic<quint64> consumed{0}; ///< as last seen: saves Produce the other side's line
    } producer;

    struct alignas(cacheLine) Consumer
    {
        std::atomic<quint64> consumed{0};
        std::atomic<quint64> offset{0};   ///< consumed, modulo the memory's size
        std::atomic<quint64> produced{0}; ///< as last seen
        std::atomic<quint64> base{0};     ///< the counters' value at the last flush
    } consumer;

    quint64 writable();
    quint64 readable();
    quint64 advanced(quint64 offset, quint64 bytes) const;
    void mirror(quint64 offset, quint64 bytes);
    void produce(quint64 bytes);
    void withdraw(quint64 bytes);
    void consume(quint64 bytes);
    void flush();
};

quint64 BLRINGBUFFER::writable()
{
    const quint64 consumed = consumer.consumed.load(std::memory_order_acquire);
    producer.consumed.store(consumed, std::memory_order_relaxed);
    return capacity - (producer.produced.load(std::memory_order_relaxed) - consumed);
}

quint64 BLRINGBUFFER::readable()
{
    const quint64 produced = producer.produced.load(std::memory_order_acquire);
    consumer.produced.store(produced, std::memory_order_relaxed);
    return produced - consumer.consumed.load(std::memory_order_relaxed);
}

quint64 BLRINGBUFFER::advanced(quint64 offset, quint64 bytes) const
{
    const quint64 next = offset + bytes;
    return next < memory.size() ? next : next - memory.size();
}

// Copies fresh bytes to their other place where the system does not do it.
void BLRINGBUFFER::mirror(quint64 offset, quint64 bytes)
{
    const quint64 size = memory.size();
    const quint64 first = std::min(bytes, size - offset);
    char *const data = memory.data();
    std::memcpy(data + offset + size, data + offset, first);
    std::memcpy(data, data + size, bytes - first);
}

void BLRINGBUFFER::produce(quint64 bytes)
{
    const quint64 produced = producer.produced.load(std::memory_order_relaxed);
    const quint64 seen = producer.consumed.load(std::memory_order_relaxed);
    if (bytes > capacity - (produced - seen))
        bytes = std::min(bytes, writable());
    if (bytes == 0)
        return;
    const quint64 offset = producer.offset.load(std::memory_order_relaxed);
    if (!memory.isMirrored())
        mirror(offset, bytes);
    producer.offset.store(advanced(offset, bytes), std::memory_order_relaxed);
    producer.produced.store(produced + bytes, std::memory_order_release);
}

void BLRINGBUFFER::withdraw(quint64 bytes)
{
    bytes = std::min(bytes, readable());
    if (bytes == 0)
        return;
    const quint64 produced = producer.produced.load(std::memory_order_relaxed) - bytes;
    const quint64 offset = producer.offset.load(std::memory_order_relaxed);
    const quint64 size = memory.size();
    producer.offset.store(offset >= bytes ? offset - bytes : offset + size - bytes,
                          std::memory_order_relaxed);
    consumer.produced.store(produced, std::memory_order_relaxed);
    producer.produced.store(produced, std::memory_order_release);
}

void BLRINGBUFFER::consume(quint64 bytes)
{
    const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed);
    if (bytes > consumer.produced.load(std::memory_order_relaxed) - consumed)
        bytes = std::min(bytes, readable());
    if (bytes == 0)
        return;
    const quint64 offset = consumer.offset.load(std::memory_order_relaxed);
    consumer.offset.store(advanced(offset, bytes), std::memory_order_relaxed);
    consumer.consumed.store(consumed + bytes, std::memory_order_release);
}

// Touches nothing of the producer's, which may be between its slice and its Produce: the consumer
// catches up and moves the origin of the positions. The base goes first, so that a producer that
// sees the new room sees the new base too.
void BLRINGBUFFER::flush()
{
    const quint64 discarded = readable();
    const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed) + discarded;
    consumer.base.store(consumed, std::memory_order_relaxed);
    consume(discarded);
}

namespace QTovelMixer {

BLRINGBUFFER *createRing(qint32 bytes, MirroredMemory::Way preferred)
{
    const size_t capacity = bytes > 0 ? static_cast<size_t>(bytes) : 0;
    std::unique_ptr<BLRINGBUFFER> ring(new (std::nothrow) BLRINGBUFFER(capacity, preferred));
    if (ring && (capacity == 0 || ring->memory.data()))
        return ring.release();
    BLDEBUG_Error(-1, "BLRINGBUFFER_NewEx: Out of memory (%d)!!", int(bytes));
    return nullptr;
}

} // namespace QTovelMixer

BLRINGBUFFER *BLRINGBUFFER_NewEx(int32_t bytes, int32_t)
{
    return QTovelMixer::createRing(bytes, MirroredMemory::Mapped);
}

BLRINGBUFFER_Slice BLRINGBUFFER_GetWriteSlice(BLRINGBUFFER *ring)
{
    if (!ring)
        return {0, nullptr, 0};
    const auto length = static_cast<int32_t>(ring->writable());
    const quint64 position = ring->producer.produced.load(std::memory_order_relaxed) -
                             ring->consumer.base.load(std::memory_order_relaxed);
    return {position, ring->memory.data() + ring->producer.offset.load(std::memory_order_relaxed),
            length};
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
    if (!ring)
        return {0, nullptr, 0};
    const auto length = static_cast<int32_t>(ring->readable());
    const quint64 position = ring->consumer.consumed.load(std::memory_order_relaxed) -
                             ring->consumer.base.load(std::memory_order_relaxed);
    return {position, ring->memory.data() + ring->consumer.offset.load(std::memory_order_relaxed),
            length};
}

void BLRINGBUFFER_Consume(BLRINGBUFFER *ring, int32_t bytes)
{
    if (ring && bytes > 0)
        ring->consume(static_cast<quint64>(bytes));
}

int32_t BLRINGBUFFER_FillCount(BLRINGBUFFER *ring)
{
    if (!ring)
        return 0;
    // The consumer's counter first: it can only fall behind, and a fill below 0 cannot show.
    const quint64 consumed = ring->consumer.consumed.load(std::memory_order_acquire);
    const quint64 produced = ring->producer.produced.load(std::memory_order_acquire);
    return static_cast<int32_t>(std::min(produced - consumed, ring->capacity));
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
