// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_RING_COUNTERS_P_H
#define QTOVELMIXER_BASE_RING_COUNTERS_P_H

#include <QtCore/QtGlobal>

#include <algorithm>
#include <atomic>

namespace QTovelMixer {

/// The atomics and orders of a ring. The tests put a model of the memory in their place, and wrong
/// orders, to see that these are the ones it needs.
struct RingPolicy
{
    template <typename T>
    using Atomic = std::atomic<T>;
    static constexpr std::memory_order publishProduced = std::memory_order_release;
    static constexpr std::memory_order publishConsumed = std::memory_order_release;
    static constexpr std::memory_order seeProduced = std::memory_order_acquire;
    static constexpr std::memory_order seeConsumed = std::memory_order_acquire;
};

/// Who owns which bytes of a ring.
///
/// Two counters that only grow (but for a withdrawal); their difference is what is readable. Each
/// side publishes its counter with release and reads the other's with acquire, so the bytes written
/// before they are produced are visible to whoever sees them counted, and bytes are overwritten
/// only after they were consumed. The rest of a side belongs to that side alone and is atomic only
/// because a third thread may do that side's calls while the side rests.
template <typename Policy = RingPolicy>
class RingCounters
{
    using Count = typename Policy::template Atomic<quint64>;

public:
    /// Bytes that may be readable, and bytes after which a place repeats, at least as many.
    RingCounters(quint64 most, quint64 places) : capacity(most), size(places) {}

    // The producer's side.

    quint64 writable()
    {
        const quint64 consumed = consumer.consumed.load(Policy::seeConsumed);
        producer.consumed.store(consumed, std::memory_order_relaxed);
        return capacity - (producer.produced.load(std::memory_order_relaxed) - consumed);
    }
    quint64 writePosition() const
    {
        return producer.produced.load(std::memory_order_relaxed) -
               consumer.base.load(std::memory_order_relaxed);
    }
    quint64 writePlace() const { return producer.offset.load(std::memory_order_relaxed); }
    /// As many of the bytes as there is room for.
    quint64 roomFor(quint64 bytes)
    {
        const quint64 produced = producer.produced.load(std::memory_order_relaxed);
        const quint64 seen = producer.consumed.load(std::memory_order_relaxed);
        if (bytes > capacity - (produced - seen)) [[unlikely]]
            bytes = std::min(bytes, writable());
        return bytes;
    }
    /// Hands over bytes that there is room for.
    void produce(quint64 bytes)
    {
        const quint64 place = producer.offset.load(std::memory_order_relaxed);
        producer.offset.store(advanced(place, bytes), std::memory_order_relaxed);
        producer.produced.store(producer.produced.load(std::memory_order_relaxed) + bytes,
                                Policy::publishProduced);
    }
    /// Takes the bytes produced last back, as far as they are not consumed. Both sides rest.
    void withdraw(quint64 bytes)
    {
        bytes = std::min(bytes, readable());
        if (bytes == 0)
            return;
        const quint64 produced = producer.produced.load(std::memory_order_relaxed) - bytes;
        const quint64 place = producer.offset.load(std::memory_order_relaxed);
        producer.offset.store(place >= bytes ? place - bytes : place + size - bytes,
                              std::memory_order_relaxed);
        consumer.produced.store(produced, std::memory_order_relaxed);
        producer.produced.store(produced, Policy::publishProduced);
    }

    // The consumer's side.

    quint64 readable()
    {
        const quint64 produced = producer.produced.load(Policy::seeProduced);
        consumer.produced.store(produced, std::memory_order_relaxed);
        return produced - consumer.consumed.load(std::memory_order_relaxed);
    }
    quint64 readPosition() const
    {
        return consumer.consumed.load(std::memory_order_relaxed) -
               consumer.base.load(std::memory_order_relaxed);
    }
    quint64 readPlace() const { return consumer.offset.load(std::memory_order_relaxed); }
    /// Gives bytes back, as many of them as are readable.
    void consume(quint64 bytes)
    {
        const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed);
        if (bytes > consumer.produced.load(std::memory_order_relaxed) - consumed) [[unlikely]]
            bytes = std::min(bytes, readable());
        if (bytes == 0)
            return;
        const quint64 place = consumer.offset.load(std::memory_order_relaxed);
        consumer.offset.store(advanced(place, bytes), std::memory_order_relaxed);
        consumer.consumed.store(consumed + bytes, Policy::publishConsumed);
    }
    /// Touches nothing of the producer's, which may be between its look and its hand-over: the
    /// consumer catches up and moves the origin of the positions. The base goes first, so that a
    /// producer that sees the new room sees the new base too.
    void flush()
    {
        const quint64 discarded = readable();
        const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed) + discarded;
        consumer.base.store(consumed, std::memory_order_relaxed);
        consume(discarded);
    }

    /// Any thread. The consumer's counter first: it can only fall behind, and a fill below 0 cannot
    /// show.
    quint64 fill() const
    {
        const quint64 consumed = consumer.consumed.load(Policy::seeConsumed);
        const quint64 produced = producer.produced.load(Policy::seeProduced);
        return std::min(produced - consumed, capacity);
    }

protected:
    static constexpr size_t cacheLine = 64;

    struct alignas(cacheLine) Producer
    {
        Count produced{0};
        Count offset{0};   ///< produced, modulo the size
        Count consumed{0}; ///< as last seen: saves handing over the other side's line
    } producer;

    struct alignas(cacheLine) Consumer
    {
        Count consumed{0};
        Count offset{0};   ///< consumed, modulo the size
        Count produced{0}; ///< as last seen
        Count base{0};     ///< the counters' value at the last flush
    } consumer;

private:
    quint64 advanced(quint64 place, quint64 bytes) const
    {
        const quint64 next = place + bytes;
        return next < size ? next : next - size;
    }

    const quint64 capacity;
    const quint64 size;
};

} // namespace QTovelMixer

#endif
