// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_STATISTICS_KERNEL_P_H
#define QTOVELMIXER_DSP_STATISTICS_KERNEL_P_H

#include <dsp/k_weighting_p.h>
#include <dsp/true_peak_p.h>

#include <cstddef>
#include <vector>

namespace QTovelMixer {

/// Samples that the kernels may read (not use) behind the last one.
constexpr int statisticsOverread = 16;

/// The two sections' state and the energy of each channel; a few lanes more than channels.
struct KWeightingState
{
    explicit KWeightingState(int channels);

    static constexpr int fields = 5; ///< two per section, then the sum of squares
    /// Field f of channel c stands at [f * lanes + c].
    std::vector<double> values;
    size_t lanes;

    double *field(int index) noexcept { return values.data() + size_t(index) * lanes; }
    double *energies() noexcept { return field(4); }
    const double *energies() const noexcept { return values.data() + 4 * lanes; }
};

/// Interleaved samples; sample 0 is the first channel of a frame.
struct StatisticsRun
{
    const float *samples;
    int frames;
    int channels;
};

/// Largest magnitudes by place: entry i holds that of the samples i, i + size, i + 2 size … where
/// size is a multiple of the channel count and of every vector length.
using FlatPeaks = std::vector<float>;

/// Copies samples; those that are not finite become 0, the rest is held within ±1e30.
/// Threads: any. Real-time: yes; so are all below.
void copyBounded(const float *in, float *out, size_t count) noexcept;

/// Raises `peaks` to the magnitudes of the samples.
void samplePeaks(const StatisticsRun &run, FlatPeaks &peaks) noexcept;

/// Raises `peaks` to the magnitudes between the samples, with `filter.factor` of at least 2.
/// `filter.history` frames must stand before the run.
void truePeaks(const StatisticsRun &run, const TruePeakFilter &filter, FlatPeaks &peaks) noexcept;

/// Filters the samples by the two sections over their b0, and adds the squares to the energies:
/// `weighting.gain()` times them is what the weighting gives. The same bits on every processor.
void weigh(const StatisticsRun &run, const KWeighting &weighting, KWeightingState &state) noexcept;

} // namespace QTovelMixer

#endif
