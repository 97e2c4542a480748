// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_DSP_STATISTICS_SUPPORT_H
#define QTOVELMIXER_TESTS_DSP_STATISTICS_SUPPORT_H

#include <dsp/statistics.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

inline constexpr uint32_t levelMeasures = 0x7C00;
inline constexpr uint32_t truePeakMeasures = 0x200;
inline constexpr double silence = -120.0;

struct Destroy
{
    void operator()(DSPB_Statistics *statistics) const { DSPB_StatisticsDestroy(&statistics); }
};
using Statistics = std::unique_ptr<DSPB_Statistics, Destroy>;

inline Statistics makeStatistics(int rate, int channels,
                                 uint32_t measures = levelMeasures | truePeakMeasures)
{
    return Statistics(DSPB_StatisticsCreate(rate, channels, 16, measures));
}

inline double momentary(const Statistics &statistics)
{
    double lufs = 1.0;
    DSPB_StatisticsMomentaryLoudness(statistics.get(), &lufs);
    return lufs;
}

inline double shortTerm(const Statistics &statistics)
{
    double lufs = 1.0;
    DSPB_StatisticsShortTermLoudness(statistics.get(), &lufs);
    return lufs;
}

inline double samplePeak(const Statistics &statistics, int channel)
{
    double peak = -1.0;
    DSPB_StatisticsMomentarySamplePeak(statistics.get(), channel, &peak);
    return peak;
}

inline double truePeak(const Statistics &statistics, int channel)
{
    double peak = -1.0;
    DSPB_StatisticsMomentaryTruePeak(statistics.get(), channel, &peak);
    return peak;
}

inline std::vector<float> noise(size_t samples, unsigned seed, float amplitude = 0.5F)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> sample(-amplitude, amplitude);
    std::vector<float> values(samples);
    for (float &value : values)
        value = sample(random);
    return values;
}

#endif
