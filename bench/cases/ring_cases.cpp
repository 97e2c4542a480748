// SPDX-License-Identifier: MIT
// Blocks of 256 stereo frames through the ring, on one thread.
#include "cases/rings.h"

#include <array>
#include <cstring>
#include <memory>

namespace Bench {

namespace {

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
    Case result(ringSection, QStringLiteral("2 KiB in and out, one thread"));
    addPushAndPop<OurRing>(result, ours);
    addPushAndPop<Copies>(result, copies);
    addPushAndPop<OurInterface>(result, cInterface);
    addPushAndPop<JackRing<BehindAHeader>>(result, jack);
    addPushAndPop<JackRing<OnPages>>(result, jackOnPages);
    result.mustBeat(copies, 1.0 / 1.15).mustBeat(jack, 1.4);
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
    Case result(ringSection, QStringLiteral("bookkeeping of a block in and out"));
    const auto own = std::make_shared<OurRing>();
    const auto calls = std::make_shared<OurInterface>();
    const auto peer = std::make_shared<JackRing<BehindAHeader>>();
    return result.ours([own] { own->keepBooks(blockBytes); })
        .add(cInterface, [calls] { calls->keepBooks(blockBytes); })
        .add(jack, [peer] { peer->keepBooks(blockBytes); })
        .mustTakeAtMost(5.0);
}

} // namespace

void addRingCases(Suite &suite)
{
    suite.add(ringSection, pushAndPop);
    suite.add(ringSection, bookkeeping);
    suite.addFigures(ringSection, ringFigures);
}

} // namespace Bench
