// SPDX-License-Identifier: MIT
#include <mixer/io/resampler_bank_p.h>

#include <dsp/resample.h>

#include <algorithm>
#include <limits>

namespace QTovelMixer {

ResamplerBank::ResamplerBank(int inputRate, int outputRate, int channels)
    : m_resamplers(static_cast<size_t>(std::max(channels, 0)), nullptr)
{
    for (DSPB_Resampler *&resampler : m_resamplers)
        resampler = DSPB_ResampleInit(inputRate, outputRate, "none");
    if (!isValid())
        return;
    m_input.resize(chunkFrames);
    m_output.resize(static_cast<size_t>(maxOutputFrames(inputRate, outputRate)));
}

ResamplerBank::~ResamplerBank()
{
    for (DSPB_Resampler *resampler : m_resamplers)
        DSPB_ResampleDestroy(resampler);
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
    int written = 0;
    const size_t channels = m_resamplers.size();
    for (size_t c = 0; c < channels; ++c) {
        const float *from = in + c;
        for (int i = 0; i < frames; ++i, from += channels)
            m_input[static_cast<size_t>(i)] = *from;
        written = DSPB_Resample(m_resamplers[c], m_input.data(), m_output.data(), frames);
        float *to = out + c;
        for (int i = 0; i < written; ++i, to += channels)
            *to = m_output[static_cast<size_t>(i)];
    }
    return written;
}

void ResamplerBank::restart()
{
    for (DSPB_Resampler *resampler : m_resamplers)
        DSPB_ResampleRestart(resampler);
}

double ResamplerBank::withheldInputFrames() const
{
    return m_resamplers.empty() ? 0.0 : DSPB_ResampleWithheld(m_resamplers.front());
}

} // namespace QTovelMixer
