// SPDX-License-Identifier: MIT
// Blocks of 256 stereo frames through the ring, on one thread and from one to another.
#include "cases/cases.h"

#include <base/ringbuffer_p.h>

#include <jack/ringbuffer.h>

#include <algorithm>
#include <array>
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
const QString ours = QStringLiteral("ours");
const QString copies = QStringLiteral("two memcpy");
const QString cInterface = QStringLiteral("the C interface");
const QString jack = QStringLiteral("JACK behind a header");
const QString jackOnPages = QStringLiteral("JACK on pages");
const QString pipeWire = QStringLiteral("PipeWire behind a header");
const QString pipeWireOnPages = QStringLiteral("PipeWire on pages");
const QString boostQueue = QStringLiteral("boost");

constexpr size_t capacity = 131072;
constexpr size_t pageBytes = 4096;
// Volatile, so that copies of it are calls and no instruction made for its size.
volatile size_t blockBytes = 256 * 2 * sizeof(float);

/// Where glibc puts a block of this size in a process that has just begun, and a better place: of
/// the first, copies cross cache lines.
enum Place : size_t { BehindAHeader = 16, OnPages = 0 };

template <Place place>
class PlacedMemory
{
public:
    char *data() { return m_bytes + place; }

private:
    alignas(pageBytes) char m_bytes[place + capacity] = {};
};

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

template <Place place>
class JackRing
{
public:
    JackRing() : m_ring(jack_ringbuffer_create(capacity)), m_own(m_ring->buf)
    {
        m_ring->buf = m_memory.data();
    }
    ~JackRing()
    {
        m_ring->buf = m_own;
        jack_ringbuffer_free(m_ring);
    }
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
    char *m_own;
    PlacedMemory<place> m_memory;
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

template <Place place>
class SpaRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        uint32_t index = 0;
        const int32_t filled = spa_ringbuffer_get_write_index(&m_ring, &index);
        if (filled < 0 || size_t(filled) + bytes > capacity)
            return false;
        spa_ringbuffer_write_data(&m_ring, m_memory.data(), uint32_t(capacity),
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
        spa_ringbuffer_read_data(&m_ring, m_memory.data(), uint32_t(capacity),
                                 index % uint32_t(capacity), to, uint32_t(bytes));
        spa_ringbuffer_read_update(&m_ring, int32_t(index + uint32_t(bytes)));
        return true;
    }

private:
    PlacedMemory<place> m_memory;
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
    alignas(pageBytes) char m_memory[capacity] = {};
    size_t m_offset = 0;
};

/// What goes in and comes out of one ring, at cache lines as buses are, the n-th somewhere else in
/// its pages: how addresses lie to each other decides what a copy costs.
struct Block
{
    static constexpr size_t line = 64;

    alignas(pageBytes) char memory[4 * pageBytes] = {};

    const char *from(size_t number) const { return memory + number * 35 * line % pageBytes; }
    char *to(size_t number) { return memory + 2 * pageBytes + number * 119 * line % pageBytes; }
};

constexpr size_t ringsEach = 8;

/// One for each ring of a kind, the same for all kinds.
std::array<Block, ringsEach> &blocks()
{
    static std::array<Block, ringsEach> all;
    return all;
}

/// Several rings of a kind in turn, each for long enough to be in the cache.
template <class Ring>
class Rings
{
public:
    void pushAndPop()
    {
        if (++m_calls % callsEach == 0)
            m_current = (m_current + 1) % ringsEach;
        Ring &ring = m_rings[m_current];
        Block &block = blocks()[m_current];
        const size_t bytes = blockBytes;
        ring.push(block.from(m_current), bytes);
        asm volatile("" : : : "memory");
        ring.pop(block.to(m_current), bytes);
    }

private:
    static constexpr unsigned callsEach = 8192;

    std::array<Ring, ringsEach> m_rings;
    size_t m_current = 0;
    unsigned m_calls = 0;
};

template <class Ring>
void addPushAndPop(Case &to, const QString &name)
{
    to.add(name, [rings = std::make_shared<Rings<Ring>>()] { rings->pushAndPop(); });
}

Case pushAndPop()
{
    Case result(section, QStringLiteral("2 KiB in and out, one thread"));
    addPushAndPop<OurRing>(result, ours);
    addPushAndPop<Copies>(result, copies);
    addPushAndPop<OurInterface>(result, cInterface);
    addPushAndPop<JackRing<BehindAHeader>>(result, jack);
    addPushAndPop<JackRing<OnPages>>(result, jackOnPages);
    result.mustBeat(copies, 1.0 / 1.15)
        .mustBeat(copies, 1.2 * 37.0 / 50.2, QStringLiteral("PortAudio"))
        .mustBeat(jack, 1.4);
#ifdef QTOVELMIXER_BENCH_SPA
    addPushAndPop<SpaRing<BehindAHeader>>(result, pipeWire);
    addPushAndPop<SpaRing<OnPages>>(result, pipeWireOnPages);
    result.mustBeat(pipeWire, 1.1);
#endif
#ifdef QTOVELMIXER_BENCH_BOOST
    addPushAndPop<BoostRing>(result, boostQueue);
#endif
    return result;
}

Case bookkeeping()
{
    Case result(section, QStringLiteral("bookkeeping of a block in and out"));
    const auto own = std::make_shared<OurRing>();
    const auto calls = std::make_shared<OurInterface>();
    const auto peer = std::make_shared<JackRing<BehindAHeader>>();
    return result.ours([own] { own->keepBooks(blockBytes); })
        .add(cInterface, [calls] { calls->keepBooks(blockBytes); })
        .add(jack, [peer] { peer->keepBooks(blockBytes); })
        .mustTakeAtMost(5.0)
        .mustBeat(jack, 2.5 * 12.3 / 9.5, QStringLiteral("PortAudio"));
}

inline void pause()
{
#ifdef __x86_64__
    __builtin_ia32_pause();
#endif
}

/// Runs `work` on processor 0 beside `measured`, which answers nanoseconds.
template <typename Work, typename Measured>
double beside(Work work, Measured measured)
{
    std::thread other([&work] {
        pin(0);
        work();
    });
    const double result = measured();
    other.join();
    return result;
}

/// Nanoseconds a block of the fastest of several batches: a virtual processor is taken away often
/// enough to show in every long one.
template <typename Batch>
double leastOf(int batches, int blocks, Batch batch)
{
    double least = std::numeric_limits<double>::max();
    for (int i = 0; i < batches; ++i) {
        const int64_t begin = now();
        batch();
        least = std::min(least, double(now() - begin) / blocks);
    }
    return least;
}

/// From one processor to another, both spinning.
template <class Ring>
double throughput(Ring &ring)
{
    constexpr int batches = 5;
    constexpr int blocks = 4000;
    return beside(
        [&ring] {
            const std::vector<char> in(blockBytes, 'a');
            for (int i = 0; i < batches * blocks; ++i) {
                while (!ring.push(in.data(), in.size()))
                    pause();
            }
        },
        [&ring] {
            std::vector<char> out(blockBytes);
            return leastOf(batches, blocks, [&] {
                for (int i = 0; i < blocks; ++i) {
                    while (!ring.pop(out.data(), out.size()))
                        pause();
                }
            });
        });
}

/// One way, with one block under way at a time.
template <class Ring>
double latency(Ring &there, Ring &back)
{
    constexpr int batches = 20;
    constexpr int blocks = 100;
    return beside(
               [&there, &back] {
                   std::vector<char> block(blockBytes);
                   for (int i = 0; i < batches * blocks; ++i) {
                       while (!there.pop(block.data(), block.size()))
                           pause();
                       back.push(block.data(), block.size());
                   }
               },
               [&there, &back] {
                   std::vector<char> block(blockBytes, 'a');
                   return leastOf(batches, blocks, [&] {
                       for (int i = 0; i < blocks; ++i) {
                           there.push(block.data(), block.size());
                           while (!back.pop(block.data(), block.size()))
                               pause();
                       }
                   });
               }) /
           2;
}

struct Runs
{
    QString name;
    void (*once)(Runs &runs);
    std::vector<double> throughput = {};
    std::vector<double> latency = {};
};

template <class Ring>
void runOnce(Runs &runs)
{
    const auto there = std::make_unique<Ring>();
    const auto back = std::make_unique<Ring>();
    runs.throughput.push_back(throughput(*there));
    const auto forth = std::make_unique<Ring>();
    runs.latency.push_back(latency(*forth, *back));
}

/// All contestants in turn, and the median of each: what two virtual processors share changes while
/// the machine runs, and the least of all runs tells who met the best moment.
std::vector<Figure> twoThreads()
{
    if (std::thread::hardware_concurrency() < 2)
        return {};
    std::vector<Runs> all{
        {ours, &runOnce<OurRing>},
        {jack, &runOnce<JackRing<BehindAHeader>>},
        {jackOnPages, &runOnce<JackRing<OnPages>>},
#ifdef QTOVELMIXER_BENCH_SPA
        {pipeWire, &runOnce<SpaRing<BehindAHeader>>},
        {pipeWireOnPages, &runOnce<SpaRing<OnPages>>},
#endif
#ifdef QTOVELMIXER_BENCH_BOOST
        {boostQueue, &runOnce<BoostRing>},
#endif
    };
    pin(1);
    for (int run = 0; run < 31; ++run) {
        for (Runs &runs : all)
            runs.once(runs);
    }
    pin(-1);
    double bestThroughput = std::numeric_limits<double>::max();
    double bestLatency = bestThroughput;
    for (size_t i = 1; i < all.size(); ++i) {
        bestThroughput = std::min(bestThroughput, median(all[i].throughput));
        bestLatency = std::min(bestLatency, median(all[i].latency));
    }
    const QString ns = QStringLiteral("ns");
    std::vector<Figure> figures{
        {section, QStringLiteral("2 KiB from thread to thread, median (1.05 × best peer)"),
         median(all[0].throughput), ns, 1.05 * bestThroughput},
        {section, QStringLiteral("2 KiB one way, median (1.05 × best peer)"),
         median(all[0].latency), ns, 1.05 * bestLatency}};
    for (size_t i = 1; i < all.size(); ++i) {
        figures.push_back({section, QStringLiteral("%1: from thread to thread").arg(all[i].name),
                           median(all[i].throughput), ns});
        figures.push_back(
            {section, QStringLiteral("%1: one way").arg(all[i].name), median(all[i].latency), ns});
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
