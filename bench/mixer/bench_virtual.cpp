// SPDX-License-Identifier: MIT
// Whole mixers on devices without hardware: how much faster than real time, how much memory, and
// how well a stream in real time keeps its time.
#include "noise_source.h"

#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>

using namespace QTovelMixer;

namespace {

constexpr unsigned rate = 48000;

/// Memory of the process in MiB, each page counted once: rings are mapped twice. 0 where the
/// system does not tell.
double memoryInUse()
{
    QFile file("/proc/self/smaps_rollup");
    if (!file.open(QIODevice::ReadOnly))
        return 0.0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith("Pss:"))
            return line.mid(4).simplified().split(' ').first().toDouble() / 1024.0;
    }
    return 0.0;
}

struct Mixer
{
    Mixer(QTovelMixerApiVirtual::Pacing pacing, unsigned blockFrames, int sources, int sourceRate)
        : api(new QTovelMixerApiVirtual(pacing, blockFrames)), engine(api)
    {
        api->plug({.name = "bench", .outputChannels = 2, .sampleRates = {rate}});
        api->setOutputHandler([this](const float *, unsigned frames, unsigned, quint64) {
            delivered.fetch_add(frames, std::memory_order_relaxed);
        });
        api->updateDeviceList();
        engine.activate();
        for (int i = 0; i < sources; ++i)
            engine.addSource(new NoiseSource(&engine, sourceRate), 0.02f);
    }
    ~Mixer() { engine.deactivate(UserStopAction); }

    void waitFor(qint64 frames) const
    {
        while (delivered.load(std::memory_order_relaxed) < frames)
            QThread::msleep(1);
    }

    std::atomic<qint64> delivered{0};
    QTovelMixerApiVirtual *api; // the engine's
    Engine engine;
};

// One iteration is ten seconds of audio.
void freeWheel(benchmark::State &state)
{
    constexpr qint64 part = 10 * rate;
    Mixer mixer(QTovelMixerApiVirtual::Pacing::FreeWheel, 1024, int(state.range(0)),
                int(state.range(1)));
    if (!mixer.engine.start(0.0))
        return state.SkipWithError("the mixer does not start");
    mixer.waitFor(part);
    qint64 target = mixer.delivered;
    const qint64 first = target;
    QElapsedTimer clock;
    clock.start();
    const std::clock_t used = std::clock();
    for (auto _ : state)
        mixer.waitFor(target += part);
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    const double processor = double(std::clock() - used) / CLOCKS_PER_SEC;
    state.counters["per_processor_second"] = double(mixer.delivered - first) / rate / processor;
    state.counters["times_real_time"] = double(mixer.delivered - first) / rate / seconds;
    state.counters["MiB"] = memoryInUse();
}

// One iteration is one second; BENCH_REAL_TIME_SECONDS says how many.
void realTime(benchmark::State &state)
{
    constexpr unsigned blockFrames = 256;
    Mixer mixer(QTovelMixerApiVirtual::Pacing::RealTime, blockFrames, 2, rate);
    QElapsedTimer clock;
    clock.start();
    if (!mixer.engine.start(0.0))
        return state.SkipWithError("the mixer does not start");
    mixer.waitFor(rate / 2);
    const qint64 first = mixer.delivered;
    clock.restart();
    for (auto _ : state)
        mixer.waitFor(mixer.delivered + rate);
    const double elapsed = double(clock.nsecsElapsed()) / 1e9;
    const QTovelMixerApiVirtual::Statistics statistics = mixer.api->statistics();
    state.counters["in_time_percent"] =
        100.0 *
        (1.0 - double(statistics.lateBlocks) / double(std::max<quint64>(statistics.blocks, 1)));
    state.counters["worst_us"] = double(statistics.worstDelay) / 1000.0;
    // Within the block that is under way when it is read.
    state.counters["drift_blocks"] =
        std::trunc((elapsed * rate - double(mixer.delivered - first)) / blockFrames);
}

BENCHMARK(freeWheel)
    ->Name("virtual/free_wheel_stereo_sources")
    ->Args({2, 48000})
    ->Args({32, 44100})
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(realTime)
    ->Name("virtual/real_time")
    ->Iterations(std::max(5, qEnvironmentVariableIntValue("BENCH_REAL_TIME_SECONDS")))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    Engine::Initialize();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
