// SPDX-License-Identifier: MIT
// Blocks of 256 stereo frames through the ring, on one thread and from one to another.
#include "cases/cases.h"

#include <base/ringbuffer_p.h>

#include <jack/ringbuffer.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#ifdef QTOVELMIXER_BENCH_BOOST
#include <boost/lockfree/spsc_queue.hpp>
#endif
#ifdef QTOVELMIXER_BENCH_SPA
#include <spa/utils/ringbuffer.h>
#endif

namespace Bench {

namespace {

const QString section = QStringLiteral("C. Ring");

constexpr size_t capacity = 131072;
// Volatile, so that copies of it are calls and no instruction made for its size.
volatile size_t blockBytes = 256 * 2 * sizeof(float);

class OwnedRing
{
protected:
    OwnedRing() : m_ring(BLRINGBUFFER_NewEx(int32_t(capacity), 1)) {}
    ~OwnedRing() { BLRINGBUFFER_Destroy(&m_ring); }
    OwnedRing(const OwnedRing &) = delete;
    OwnedRing &operator=(const OwnedRing &) = delete;

    BLRINGBUFFER *m_ring;
};

/// Bytes in, bytes out; false when there is no room, or not enough. As the library's own threads
/// do it, without calls.
class OurRing : OwnedRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = m_ring->writeSlice();
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(slice.data, from, bytes);
        m_ring->produce(bytes);
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = m_ring->readSlice();
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(to, slice.data, bytes);
        m_ring->consume(bytes);
        return true;
    }
    void keepBooks(size_t bytes)
    {
        BLRINGBUFFER *const ring = m_ring;
        keep(ring->writeSlice().data);
        ring->produce(bytes);
        keep(ring->readSlice().data);
        ring->consume(bytes);
    }
};

/// The same ring as hosts have it.
class OurInterface : OwnedRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(m_ring);
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(slice.data, from, bytes);
        BLRINGBUFFER_Produce(m_ring, int32_t(bytes));
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(m_ring);
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(to, slice.data, bytes);
        BLRINGBUFFER_Consume(m_ring, int32_t(bytes));
        return true;
    }
    void keepBooks(size_t bytes)
    {
        BLRINGBUFFER *const ring = m_ring;
        keep(BLRINGBUFFER_GetWriteSlice(ring).data);
        BLRINGBUFFER_Produce(ring, int32_t(bytes));
        keep(BLRINGBUFFER_GetReadSlice(ring).data);
        BLRINGBUFFER_Consume(ring, int32_t(bytes));
    }
};

class JackRing
{
public:
    JackRing() : m_ring(jack_ringbuffer_create(capacity)) {}
    ~JackRing() { jack_ringbuffer_free(m_ring); }
    JackRing(const JackRing &) = delete;
    JackRing &operator=(const JackRing &) = delete;

    bool push(const char *from, size_t bytes)
    {
        return jack_ringbuffer_write_space(m_ring) >= bytes &&
               jack_ringbuffer_write(m_ring, from, bytes) == bytes;
    }
    bool pop(char *to, size_t bytes)
    {
        return jack_ringbuffer_read_space(m_ring) >= bytes &&
               jack_ringbuffer_read(m_ring, to, bytes) == bytes;
    }
    void keepBooks(size_t bytes)
    {
        jack_ringbuffer_t *const ring = m_ring;
        jack_ringbuffer_data_t parts[2];
        jack_ringbuffer_get_write_vector(ring, parts);
        keep(parts[0].buf);
        jack_ringbuffer_write_advance(ring, bytes);
        jack_ringbuffer_get_read_vector(ring, parts);
        keep(parts[0].buf);
        jack_ringbuffer_read_advance(ring, bytes);
    }

private:
    jack_ringbuffer_t *m_ring;
};

#ifdef QTOVELMIXER_BENCH_BOOST

class BoostRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const size_t count = bytes / sizeof(float);
        return m_queue.write_available() >= count &&
               m_queue.push(reinterpret_cast<const float *>(from), count) == count;
    }
    bool pop(char *to, size_t bytes)
    {
        const size_t count = bytes / sizeof(float);
        return m_queue.read_available() >= count &&
               m_queue.pop(reinterpret_cast<float *>(to), count) == count;
    }

private:
    boost::lockfree::spsc_queue<float> m_queue{capacity / sizeof(float)};
};

#endif
#ifdef QTOVELMIXER_BENCH_SPA

class SpaRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        uint32_t index = 0;
        const int32_t filled = spa_ringbuffer_get_write_index(&m_ring, &index);
        if (filled < 0 || size_t(filled) + bytes > capacity)
            return false;
        spa_ringbuffer_write_data(&m_ring, m_data.data(), uint32_t(capacity),
                                  index % uint32_t(capacity), from, uint32_t(bytes));
        spa_ringbuffer_write_update(&m_ring, int32_t(index + uint32_t(bytes)));
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        uint32_t index = 0;
        const int32_t filled = spa_ringbuffer_get_read_index(&m_ring, &index);
        if (filled < 0 || size_t(filled) < bytes)
            return false;
        spa_ringbuffer_read_data(&m_ring, m_data.data(), uint32_t(capacity),
                                 index % uint32_t(capacity), to, uint32_t(bytes));
        spa_ringbuffer_read_update(&m_ring, int32_t(index + uint32_t(bytes)));
        return true;
    }

private:
    std::vector<char> m_data = std::vector<char>(capacity);
    spa_ringbuffer m_ring = SPA_RINGBUFFER_INIT();
};

#endif

/// The copies alone.
class Copies
{
public:
    void push(const char *from, size_t bytes)
    {
        m_offset = (m_offset + bytes) % capacity;
        std::memcpy(m_memory + m_offset, from, bytes);
    }
    void pop(char *to, size_t bytes) { std::memcpy(to, m_memory + m_offset, bytes); }

private:
    alignas(4096) char m_memory[capacity] = {};
    size_t m_offset = 0;
};

/// What goes in and comes out. How addresses lie to each other decides what a copy costs, so that
/// all copy between the same places, and between several, which begin with a cache line as buses
/// do.
struct alignas(4096) Blocks
{
    static constexpr size_t places = 4;
    static constexpr size_t distance = 2048 + 256;

    char in[places * distance] = {};
    char out[places * distance] = {};
    size_t place = 0;

    void next() { place = (place + 1) % places; }
    const char *from() const { return in + place * distance; }
    char *to() { return out + place * distance; }
};

std::shared_ptr<Blocks> blocks()
{
    static const auto shared = std::make_shared<Blocks>();
    return shared;
}

/// Several rings of a kind in turn, each for long enough to be in the cache: where the allocator
/// happens to put a ring decides how fast it is.
template <class Ring>
class Rings
{
public:
    Ring &next()
    {
        if (++m_calls % callsEach == 0)
            m_current = (m_current + 1) % m_rings.size();
        return m_rings[m_current];
    }

private:
    static constexpr unsigned callsEach = 16384;

    std::array<Ring, 8> m_rings;
    size_t m_current = 0;
    unsigned m_calls = 0;
};

template <class Ring>
void addPushAndPop(Case &to, const QString &name)
{
    const auto rings = std::make_shared<Rings<Ring>>();
    to.add(name, [rings, shared = blocks()] {
        const size_t bytes = blockBytes;
        Ring &ring = rings->next();
        shared->next();
        ring.push(shared->from(), bytes);
        asm volatile("" : : : "memory");
        ring.pop(shared->to(), bytes);
    });
}

Case pushAndPop()
{
    Case result(section, QStringLiteral("2 KiB in and out, one thread"));
    addPushAndPop<OurRing>(result, QStringLiteral("ours"));
    addPushAndPop<Copies>(result, QStringLiteral("two memcpy"));
    addPushAndPop<OurInterface>(result, QStringLiteral("the C interface"));
    addPushAndPop<JackRing>(result, QStringLiteral("JACK"));
    result.mustBeat(QStringLiteral("two memcpy"), 1.0 / 1.15)
        .mustBeat(QStringLiteral("two memcpy"), 1.2 * 37.0 / 50.2, QStringLiteral("PortAudio"))
        .mustBeat(QStringLiteral("JACK"), 1.4);
#ifdef QTOVELMIXER_BENCH_SPA
    addPushAndPop<SpaRing>(result, QStringLiteral("PipeWire"));
    result.mustBeat(QStringLiteral("PipeWire"), 1.1);
#endif
#ifdef QTOVELMIXER_BENCH_BOOST
    addPushAndPop<BoostRing>(result, QStringLiteral("boost"));
#endif
    return result;
}

Case bookkeeping()
{
    Case result(section, QStringLiteral("bookkeeping of a block in and out"));
    const auto ours = std::make_shared<OurRing>();
    const auto calls = std::make_shared<OurInterface>();
    const auto jack = std::make_shared<JackRing>();
    return result.ours([ours] { ours->keepBooks(blockBytes); })
        .add(QStringLiteral("the C interface"), [calls] { calls->keepBooks(blockBytes); })
        .add(QStringLiteral("JACK"), [jack] { jack->keepBooks(blockBytes); })
        .mustTakeAtMost(5.0)
        .mustBeat(QStringLiteral("JACK"), 2.5 * 12.3 / 9.5, QStringLiteral("PortAudio"));
}

inline void pause()
{
#ifdef __x86_64__
    __builtin_ia32_pause();
#endif
}

/// Nanoseconds per block from one processor to another, both spinning.
template <class Ring>
double throughput(Ring &ring, int blocks)
{
    std::vector<char> out(blockBytes);
    std::thread producer([&ring, blocks] {
        pin(0);
        const std::vector<char> in(blockBytes, 'a');
        for (int i = 0; i < blocks; ++i) {
            while (!ring.push(in.data(), in.size()))
                pause();
        }
    });
    while (!ring.pop(out.data(), out.size()))
        pause();
    const int64_t begin = now();
    for (int i = 1; i < blocks; ++i) {
        while (!ring.pop(out.data(), out.size()))
            pause();
    }
    const double taken = double(now() - begin);
    producer.join();
    return taken / (blocks - 1);
}

/// Nanoseconds for a block one way, of which one is under way at a time.
template <class Ring>
double latency(Ring &there, Ring &back, int blocks)
{
    std::thread echo([&there, &back, blocks] {
        pin(0);
        std::vector<char> block(blockBytes);
        for (int i = 0; i < blocks; ++i) {
            while (!there.pop(block.data(), block.size()))
                pause();
            back.push(block.data(), block.size());
        }
    });
    std::vector<char> block(blockBytes, 'a');
    const int64_t begin = now();
    for (int i = 0; i < blocks; ++i) {
        there.push(block.data(), block.size());
        while (!back.pop(block.data(), block.size()))
            pause();
    }
    const double taken = double(now() - begin);
    echo.join();
    return taken / blocks / 2;
}

struct Least
{
    QString name;
    double throughput = std::numeric_limits<double>::max();
    double latency = std::numeric_limits<double>::max();
};

template <class Ring>
void runOnce(Least &least)
{
    const auto there = std::make_unique<Ring>();
    const auto back = std::make_unique<Ring>();
    least.throughput = std::min(least.throughput, Bench::throughput(*there, 20000));
    const auto forth = std::make_unique<Ring>();
    least.latency = std::min(least.latency, Bench::latency(*forth, *back, 2000));
}

/// The least of many runs: with other work on the machine the median tells of that work.
std::vector<Figure> twoThreads()
{
    if (std::thread::hardware_concurrency() < 2)
        return {};
    pin(1);
    std::vector<Least> all{{QStringLiteral("ours")},
                           {QStringLiteral("JACK")},
                           {QStringLiteral("PipeWire")},
                           {QStringLiteral("boost")}};
    for (int run = 0; run < 30; ++run) {
        runOnce<OurRing>(all[0]);
        runOnce<JackRing>(all[1]);
#ifdef QTOVELMIXER_BENCH_SPA
        runOnce<SpaRing>(all[2]);
#endif
#ifdef QTOVELMIXER_BENCH_BOOST
        runOnce<BoostRing>(all[3]);
#endif
    }
    pin(-1);
    double bestThroughput = std::numeric_limits<double>::max();
    double bestLatency = bestThroughput;
    for (size_t i = 1; i < all.size(); ++i) {
        bestThroughput = std::min(bestThroughput, all[i].throughput);
        bestLatency = std::min(bestLatency, all[i].latency);
    }
    const QString ns = QStringLiteral("ns");
    std::vector<Figure> figures{
        {section, QStringLiteral("2 KiB from thread to thread, least of 30 (1.05 × best peer)"),
         all[0].throughput, ns, 1.05 * bestThroughput},
        {section, QStringLiteral("2 KiB one way, least of 30 (1.05 × best peer)"), all[0].latency,
         ns, 1.05 * bestLatency}};
    for (size_t i = 1; i < all.size(); ++i) {
        if (all[i].latency == std::numeric_limits<double>::max())
            continue;
        figures.push_back({section, QStringLiteral("%1: from thread to thread").arg(all[i].name),
                           all[i].throughput, ns});
        figures.push_back(
            {section, QStringLiteral("%1: one way").arg(all[i].name), all[i].latency, ns});
    }
    return figures;
}

} // namespace

void addRingCases(Suite &suite)
{
    suite.add(section, pushAndPop);
    suite.add(section, bookkeeping);
    suite.addFigures(section, twoThreads);
}

} // namespace Bench
