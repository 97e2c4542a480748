// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_PROGRAMME_METER_P_H
#define QTOVELMIXER_MIXER_METER_PROGRAMME_METER_P_H

#include <dsp/programme_loudness_p.h>
#include <dsp/statistics.h>
#include <mixer/meter/loudness_reading.h>

#include <memory>
#include <vector>

namespace QTovelMixer {

struct StatisticsDeleter
{
    void operator()(DSPB_Statistics *statistics) const { DSPB_StatisticsDestroy(&statistics); }
};
using StatisticsHandle = std::unique_ptr<DSPB_Statistics, StatisticsDeleter>;

/// A measurement of a programme's loudness and true peak.
///
/// Threads: one at a time.
class ProgrammeMeter
{
public:
    explicit ProgrammeMeter(int sampleRate);

    /// The channels that are measured from now on, by their weights; none when there are more than
    /// can be measured. `truePeaks` of the same channels may be measured elsewhere.
    void setChannels(const std::vector<double> &weights, bool truePeaksElsewhere);

    /// Takes in a block. `truePeaks` is the handle that was given the block already, or null.
    void add(const float *frames, int count, const DSPB_Statistics *truePeaks) noexcept;

    void setRunning(bool running) noexcept { m_loudness.setRunning(running); }
    void reset() noexcept;

    const LoudnessReading &reading() noexcept;

private:
    int m_sampleRate;
    int m_channels = 0;
    ProgrammeLoudness m_loudness;
    StatisticsHandle m_truePeaks;
    double m_maxTruePeak = 0.0; // linear
    LoudnessReading m_reading;
    uint64_t m_readRevision = 0; // of the gates' figures in the reading
};

} // namespace QTovelMixer

#endif
