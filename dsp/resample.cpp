// SPDX-License-Identifier: MIT
#include <dsp/resample.h>

#include <dsp/resample_filter_p.h>
#include <dsp/resample_kernel_p.h>
#include <dsp/resample_rates_p.h>

#include <algorithm>
#include <memory>
#include <vector>

using QTovelMixer::ResampleFilter;
using QTovelMixer::ResampleRun;

struct DSPB_Resampler
{
    std::shared_ptr<const ResampleFilter> filter;
    std::vector<float> input; ///< the frames that coming output still needs, then new ones
    int64_t filled = 0;       ///< frames in `input`
    int64_t window = 0;       ///< where in `input` the next output frame's window begins
    int64_t position = 0;     ///< of the next output frame in the filter's cycle
};

namespace {

constexpr int64_t blockFrames = 4096;
constexpr int32_t highestRate = 1536000;
constexpr int64_t highestRatio = 256;

void restart(DSPB_Resampler &resampler)
{
    const ResampleFilter &filter = *resampler.filter;
    resampler.filled = filter.lead + filter.taps() - filter.half - 1;
    resampler.window = filter.lead;
    resampler.position = 0;
    std::fill_n(resampler.input.begin(), resampler.filled, 0.0F);
}

/// Output frames whose window lies within the input.
int64_t readyFrames(const DSPB_Resampler &resampler)
{
    const ResampleFilter &filter = *resampler.filter;
    const int64_t windows = resampler.filled - filter.taps() - resampler.window + 1;
    if (windows <= 0)
        return 0;
    const int64_t phase = filter.phaseOf(resampler.position);
    return (windows * filter.phases - phase + filter.step - 1) / filter.step;
}

/// Drops the input before the next window and what its row's leading zeros look at.
void discardUsed(DSPB_Resampler &resampler)
{
    const int64_t used = std::min(resampler.window - resampler.filter->lead, resampler.filled);
    std::copy(resampler.input.begin() + used, resampler.input.begin() + resampler.filled,
              resampler.input.begin());
    resampler.filled -= used;
    resampler.window -= used;
}

int64_t processBlock(DSPB_Resampler &resampler, const float *in, float *out, int64_t frames)
{
    const ResampleFilter &filter = *resampler.filter;
    QTovelMixer::copyFinite(in, resampler.input.data() + resampler.filled, frames);
    resampler.filled += frames;
    const int64_t ready = readyFrames(resampler);
    if (ready > 0) {
        const ResampleRun run{resampler.input.data() + resampler.window, out, ready,
                              resampler.position};
        QTovelMixer::resampleRun(filter, run);
        const int64_t next = resampler.position + ready;
        resampler.window += filter.windowOf(next) - filter.windowOf(resampler.position);
        resampler.position = next % filter.cycle;
    }
    discardUsed(resampler);
    return ready;
}

} // namespace

bool QTovelMixer::isConvertible(int32_t inRate, int32_t outRate) noexcept
{
    return inRate > 0 && outRate > 0 && inRate <= highestRate && outRate <= highestRate &&
           outRate <= inRate * highestRatio && inRate <= outRate * highestRatio;
}

DSPB_Resampler *DSPB_ResampleInit(int32_t inRate, int32_t outRate, const char * /*preset*/)
{
    if (!QTovelMixer::isConvertible(inRate, outRate))
        return nullptr;
    auto resampler = std::make_unique<DSPB_Resampler>();
    resampler->filter = ResampleFilter::shared(inRate, outRate);
    // Trailing zeros of rows look behind the input: at older frames, which are finite.
    resampler->input.resize(size_t(resampler->filter->lead + resampler->filter->taps() +
                                   blockFrames + resampler->filter->depth));
    restart(*resampler);
    return resampler.release();
}

int32_t DSPB_Resample(DSPB_Resampler *resampler, const float *in, float *out, int32_t frames)
{
    if (!resampler || !in || !out)
        return 0;
    int64_t written = 0;
    for (int64_t taken = 0; taken < frames; taken += blockFrames) {
        const int64_t block = std::min(blockFrames, frames - taken);
        written += processBlock(*resampler, in + taken, out + written, block);
    }
    return int32_t(written);
}

double DSPB_ResampleWithheld(const DSPB_Resampler *resampler)
{
    if (!resampler)
        return 0.0;
    const ResampleFilter &filter = *resampler->filter;
    const int64_t nextFrame = resampler->window + filter.taps() - filter.half - 1;
    return double(resampler->filled - nextFrame) -
           double(filter.phaseOf(resampler->position)) / double(filter.phases);
}

void DSPB_ResampleRestart(DSPB_Resampler *resampler)
{
    if (resampler)
        restart(*resampler);
}

void DSPB_ResampleDestroy(DSPB_Resampler *resampler)
{
    delete resampler;
}
