// SPDX-License-Identifier: MIT
// The whole mixer as a host has it: through the public interface alone, with sources whose workers
// fill rings of five seconds, beside other mixers that play the same clips.
#include "cases/cases.h"
#include "cases/host.h"
#include "cases/pacing.h"
#include "peers/miniaudio.h"
#include "peers/openal.h"

#include <memory>

namespace Bench {

namespace {

const QString miniaudio = QStringLiteral("miniaudio's engine");
const QString warmName = QStringLiteral("32 stereo sources, 256 frames, everything warm");

constexpr unsigned shortClip = 2048;  ///< stays in the caches
constexpr unsigned longClip = 262144; ///< 2 MiB of stereo, as long as a ring

struct Line
{
    int sources;
    unsigned channels;
    Pacing pacing;
    unsigned clipFrames = longClip;
};

QString sectionOf(Pacing::Kind kind)
{
    switch (kind) {
    case Pacing::Device:
        return QStringLiteral("A. Whole mixer, paced by a device");
    case Pacing::Cold:
        return QStringLiteral("A. Whole mixer, caches cleared");
    case Pacing::Hot:
        return QStringLiteral("A. Whole mixer, block after block");
    case Pacing::Refilled:
        break;
    }
    return QStringLiteral("A. Whole mixer, workers included");
}

QString nameOf(const Line &line)
{
    QString name = QStringLiteral("%1 %2 sources, %3 frames")
                       .arg(line.sources)
                       .arg(line.channels == 1 ? QStringLiteral("mono") : QStringLiteral("stereo"))
                       .arg(line.pacing.frames);
    if (line.pacing.kind == Pacing::Hot)
        name += line.clipFrames == longClip ? QStringLiteral(", clips of 2 MiB")
                                            : QStringLiteral(", short clips");
    return name;
}

Case caseOf(const Line &line, const QString &name)
{
    Case work(sectionOf(line.pacing.kind), name);
    return work.per(QStringLiteral("source and block"), line.sources);
}

std::shared_ptr<Host> playing(const Line &line)
{
    const auto host = std::make_shared<Host>(Host::Setup{.sources = line.sources,
                                                         .channels = line.channels,
                                                         .frames = line.pacing.frames,
                                                         .clipFrames = line.clipFrames});
    host->play();
    return host;
}

Mixing ours(const std::shared_ptr<Host> &host)
{
    return {QStringLiteral("ours"), [host] { host->api->block(); },
            [host] { host->waitUntilFull(); }};
}

Case mixing(const Line &line)
{
    const std::shared_ptr<Host> host = playing(line);
    std::vector<Mixing> mixers{ours(host)};
    const std::shared_ptr<MiniaudioMixer> peer = MiniaudioMixer::create(
        host->clips(), line.clipFrames, line.channels, line.pacing.frames, Host::gain);
    if (peer)
        mixers.push_back({miniaudio, [peer, host] { peer->block(); }, {}});
    if (line.pacing.kind == Pacing::Hot && line.channels == 2 && line.pacing.frames == 256) {
        if (const std::shared_ptr<OpenAlMixer> other =
                OpenAlMixer::create(host->clips(), line.clipFrames, line.pacing.frames))
            mixers.push_back(
                {QStringLiteral("OpenAL Soft"), [other, host] { other->block(); }, {}});
    }
    return paced(caseOf(line, nameOf(line)), line.pacing, mixers);
}

/// A block at a device's pace beside the one right behind it, for which all but the samples are in
/// the caches.
Case warmth()
{
    const Line line{32, 2, {Pacing::Device, 256}};
    const std::shared_ptr<Host> host = playing(line);
    Case work = caseOf(line, warmName);
    work.add(QStringLiteral("ours"), [host] { host->api->block(); });
    work.add(QStringLiteral("the next block, at once"), [host] { host->api->block(); });
    work.measureBy = [host](Case &measured, const Pace &pace) {
        for (int i = 0; i < pace.rounds / 3; ++i) {
            std::vector<double> next;
            const std::vector<double> first =
                deviceBlocks([&] { host->api->block(); }, 256, 30, false,
                             [&] {
                                 const int64_t begin = now();
                                 host->api->block();
                                 next.push_back(double(now() - begin));
                             });
            measured.contestants[0].rounds.push_back(median(first) / measured.unitsPerCall);
            measured.contestants[1].rounds.push_back(median(next) / measured.unitsPerCall);
            host->waitUntilFull();
        }
    };
    return work.mustBeat(QStringLiteral("the next block, at once"), 1.0 / 3.5);
}

} // namespace

void addMixerCases(Suite &suite)
{
    const auto add = [&suite](const Line &line, double factor = 0.0) {
        const auto make = [line, factor] {
            Case work = mixing(line);
            return factor > 0.0 ? work.mustBeat(miniaudio, factor) : work;
        };
        suite.add(sectionOf(line.pacing.kind), make, nameOf(line));
    };
    for (const Pacing::Kind kind : {Pacing::Device, Pacing::Cold}) {
        for (const unsigned frames : {64u, 256u, 1024u}) {
            for (const int sources : {1, 2, 8, 32, 63}) {
                double factor = 0.0;
                if (frames == 256 && sources == 32)
                    factor = kind == Pacing::Device ? 1.0 : 0.9;
                if (frames == 256 && kind == Pacing::Device && (sources == 2 || sources == 63))
                    factor = 1.0;
                add({sources, 2, {kind, frames}}, factor);
            }
            add({128, 1, {kind, frames}});
        }
        if (kind == Pacing::Device)
            suite.add(sectionOf(kind), warmth, warmName);
    }
    for (const unsigned frames : {64u, 256u, 1024u}) {
        for (const int sources : {1, 2, 8, 32, 63})
            add({sources, 2, {Pacing::Hot, frames}, shortClip},
                frames == 256 && sources == 32 ? 1.2 : 0.0);
        add({128, 1, {Pacing::Hot, frames}, shortClip});
    }
    add({32, 2, {Pacing::Hot, 256}, longClip}, 2.0);
    for (const int sources : {1, 2, 8, 32, 63})
        add({sources, 2, {Pacing::Refilled, 256}, shortClip}, sources == 32 ? 0.7 : 0.0);
    add({128, 1, {Pacing::Refilled, 256}, shortClip});
}

} // namespace Bench
