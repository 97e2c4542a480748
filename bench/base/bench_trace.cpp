// SPDX-License-Identifier: MIT
// A trace line with five items into a log that does nothing, and into the audio thread's queue.
#include <base/trace_p.h>

#include <benchmark/benchmark.h>

#include <QtCore/QtGlobal>

using namespace QTovelMixer;

namespace {
void writeLine(qint64 frame)
{
    TraceLine("Source::mixer_callback early-return")
        .item("source", &frame)
        .item("buffer", static_cast<const void *>(nullptr))
        .item("isRunning", false)
        .item("isPaused", true)
        .item("mixerFrame", frame);
}

void atOnce(benchmark::State &state)
{
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    qint64 frame = 0;
    for (auto _ : state)
        writeLine(frame += 256);
    qInstallMessageHandler(before);
}

void queued(benchmark::State &state)
{
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const AudioThreadMark mark;
    qint64 frame = 0;
    for (auto _ : state) {
        if (frame % (256 * 1024) == 0) {
            state.PauseTiming();
            flushTrace(); // measure the way in, not the refusal of a full queue
            state.ResumeTiming();
        }
        writeLine(frame += 256);
    }
    flushTrace();
    qInstallMessageHandler(before);
}
} // namespace

BENCHMARK(atOnce);
BENCHMARK(queued);
BENCHMARK_MAIN();
