// SPDX-License-Identifier: MIT
#include <mixer/meter/peak_latch_p.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

/// The magnitude that the statistics give a sample: what is not finite counts as 0.
double magnitude(float sample)
{
    constexpr double bound = 1e30F;
    return std::isfinite(sample) ? std::min(std::abs(double(sample)), bound) : 0.0;
}

int placeOf(double peak, ChannelRun run)
{
    for (int frame = 0; frame < run.frames; ++frame, run.samples += run.stride) {
        if (magnitude(*run.samples) >= peak)
            return frame;
    }
    return 0;
}

void countOvers(PeakLatch &latch, const OverRule &rule, ChannelRun run)
{
    for (int frame = 0; frame < run.frames; ++frame, run.samples += run.stride) {
        if (magnitude(*run.samples) < rule.level) {
            latch.run = 0;
        } else if (latch.run < rule.length && ++latch.run == rule.length) {
            ++latch.overs;
        }
    }
}

} // namespace

void PeakLatches::addLevel(int channel, double peak, ChannelRun run) noexcept
{
    PeakLatch &latch = m_latches[size_t(channel)];
    if (peak > latch.maxLevel) {
        latch.maxLevel = peak;
        latch.maxLevelFrame = m_frames + placeOf(peak, run);
    }
    if (peak >= rule.level)
        countOvers(latch, rule, run);
    else
        latch.run = 0;
}

void PeakLatches::addTruePeak(int channel, double peak) noexcept
{
    PeakLatch &latch = m_latches[size_t(channel)];
    if (peak > latch.maxTruePeak) {
        latch.maxTruePeak = peak;
        latch.maxTruePeakFrame = m_frames;
    }
}

void PeakLatches::breakRuns() noexcept
{
    for (PeakLatch &latch : m_latches)
        latch.run = 0;
}

void PeakLatches::reset() noexcept
{
    std::fill(m_latches.begin(), m_latches.end(), PeakLatch{});
    m_frames = 0;
}

} // namespace QTovelMixer
