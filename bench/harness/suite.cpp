// SPDX-License-Identifier: MIT
#include "harness/suite.h"

#include <hwy/targets.h>

#include <algorithm>
#include <ctime>

#ifdef __linux__
#include <sched.h>
#endif

namespace Bench {

namespace {

/// Nanoseconds that this thread had its processor: what others on the machine take is no part of
/// it.
int64_t used()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return int64_t(time.tv_sec) * 1000000000 + time.tv_nsec;
}

long callsPerSlice(const Contestant &who, double sliceNanoseconds)
{
    for (long calls = 1;; calls *= 2) {
        const int64_t begin = used();
        who.run(calls);
        const double taken = double(used() - begin);
        if (taken >= sliceNanoseconds / 4)
            return std::max(1L, long(double(calls) * sliceNanoseconds / taken));
    }
}

} // namespace

int64_t now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t(time.tv_sec) * 1000000000 + time.tv_nsec;
}

void measure(Case &work, const Pace &pace)
{
    if (work.measureBy)
        return work.measureBy(work, pace);
    holdToTarget(work.target);
    std::vector<long> calls;
    for (const Contestant &who : work.contestants) {
        who.run(1);
        calls.push_back(callsPerSlice(who, pace.sliceMilliseconds * 1e6));
    }
    for (int round = 0; round < pace.rounds; ++round) {
        for (size_t i = 0; i < work.contestants.size(); ++i) {
            const int64_t begin = used();
            work.contestants[i].run(calls[i]);
            const double taken = double(used() - begin);
            work.contestants[i].rounds.push_back(taken / double(calls[i]) / work.unitsPerCall);
        }
    }
    holdToTarget(0);
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double nanoseconds(const Contestant &who)
{
    return median(who.rounds);
}

double timesAsFast(const Case &work, const Contestant &other)
{
    std::vector<double> ratios;
    const std::vector<double> &ours = work.contestants.front().rounds;
    for (size_t round = 0; round < std::min(ours.size(), other.rounds.size()); ++round)
        ratios.push_back(other.rounds[round] / ours[round]);
    return median(ratios);
}

void pin(int processor)
{
#ifdef __linux__
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (processor < 0 || i == processor)
            CPU_SET(i, &set);
    }
    sched_setaffinity(0, sizeof set, &set);
#else
    static_cast<void>(processor);
#endif
}

void holdToTarget(int64_t target)
{
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

} // namespace Bench
