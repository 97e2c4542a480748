// SPDX-License-Identifier: MIT
#include "cases/pacing.h"

#include <algorithm>
#include <ctime>
#include <thread>

namespace Bench {

namespace {

constexpr size_t megabyte = size_t(1) << 20;
constexpr int unmeasured = 3; ///< blocks of a turn, in which the mixer comes back into the caches

void sleepUntil(int64_t time)
{
    const timespec until{time / 1000000000, time % 1000000000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

/// What a host, its device's driver and its plug-ins do between two blocks.
void otherWork(size_t bytes)
{
    constexpr size_t line = 64;
    static std::vector<char> memory(48 * megabyte);
    for (size_t i = 0; i < bytes; i += line)
        ++memory[i];
}

/// Frames that a turn without pause may take out of rings of five seconds.
constexpr unsigned turnFrames = mixerRate * 5 / 2;

/// Processor time, so that what others on the machine take is no part of it.
double hotTurn(const Mixing &who, unsigned frames, bool withRefill)
{
    const long blocks = turnFrames / frames;
    const bool countsAll = withRefill && who.refill;
    const auto used = [countsAll] { return countsAll ? processTime() : threadTime(); };
    const double begin = used();
    for (long i = 0; i < blocks; ++i)
        who.block();
    double taken = used() - begin;
    if (who.refill)
        who.refill();
    if (countsAll)
        taken = used() - begin;
    return taken / double(blocks);
}

double turn(const Mixing &who, const Pacing &pacing)
{
    if (pacing.kind == Pacing::Hot || pacing.kind == Pacing::Refilled)
        return hotTurn(who, pacing.frames, pacing.kind == Pacing::Refilled);
    const int blocks = pacing.frames > 512 ? 12 : 30;
    const double middle =
        median(deviceBlocks(who.block, pacing.frames, blocks, pacing.kind == Pacing::Cold));
    if (who.refill)
        who.refill();
    return middle;
}

} // namespace

std::vector<double> deviceBlocks(const std::function<void()> &block, unsigned frames, int count,
                                 bool cold, const std::function<void()> &behind)
{
    const int64_t period = int64_t(frames) * 1000000000 / mixerRate;
    std::vector<double> taken;
    int64_t due = now();
    for (int i = -unmeasured; i < count; ++i) {
        otherWork(cold ? 48 * megabyte : megabyte);
        due = std::max(due + period, now());
        sleepUntil(due);
        const int64_t begin = now();
        block();
        const int64_t end = now();
        if (behind)
            behind();
        if (i >= 0)
            taken.push_back(double(end - begin));
    }
    return taken;
}

Case paced(Case work, const Pacing &pacing, const std::vector<Mixing> &mixers)
{
    for (const Mixing &mixer : mixers)
        work.add(mixer.name, mixer.block);
    work.measureBy = [pacing, mixers](Case &measured, const Pace &pace) {
        const int turns = std::max(1, pace.rounds / 3);
        // A device has a thread of its own.
        std::thread device([&] {
            for (int i = 0; i < turns; ++i) {
                for (size_t who = 0; who < mixers.size(); ++who) {
                    measured.contestants[who].rounds.push_back(turn(mixers[who], pacing) /
                                                               measured.unitsPerCall);
                }
            }
        });
        device.join();
    };
    return work;
}

} // namespace Bench
