// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_PEAK_LATCH_P_H
#define QTOVELMIXER_MIXER_METER_PEAK_LATCH_P_H

#include <QtCore/QtGlobal>

#include <cstddef>
#include <vector>

namespace QTovelMixer {

/// What one channel has reached since the holds were reset. Linear, frames.
struct PeakLatch
{
    double maxLevel = 0.0;
    qint64 maxLevelFrame = 0;
    double maxTruePeak = 0.0;
    qint64 maxTruePeakFrame = 0;
    qint64 overs = 0;
    int run = 0; ///< samples of the run that reaches the end of what was measured
};

/// When a run of samples is an over.
struct OverRule
{
    int length = 1;
    double level = 1.0; ///< linear
};

/// One channel of a measured block of interleaved frames.
struct ChannelRun
{
    const float *samples;
    int frames;
    int stride;
};

/// The largest magnitudes and the overs of all channels of a meter. Blocks that stay below what was
/// there before cost one comparison per channel.
///
/// Threads: one at a time. Real-time: yes, but the constructor.
class PeakLatches
{
public:
    explicit PeakLatches(int channels) : m_latches(size_t(channels)) {}

    OverRule rule;

    /// Takes in a block of a channel whose largest magnitude is `peak`.
    void addLevel(int channel, double peak, ChannelRun run) noexcept;
    void addTruePeak(int channel, double peak) noexcept;
    /// Moves on behind the block that all channels were taken in of.
    void advance(int frames) noexcept { m_frames += frames; }
    /// What was measured before is no neighbour of what comes.
    void breakRuns() noexcept;
    void reset() noexcept;

    const std::vector<PeakLatch> &latches() const noexcept { return m_latches; }
    qint64 frames() const noexcept { return m_frames; }

private:
    std::vector<PeakLatch> m_latches;
    qint64 m_frames = 0; // measured since the last reset
};

} // namespace QTovelMixer

#endif
