// SPDX-License-Identifier: MIT
// Blocks of 256 stereo frames through the ring, from one thread to another.
#include "cases/rings.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace Bench {

namespace {

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

} // namespace

/// All contestants in turn, and the median of each: what two virtual processors share changes while
/// the machine runs, and the least of all runs tells who met the best moment.
std::vector<Figure> ringFigures()
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
        {ringSection, QStringLiteral("2 KiB from thread to thread, median (1.05 × best peer)"),
         median(all[0].throughput), ns, 1.05 * bestThroughput},
        {ringSection, QStringLiteral("2 KiB one way, median (1.05 × best peer)"),
         median(all[0].latency), ns, 1.05 * bestLatency}};
    for (size_t i = 1; i < all.size(); ++i) {
        figures.push_back({ringSection,
                           QStringLiteral("%1: from thread to thread").arg(all[i].name),
                           median(all[i].throughput), ns});
        figures.push_back({ringSection, QStringLiteral("%1: one way").arg(all[i].name),
                           median(all[i].latency), ns});
    }
    return figures;
}

} // namespace Bench
