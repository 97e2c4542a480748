// SPDX-License-Identifier: MIT
// One channel, chunks of 4096 frames, beside other converters. "per_input_frame" is the figure to
// compare.
#include <dsp/resample.h>
#include <dsp/resample_filter_p.h>

#include <benchmark/benchmark.h>

#include <samplerate.h>
#include <soxr.h>

#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int chunkFrames = 4096;

std::vector<float> noise()
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> sample(-0.5F, 0.5F);
    std::vector<float> samples(chunkFrames);
    for (float &value : samples)
        value = sample(random);
    return samples;
}

std::vector<float> outputRoom(double ratio)
{
    return std::vector<float>(size_t(ratio * chunkFrames * 1.5) + 1);
}

void report(benchmark::State &state)
{
    const double frames = double(state.iterations()) * chunkFrames;
    state.counters["per_input_frame"] =
        benchmark::Counter(frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void own(benchmark::State &state)
{
    const int inRate = int(state.range(0));
    const int outRate = int(state.range(1));
    const std::vector<float> in = noise();
    std::vector<float> out = outputRoom(double(outRate) / inRate);
    const std::unique_ptr<DSPB_Resampler, decltype(&DSPB_ResampleDestroy)> resampler(
        DSPB_ResampleInit(inRate, outRate, "none"), DSPB_ResampleDestroy);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames));
    report(state);
}

void soxrHq(benchmark::State &state)
{
    const double inRate = double(state.range(0));
    const double outRate = double(state.range(1));
    const std::vector<float> in = noise();
    // It writes in lumps: up to 1.5 times the ratio in one call.
    std::vector<float> out = outputRoom(outRate / inRate);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const std::unique_ptr<soxr, decltype(&soxr_delete)> converter(
        soxr_create(inRate, outRate, 1, nullptr, nullptr, &quality, nullptr), soxr_delete);
    for (auto _ : state) {
        size_t taken = 0;
        size_t written = 0;
        soxr_process(converter.get(), in.data(), in.size(), &taken, out.data(), out.size(),
                     &written);
        benchmark::DoNotOptimize(written);
    }
    report(state);
}

void libsamplerate(benchmark::State &state, int quality)
{
    const double ratio = double(state.range(1)) / double(state.range(0));
    const std::vector<float> in = noise();
    std::vector<float> out = outputRoom(ratio);
    int error = 0;
    const std::unique_ptr<SRC_STATE, decltype(&src_delete)> converter(src_new(quality, 1, &error),
                                                                      src_delete);
    SRC_DATA data{};
    data.data_in = in.data();
    data.data_out = out.data();
    data.input_frames = chunkFrames;
    data.output_frames = long(out.size());
    data.src_ratio = ratio;
    for (auto _ : state)
        benchmark::DoNotOptimize(src_process(converter.get(), &data));
    report(state);
}

/// A new pair of rates; later converters of the pair find the filter ready.
void buildFilter(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(
            QTovelMixer::ResampleFilter::build(int(state.range(0)), int(state.range(1))));
}

void createAgain(benchmark::State &state)
{
    for (auto _ : state)
        DSPB_ResampleDestroy(DSPB_ResampleInit(int(state.range(0)), int(state.range(1)), "none"));
}

void ratePairs(benchmark::internal::Benchmark *bench)
{
    bench->ArgNames({"in", "out"});
    for (const auto &pair :
         {std::pair(44100, 48000), std::pair(48000, 44100), std::pair(96000, 48000),
          std::pair(8000, 192000), std::pair(44101, 48000)})
        bench->Args({pair.first, pair.second});
}

} // namespace

BENCHMARK(own)->Apply(ratePairs);
BENCHMARK(soxrHq)->Apply(ratePairs);
BENCHMARK_CAPTURE(libsamplerate, fastest, SRC_SINC_FASTEST)->Apply(ratePairs);
BENCHMARK_CAPTURE(libsamplerate, best, SRC_SINC_BEST_QUALITY)->Args({44100, 48000});
BENCHMARK(buildFilter)->Apply(ratePairs);
BENCHMARK(createAgain)->Args({44100, 48000});

BENCHMARK_MAIN();
