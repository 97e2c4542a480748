// SPDX-License-Identifier: MIT
#include <mixer/io/resampler_bank_p.h>

#include <dsp/kernels_p.h>
#include <dsp/resample.h>
#include <dsp/resample_rates_p.h>

#include <algorithm>
#include <array>
#include <limits>

namespace QTovelMixer {

namespace {

// Channels taken apart together: as many as one pass over the frames serves best, and few enough
// for a small scratch.
constexpr size_t groupChannels = 8;

} // namespace

ResamplerBank::ResamplerBank(int inputRate, int outputRate, int channels)
    : m_resamplers(static_cast<size_t>(std::max(channels, 0)))
{
    for (auto &resampler : m_resamplers)
        resampler.reset(DSPB_ResampleInit(inputRate, outputRate, "none"));
    if (!isValid())
        return;
    const size_t together = std::min(m_resamplers.size(), groupChannels);
    m_outputFrames = static_cast<size_t>(maxOutputFrames(inputRate, outputRate));
    m_input.resize(together * chunkFrames);
    m_output.resize(together * m_outputFrames);
}

void ResamplerBank::Destroy::operator()(DSPB_Resampler *resampler) const
{
    DSPB_ResampleDestroy(resampler);
}

bool ResamplerBank::canConvert(int inputRate, int outputRate)
{
    return inputRate >= 1 && (inputRate == outputRate || isConvertible(inputRate, outputRate));
}

bool ResamplerBank::isValid() const
{
    return std::find(m_resamplers.begin(), m_resamplers.end(), nullptr) == m_resamplers.end();
}

int ResamplerBank::maxOutputFrames(int inputRate, int outputRate)
{
    if (inputRate < 1 || outputRate < 1)
        return 0;
    const double most = static_cast<double>(outputRate) / inputRate * 4096.0 * 1.5;
    return static_cast<int>(std::min(most, double{std::numeric_limits<int>::max()}));
}

int ResamplerBank::process(const float *in, int frames, float *out)
{
    frames = std::min(frames, chunkFrames);
    if (frames <= 0 || m_input.empty())
        return 0;
    std::array<float *, groupChannels> inputs{};
    std::array<float *, groupChannels> outputs{};
    for (size_t c = 0; c < std::min(m_resamplers.size(), groupChannels); ++c) {
        inputs[c] = m_input.data() + c * chunkFrames;
        outputs[c] = m_output.data() + c * m_outputFrames;
    }
    int written = 0;
    const size_t channels = m_resamplers.size();
    for (size_t first = 0; first < channels; first += groupChannels) {
        const size_t count = std::min(channels - first, groupChannels);
        Kernels::deinterleave(in + first, channels, inputs.data(), count,
                              static_cast<size_t>(frames));
        for (size_t c = 0; c < count; ++c)
            written = DSPB_Resample(m_resamplers[first + c].get(), inputs[c], outputs[c], frames);
        Kernels::interleave(outputs.data(), out + first, channels, count,
                            static_cast<size_t>(written));
    }
    return written;
}

void ResamplerBank::restart()
{
    for (const auto &resampler : m_resamplers)
        DSPB_ResampleRestart(resampler.get());
}

double ResamplerBank::withheldInputFrames() const
{
    return m_resamplers.empty() ? 0.0 : DSPB_ResampleWithheld(m_resamplers.front().get());
}

} // namespace QTovelMixer
