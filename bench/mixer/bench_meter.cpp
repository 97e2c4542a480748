// SPDX-License-Identifier: MIT
// One second of metering: 48000 frames in the blocks that a meter's timer takes, with the readings
// fetched after each. The time of an iteration is the share of a core that a running meter takes.
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_values.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr int sampleRate = 48000;
constexpr int blockFrames = 2016; // 42 ms

std::vector<float> noise(int channels)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> samples(size_t(channels) * blockFrames);
    for (float &sample : samples)
        sample = value(random);
    return samples;
}

// Arguments: channels, true peaks, channels left out.
void meterSecond(benchmark::State &state)
{
    const int channels = int(state.range(0));
    const std::vector<float> frames = noise(channels);
    Meter meter(Type::Output, sampleRate, channels, MeterConfig(), nullptr);
    meter.setTruePeakEnabled(state.range(1) != 0);
    for (int channel = 0; channel < state.range(2); ++channel)
        meter.setChannelEnabled(channel, false);
    meter.updateStatistics(frames.data(), blockFrames); // takes the memory
    MeterValues values;
    for (auto _ : state) {
        for (int left = sampleRate; left > 0; left -= blockFrames) {
            meter.updateStatistics(frames.data(), std::min(left, blockFrames));
            benchmark::DoNotOptimize(meter.getValues(values));
        }
    }
}

void getValues(benchmark::State &state)
{
    const int channels = int(state.range(0));
    const std::vector<float> frames = noise(channels);
    Meter meter(Type::Output, sampleRate, channels, MeterConfig(), nullptr);
    meter.updateStatistics(frames.data(), blockFrames);
    MeterValues values;
    for (auto _ : state)
        benchmark::DoNotOptimize(meter.getValues(values));
}

} // namespace

BENCHMARK(meterSecond)
    ->ArgNames({"channels", "truepeak", "left_out"})
    ->ArgsProduct({{2, 8, 32, 128}, {0, 1}, {0}})
    ->Args({32, 1, 1})
    ->Args({128, 1, 1});
BENCHMARK(getValues)->ArgName("channels")->Arg(2)->Arg(128);

int main(int argc, char **argv)
{
    // A meter reports its end, which would stand among the results.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
