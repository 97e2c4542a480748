// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_WEIGHTED_ENERGY_P_H
#define QTOVELMIXER_DSP_WEIGHTED_ENERGY_P_H

#include <dsp/k_weighting_p.h>
#include <dsp/statistics_kernel_p.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QTovelMixer {

/// The K-weighted energy of interleaved frames, summed over the channels by their weights (ITU-R
/// BS.1770-5 Annex 1), hop by hop.
///
/// Hops are counted from the first frame, so that rates which they do not divide have hops of two
/// lengths and no drift.
class WeightedEnergy
{
public:
    /// `sampleRate` is 1 … 1 536 000 Hz.
    WeightedEnergy(int sampleRate, int hopsPerSecond);

    /// Measures channels with these weights (1 … 128 of them) from now on. The filters start from
    /// silence, and the first hop begins.
    void setChannels(const std::vector<double> &weights);
    int channels() const noexcept { return int(m_weights.size()); }

    /// Adds frames up to the end of the hop under way and answers how many. Samples that are not
    /// finite count as 0. There must be channels. Real-time: yes.
    int add(const float *frames, int count) noexcept;
    /// Frames that the hop under way still takes. 0: it is whole, and `takeHop` comes next.
    int64_t missingFrames() const noexcept { return hopEnd() - m_frames; }
    bool isInsideHop() const noexcept { return m_frames > m_hop * m_sampleRate / m_hopsPerSecond; }
    /// Ends the hop, gives its energy, a sum of squares, and begins the next one.
    double takeHop() noexcept;

    /// The mean square of energy from so many hops.
    double meanSquare(double energy, int hops) const noexcept
    {
        return energy * m_hopsPerSecond / (double(m_sampleRate) * hops);
    }

private:
    int64_t hopEnd() const noexcept { return (m_hop + 1) * m_sampleRate / m_hopsPerSecond; }

    int m_sampleRate;
    int m_hopsPerSecond;
    KWeighting m_weighting;
    KWeightingState m_state;
    std::vector<double> m_weights; // with the filters' gain
    int m_chunkFrames = 0;
    std::vector<float> m_chunk; // and what may be read behind it
    int64_t m_frames = 0;
    int64_t m_hop = 0; // the one under way
};

} // namespace QTovelMixer

#endif
