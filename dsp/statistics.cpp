// SPDX-License-Identifier: MIT
#include <dsp/statistics.h>

#include <dsp/k_weighting_p.h>
#include <dsp/loudness_window_p.h>
#include <dsp/statistics_kernel_p.h>
#include <dsp/true_peak_p.h>

#include <hwy/aligned_allocator.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <numeric>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr int mostChannels = 128;
constexpr int highestRate = 1536000;
constexpr double silence = -120.0;

// The samples worked on at a time stay in the first-level cache: 16 KiB, but at least 32 frames.
constexpr int chunkSamples = 4096;
constexpr int leastChunkFrames = 32;

constexpr uint32_t loudnessMeasures = DSPB_MeasureMomentaryLoudness | DSPB_MeasureShortTermLoudness;
constexpr uint32_t peakMeasures = DSPB_MeasureSamplePeak | DSPB_MeasureTruePeak;

} // namespace

struct DSPB_Statistics
{
    DSPB_Statistics(int sampleRate, int channels, uint32_t measures);

    const int channels;
    const uint32_t measures;
    const int chunkFrames;

    // Peaks of the last frames added.
    TruePeakFilter truePeakFilter;
    FlatPeaks flatSamplePeaks;
    FlatPeaks flatTruePeaks;
    std::vector<float> channelSamplePeaks;
    std::vector<float> channelTruePeaks;

    // Loudness.
    KWeighting weighting;
    KWeightingState weightingState;
    std::vector<double> channelWeights;
    LoudnessWindow window;
    int openFrames = 0; ///< of the block that is not whole yet

    /// The filter's history, a chunk, and what may be over-read behind it.
    hwy::AlignedFreeUniquePtr<float[]> scratch;

    bool measuresAny(uint32_t set) const noexcept { return (measures & set) != 0; }
    float *chunk() noexcept { return scratch.get() + truePeakFilter.history * channels; }
    double openEnergy() const noexcept;
    double loudness(int windowFrames) const noexcept;
    void beginPeaks() noexcept;
    void addChunk(int frames) noexcept;
    void addLoudness(const StatisticsRun &run) noexcept;
    void finishPeaks() noexcept;
};

DSPB_Statistics::DSPB_Statistics(int sampleRate, int channelCount, uint32_t measureSet)
    : channels(channelCount), measures(measureSet),
      chunkFrames(std::max(leastChunkFrames, chunkSamples / channelCount)),
      weighting(KWeighting::forRate(sampleRate)), weightingState(channelCount), window(sampleRate)
{
    if (measuresAny(DSPB_MeasureTruePeak))
        truePeakFilter = TruePeakFilter::forRate(sampleRate);
    const auto places = size_t(std::lcm(channels, statisticsOverread));
    flatSamplePeaks.resize(places);
    flatTruePeaks.resize(places);
    channelSamplePeaks.resize(size_t(channels));
    channelTruePeaks.resize(size_t(channels));
    for (int channel = 0; channel < channels; ++channel)
        channelWeights.push_back(loudnessWeight(channel, channels) * weighting.gain());
    const int samples = (truePeakFilter.history + chunkFrames) * channels + statisticsOverread;
    scratch = hwy::AllocateAligned<float>(size_t(samples));
    if (!scratch)
        throw std::bad_alloc();
    std::fill_n(scratch.get(), samples, 0.0F);
}

double DSPB_Statistics::openEnergy() const noexcept
{
    const double *energies = weightingState.energies();
    return std::inner_product(channelWeights.begin(), channelWeights.end(), energies, 0.0);
}

double DSPB_Statistics::loudness(int windowFrames) const noexcept
{
    return LoudnessWindow::loudness(window.meanSquare(windowFrames, openEnergy(), openFrames));
}

/// The oversampled values come late, so those of the last frames of the previous call fall into
/// this one; the samples among them are looked at here.
void DSPB_Statistics::beginPeaks() noexcept
{
    std::fill(flatSamplePeaks.begin(), flatSamplePeaks.end(), 0.0F);
    std::fill(flatTruePeaks.begin(), flatTruePeaks.end(), 0.0F);
    if (truePeakFilter.factor > 1) {
        const int delay = truePeakFilter.delay;
        samplePeaks({chunk() - delay * channels, delay, channels}, flatTruePeaks);
    }
}

void DSPB_Statistics::addLoudness(const StatisticsRun &run) noexcept
{
    for (int done = 0; done < run.frames;) {
        const int frames = std::min(run.frames - done, window.blockFrames() - openFrames);
        weigh({run.samples + done * channels, frames, channels}, weighting, weightingState);
        openFrames += frames;
        done += frames;
        if (openFrames == window.blockFrames()) {
            window.addBlock(openEnergy());
            std::fill_n(weightingState.energies(), channels, 0.0);
            openFrames = 0;
        }
    }
}

void DSPB_Statistics::addChunk(int frames) noexcept
{
    const StatisticsRun run{chunk(), frames, channels};
    if (measuresAny(peakMeasures))
        samplePeaks(run, flatSamplePeaks);
    if (truePeakFilter.factor > 1)
        truePeaks(run, truePeakFilter, flatTruePeaks);
    if (measuresAny(loudnessMeasures))
        addLoudness(run);
    const float *kept = scratch.get() + frames * channels;
    std::copy(kept, kept + truePeakFilter.history * channels, scratch.get());
}

void DSPB_Statistics::finishPeaks() noexcept
{
    std::fill(channelSamplePeaks.begin(), channelSamplePeaks.end(), 0.0F);
    std::fill(channelTruePeaks.begin(), channelTruePeaks.end(), 0.0F);
    for (size_t first = 0; first < flatSamplePeaks.size(); first += size_t(channels)) {
        for (size_t channel = 0; channel < size_t(channels); ++channel) {
            float &sample = channelSamplePeaks[channel];
            float &between = channelTruePeaks[channel];
            sample = std::max(sample, flatSamplePeaks[first + channel]);
            between = std::max({between, sample, flatTruePeaks[first + channel]});
        }
    }
}

DSPB_Statistics *DSPB_StatisticsCreate(int32_t sampleRate, int32_t channels, int32_t /*reserved*/,
                                       uint32_t measures)
{
    if (sampleRate < 1 || sampleRate > highestRate || channels < 1 || channels > mostChannels)
        return nullptr;
    return new DSPB_Statistics(sampleRate, channels, measures);
}

void DSPB_StatisticsAddFrames(DSPB_Statistics *statistics, const float *frames, int32_t frameCount)
{
    if (!statistics || !frames || frameCount < 1)
        return;
    const int channels = statistics->channels;
    statistics->beginPeaks();
    while (frameCount > 0) {
        const int chunk = std::min(frameCount, statistics->chunkFrames);
        copyBounded(frames, statistics->chunk(), size_t(chunk) * size_t(channels));
        statistics->addChunk(chunk);
        frames += ptrdiff_t(chunk) * channels;
        frameCount -= chunk;
    }
    statistics->finishPeaks();
}

void DSPB_StatisticsSetChannelWeight(DSPB_Statistics *statistics, int32_t channel, double weight)
{
    if (!statistics || channel < 0 || channel >= statistics->channels || !(weight >= 0.0) ||
        !std::isfinite(weight))
        return;
    statistics->channelWeights[size_t(channel)] = weight * statistics->weighting.gain();
}

void DSPB_StatisticsMomentaryLoudness(const DSPB_Statistics *statistics, double *lufs)
{
    if (!lufs)
        return;
    const bool measured = statistics && statistics->measuresAny(DSPB_MeasureMomentaryLoudness);
    *lufs = measured ? statistics->loudness(statistics->window.momentaryFrames()) : silence;
}

void DSPB_StatisticsShortTermLoudness(const DSPB_Statistics *statistics, double *lufs)
{
    if (!lufs)
        return;
    const bool measured = statistics && statistics->measuresAny(DSPB_MeasureShortTermLoudness);
    *lufs = measured ? statistics->loudness(statistics->window.shortTermFrames()) : silence;
}

void DSPB_StatisticsMomentarySamplePeak(const DSPB_Statistics *statistics, int32_t channel,
                                        double *peak)
{
    if (!peak)
        return;
    const bool measured = statistics && statistics->measuresAny(DSPB_MeasureSamplePeak) &&
                          channel >= 0 && channel < statistics->channels;
    *peak = measured ? double(statistics->channelSamplePeaks[size_t(channel)]) : 0.0;
}

void DSPB_StatisticsMomentaryTruePeak(const DSPB_Statistics *statistics, int32_t channel,
                                      double *peak)
{
    if (!peak)
        return;
    const bool measured = statistics && statistics->measuresAny(DSPB_MeasureTruePeak) &&
                          channel >= 0 && channel < statistics->channels;
    *peak = measured ? double(statistics->channelTruePeaks[size_t(channel)]) : 0.0;
}

void DSPB_StatisticsDestroy(DSPB_Statistics **statistics)
{
    if (!statistics)
        return;
    delete *statistics;
    *statistics = nullptr;
}
