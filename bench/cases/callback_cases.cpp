// SPDX-License-Identifier: MIT
// What a block costs beside its samples.
#include "cases/cases.h"
#include "cases/desk.h"

#include <base/trace_p.h>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("F. Callback");

/// Blocks of this many frames are nearly nothing but their bookkeeping.
constexpr unsigned fewFrames = 8;

Case empty(unsigned frames, double most)
{
    const auto desk = std::make_shared<Desk>(0, 1, 0, 2, frames, false);
    return Case(section, QStringLiteral("no sources, stereo output, %1 frames").arg(frames))
        .ours([desk] { desk->mix(); })
        .mustTakeAtMost(most);
}

/// What 32 sources add to a block without samples to speak of.
Case bookkeeping()
{
    constexpr int sources = 32;
    const auto desk = std::make_shared<Desk>(sources, 2048, 0, 2, fewFrames, false);
    return Case(section, QStringLiteral("a playing source, blocks of 8 frames"))
        .per(QStringLiteral("source"), sources)
        .ours([desk] { desk->mix(); })
        .mustTakeAtMost(30.0);
}

Case denseMatrix()
{
    const auto desk = std::make_shared<Desk>(0, 1, 128, 128, blockFrames, false);
    Engine::Data &data = EngineAccess::shipped(desk->engine);
    for (unsigned row = 0; row < 128; ++row) {
        for (unsigned column = 0; column < 128; ++column)
            data.matrix.setCell(row, column, 1.0f / 128.0f);
    }
    desk->plan();
    return Case(section, QStringLiteral("128 inputs and outputs, dense, 256 frames")).ours([desk] {
        desk->mix();
    });
}

/// Silent because its worker does not run: every block says so in the log.
Case stopped()
{
    constexpr int sources = 32;
    const auto desk = std::make_shared<Desk>(sources, 2048, 0, 2, blockFrames, false);
    for (const auto &source : desk->sources)
        SourceAccess::data(*source).running = 0;
    return Case(section, QStringLiteral("a stopped source, on an audio thread"))
        .per(QStringLiteral("source"), sources)
        .ours([desk, blocks = 0]() mutable {
            {
                const AudioThreadMark mark;
                desk->engine.mixerCallback(desk->input, desk->output, blockFrames, 0.0, 0x4);
            }
            if (++blocks % 32 == 0)
                flushTrace();
        });
}

void writeLine(qint64 frame)
{
    TraceLine("Source::mixer_callback early-return")
        .item("source", &frame)
        .item("buffer", static_cast<const void *>(nullptr))
        .item("isRunning", false)
        .item("isPaused", true)
        .item("mixerFrame", frame);
}

} // namespace

void addCallbackCases(Suite &suite)
{
    suite.add(section, [] { return empty(blockFrames, 250.0); });
    suite.add(section, [] { return empty(fewFrames, 150.0); });
    suite.add(section, bookkeeping);
    suite.add(section, denseMatrix);
    suite.add(section, stopped);
    suite.add(section, [] {
        return Case(section, QStringLiteral("a trace line, written at once"))
            .ours([frame = qint64(0)]() mutable { writeLine(frame += 256); })
            .mustTakeAtMost(350.0);
    });
}

} // namespace Bench
