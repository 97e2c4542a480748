// SPDX-License-Identifier: MIT
// What a meter costs: blocks of 42 ms at 48 kHz with the loudness queries after each, as meters ask
// them. "audio_seconds" is how many seconds of audio one core measures in a second.
#include <dsp/statistics.h>

#include <benchmark/benchmark.h>

#include <ebur128.h>

#include <random>
#include <vector>

namespace {

constexpr int sampleRate = 48000;
constexpr int blockFrames = 2016;
constexpr int blocksPerSecond = 24; // rounded up

std::vector<float> noise(int channels)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> sample(-0.5F, 0.5F);
    std::vector<float> samples(size_t(blockFrames * channels));
    for (float &value : samples)
        value = sample(random);
    return samples;
}

void report(benchmark::State &state, int blocksPerIteration)
{
    const double seconds =
        double(state.iterations()) * blocksPerIteration * blockFrames / sampleRate;
    state.counters["audio_seconds"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
}

void measureBlock(DSPB_Statistics *statistics, const std::vector<float> &block, int channels)
{
    DSPB_StatisticsAddFrames(statistics, block.data(), blockFrames);
    double value = 0.0;
    DSPB_StatisticsMomentaryLoudness(statistics, &value);
    benchmark::DoNotOptimize(value);
    DSPB_StatisticsShortTermLoudness(statistics, &value);
    benchmark::DoNotOptimize(value);
    for (int channel = 0; channel < channels; ++channel) {
        DSPB_StatisticsMomentarySamplePeak(statistics, channel, &value);
        benchmark::DoNotOptimize(value);
    }
}

/// Level meter: momentary and short-term loudness, sample peaks.
void levelBlock(benchmark::State &state)
{
    const int channels = int(state.range(0));
    const std::vector<float> block = noise(channels);
    DSPB_Statistics *statistics = DSPB_StatisticsCreate(sampleRate, channels, 16, 0x7C00);
    for (auto _ : state)
        measureBlock(statistics, block, channels);
    DSPB_StatisticsDestroy(&statistics);
    report(state, 1);
}

/// The same and true peaks, on two handles as a meter has them.
void levelAndTruePeakBlock(benchmark::State &state)
{
    const int channels = int(state.range(0));
    const std::vector<float> block = noise(channels);
    DSPB_Statistics *levels = DSPB_StatisticsCreate(sampleRate, channels, 16, 0x7C00);
    DSPB_Statistics *peaks = DSPB_StatisticsCreate(sampleRate, channels, 16, 0x200);
    for (auto _ : state) {
        measureBlock(levels, block, channels);
        DSPB_StatisticsAddFrames(peaks, block.data(), blockFrames);
    }
    DSPB_StatisticsDestroy(&levels);
    DSPB_StatisticsDestroy(&peaks);
    report(state, 1);
}

/// One second of a meter, from the fresh handle on.
void meterSecond(benchmark::State &state)
{
    const int channels = int(state.range(0));
    const std::vector<float> block = noise(channels);
    for (auto _ : state) {
        DSPB_Statistics *levels = DSPB_StatisticsCreate(sampleRate, channels, 16, 0x7C00);
        DSPB_Statistics *peaks = DSPB_StatisticsCreate(sampleRate, channels, 16, 0x200);
        for (int i = 0; i < blocksPerSecond; ++i) {
            measureBlock(levels, block, channels);
            DSPB_StatisticsAddFrames(peaks, block.data(), blockFrames);
        }
        DSPB_StatisticsDestroy(&levels);
        DSPB_StatisticsDestroy(&peaks);
    }
    report(state, blocksPerSecond);
}

void libebur128Block(benchmark::State &state, int modes)
{
    const auto channels = unsigned(state.range(0));
    const std::vector<float> block = noise(int(channels));
    ebur128_state *reference =
        ebur128_init(channels, sampleRate, EBUR128_MODE_M | EBUR128_MODE_S | modes);
    for (auto _ : state) {
        ebur128_add_frames_float(reference, block.data(), blockFrames);
        double value = 0.0;
        ebur128_loudness_momentary(reference, &value);
        benchmark::DoNotOptimize(value);
        ebur128_loudness_shortterm(reference, &value);
        benchmark::DoNotOptimize(value);
    }
    ebur128_destroy(&reference);
    report(state, 1);
}

void channelCounts(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("channels")->Arg(2)->Arg(8)->Arg(32)->Arg(128)->Unit(benchmark::kMicrosecond);
}

/// The library takes 64 channels at most.
void fewerChannels(benchmark::internal::Benchmark *bench)
{
    bench->ArgName("channels")->Arg(2)->Arg(8)->Arg(32)->Unit(benchmark::kMicrosecond);
}

} // namespace

BENCHMARK(levelBlock)->Apply(channelCounts);
BENCHMARK(levelAndTruePeakBlock)->Apply(channelCounts);
BENCHMARK(meterSecond)->Apply(channelCounts);
BENCHMARK_CAPTURE(libebur128Block, levels, EBUR128_MODE_SAMPLE_PEAK)->Apply(fewerChannels);
BENCHMARK_CAPTURE(libebur128Block, levelsAndTruePeak, EBUR128_MODE_TRUE_PEAK)->Apply(fewerChannels);

BENCHMARK_MAIN();
