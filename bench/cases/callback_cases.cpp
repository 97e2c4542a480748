// SPDX-License-Identifier: MIT
// What a block costs beside its samples.
#include "cases/cases.h"
#include "cases/host.h"
#include "cases/pacing.h"

#include <base/trace_p.h>

#include <memory>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("F. Callback");

/// Blocks of this many frames are nearly nothing but their bookkeeping.
constexpr unsigned fewFrames = 8;

Case empty(unsigned frames, double most)
{
    const auto host = std::make_shared<Host>(Host::Setup{.frames = frames});
    return Case(section, QStringLiteral("no sources, stereo output, %1 frames").arg(frames))
        .ours([host] { host->api->block(); })
        .mustTakeAtMost(most);
}

Case playing(const Case &work, const Host::Setup &setup)
{
    const auto host = std::make_shared<Host>(setup);
    if (setup.sources == 1)
        host->fillMatrix();
    host->play();
    return paced(work, {Pacing::Hot, setup.frames},
                 {{QStringLiteral("ours"), [host] { host->api->block(); },
                   [host] { host->waitUntilFull(); }}});
}

/// What 32 sources add to a block without samples to speak of.
Case bookkeeping()
{
    constexpr int sources = 32;
    Case work(section, QStringLiteral("a playing source, blocks of 8 frames"));
    work.per(QStringLiteral("source"), sources);
    return playing(work, {.sources = sources, .frames = fewFrames}).mustTakeAtMost(30.0);
}

Case denseMatrix()
{
    const Case work(section, QStringLiteral("a source of 128 channels into 128 outputs, dense, "
                                            "256 frames"));
    return playing(work, {.sources = 1, .channels = 128, .outputs = 128});
}

/// Silent because its worker does not run: every block says so in the log.
Case stopped()
{
    constexpr int sources = 32;
    const auto host = std::make_shared<Host>(Host::Setup{.sources = sources});
    return Case(section, QStringLiteral("a stopped source, on an audio thread"))
        .per(QStringLiteral("source"), sources)
        .ours([host, blocks = 0]() mutable {
            {
                const AudioThreadMark mark;
                host->api->block();
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
    suite.add(section, [] { return empty(256, 250.0); });
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
