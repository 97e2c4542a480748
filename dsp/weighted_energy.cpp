// SPDX-License-Identifier: MIT
#include <dsp/weighted_energy_p.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace QTovelMixer {

namespace {

// The samples worked on at a time stay in the first-level cache.
constexpr int chunkSamples = 4096;
constexpr int leastChunkFrames = 32;

} // namespace

WeightedEnergy::WeightedEnergy(int sampleRate, int hopsPerSecond)
    : m_sampleRate(sampleRate), m_hopsPerSecond(hopsPerSecond),
      m_weighting(KWeighting::forRate(sampleRate)), m_state(0)
{}

void WeightedEnergy::setChannels(const std::vector<double> &weights)
{
    const int channels = int(weights.size());
    const int chunkFrames = std::max(leastChunkFrames, chunkSamples / std::max(channels, 1));
    const size_t samples = size_t(chunkFrames) * weights.size() + size_t(statisticsOverread);
    std::vector<double> scaled(weights);
    for (double &weight : scaled)
        weight *= m_weighting.gain();
    KWeightingState state(channels);
    std::vector<float> chunk(samples);
    // Nothing below fails.
    m_state = std::move(state);
    m_weights = std::move(scaled);
    m_chunkFrames = chunkFrames;
    m_chunk = std::move(chunk);
    m_frames = 0;
    m_hop = 0;
}

int WeightedEnergy::add(const float *frames, int count) noexcept
{
    const int wanted = int(std::min<int64_t>(count, missingFrames()));
    for (int done = 0; done < wanted;) {
        const int run = std::min(wanted - done, m_chunkFrames);
        copyBounded(frames + ptrdiff_t(done) * channels(), m_chunk.data(),
                    size_t(run) * m_weights.size());
        weigh({m_chunk.data(), run, channels()}, m_weighting, m_state);
        done += run;
    }
    m_frames += wanted;
    return wanted;
}

double WeightedEnergy::takeHop() noexcept
{
    double *const energies = m_state.energies();
    const double energy = std::inner_product(m_weights.begin(), m_weights.end(), energies, 0.0);
    std::fill_n(energies, m_weights.size(), 0.0);
    ++m_hop;
    return energy;
}

} // namespace QTovelMixer
