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
/// because a third thread may do that side's calls while the side rests: two looks of one side must
/// not overlap.
template <typename Policy = RingPolicy>
class RingCounters
{
    using Count = typename Policy::template Atomic<quint64>;

public:
    /// Bytes that may be readable, bytes after which a place repeats, at least as many, and the
    /// memory that they lie in.
    RingCounters(quint64 most, quint64 places, char *memory = nullptr)
        : producer(most, std::max(places, quint64{1}), reinterpret_cast<quintptr>(memory)),
          consumer(producer.size, reinterpret_cast<quintptr>(memory))
    {}

    /// What a side may work on: bytes counted since the start or the last flush, the address that
    /// they begin at, and how many there are.
    struct Look
    {
        quint64 position;
        quint64 address;
        quint64 bytes;
    };

    // The producer's side.

    Look lookToWrite()
    {
        const quint64 produced = producer.produced.load(std::memory_order_relaxed);
        const quint64 limit = consumer.consumed.load(Policy::seeConsumed) + producer.capacity;
        producer.limit.store(limit, std::memory_order_relaxed);
        const quint64 base = consumer.base.load(std::memory_order_relaxed);
        return {produced - base, addressOf(produced, producer), limit - produced};
    }
    /// As many of the bytes as there is room for.
    quint64 roomFor(quint64 bytes)
    {
        return roomFor(bytes, producer.produced.load(std::memory_order_relaxed));
    }
    /// Hands over bytes, as many of them as there is room for.
    void produce(quint64 bytes)
    {
        const quint64 produced = producer.produced.load(std::memory_order_relaxed);
        producer.produced.store(produced + roomFor(bytes, produced), Policy::publishProduced);
    }
    /// Takes the bytes produced last back, as far as they are not consumed. Both sides rest.
    void withdraw(quint64 bytes)
    {
        bytes = std::min(bytes, lookToRead().bytes);
        if (bytes == 0)
            return;
        const quint64 produced = producer.produced.load(std::memory_order_relaxed) - bytes;
        if (produced < producer.lapEnd.load(std::memory_order_relaxed) - producer.size)
            moveLap(producer, quint64{0} - producer.size);
        consumer.produced.store(produced, std::memory_order_relaxed);
        producer.produced.store(produced, Policy::publishProduced);
    }

    // The consumer's side.

    Look lookToRead()
    {
        const quint64 produced = producer.produced.load(Policy::seeProduced);
        consumer.produced.store(produced, std::memory_order_relaxed);
        const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed);
        const quint64 base = consumer.base.load(std::memory_order_relaxed);
        return {consumed - base, addressOf(consumed, consumer), produced - consumed};
    }
    /// Gives bytes back, as many of them as are readable.
    void consume(quint64 bytes)
    {
        const quint64 consumed = consumer.consumed.load(std::memory_order_relaxed);
        if (bytes > consumer.produced.load(std::memory_order_relaxed) - consumed) [[unlikely]]
            bytes = std::min(bytes, lookToRead().bytes);
        consumer.consumed.store(consumed + bytes, Policy::publishConsumed);
    }
    /// Touches nothing of the producer's, which may be between its look and its hand-over: the
    /// consumer catches up and moves the origin of the positions. The base goes first, so that a
    /// producer that sees the new room sees the new base too.
    void flush()
    {
        const quint64 produced = producer.produced.load(Policy::seeProduced);
        consumer.produced.store(produced, std::memory_order_relaxed);
        consumer.base.store(produced, std::memory_order_relaxed);
        consumer.consumed.store(produced, Policy::publishConsumed);
    }

    /// Any thread. The consumer's counter first: it can only fall behind, and a fill below 0 cannot
    /// show.
    quint64 fill() const
    {
        const quint64 consumed = consumer.consumed.load(Policy::seeConsumed);
        const quint64 produced = producer.produced.load(Policy::seeProduced);
        return std::min(produced - consumed, producer.capacity);
    }

protected:
    static constexpr size_t cacheLine = 64;

    // What a side needs beside the other's counter lies in one line. A lap is one way through the
    // memory; `lapEnd` is the count at which the present one ends, and a count of it plus `origin`
    // the count's address.
    struct alignas(cacheLine) Producer
    {
        Producer(quint64 most, quint64 places, quint64 start)
            : capacity(most), size(places), lapEnd(places), origin(start)
        {}

        const quint64 capacity; ///< bytes that may be readable
        const quint64 size;     ///< bytes after which a place repeats
        Count produced{0};
        Count limit{0}; ///< the most that may be produced, as last seen
        Count lapEnd;
        Count origin;
    } producer;

    struct alignas(cacheLine) Consumer
    {
        Consumer(quint64 places, quint64 start) : size(places), lapEnd(places), origin(start) {}

        const quint64 size;
        Count consumed{0};
        Count produced{0}; ///< as last seen: saves handing over the other side's line
        Count base{0};     ///< the counters' value at the last flush
        Count lapEnd;
        Count origin;
    } consumer;

    template <typename Side>
    static void moveLap(Side &side, quint64 by)
    {
        side.lapEnd.store(side.lapEnd.load(std::memory_order_relaxed) + by,
                          std::memory_order_relaxed);
        side.origin.store(side.origin.load(std::memory_order_relaxed) - by,
                          std::memory_order_relaxed);
    }

private:
    quint64 roomFor(quint64 bytes, quint64 produced)
    {
        if (bytes > producer.limit.load(std::memory_order_relaxed) - produced) [[unlikely]]
            bytes = std::min(bytes, lookToWrite().bytes);
        return bytes;
    }

    template <typename Side>
    static quint64 addressOf(quint64 count, Side &side)
    {
        const quint64 end = side.lapEnd.load(std::memory_order_relaxed);
        if (count >= end) [[unlikely]]
            // One lap is enough unless a side flushed lap after lap.
            moveLap(side, side.size + (count - end) / side.size * side.size);
        return side.origin.load(std::memory_order_relaxed) + count;
    }
};

} // namespace QTovelMixer

#endif
