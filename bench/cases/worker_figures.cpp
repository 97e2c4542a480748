// SPDX-License-Identifier: MIT
// Whole mixers with their threads: what they cost the system while they play, how fast they mix
// when nothing paces them, what memory they take and how soon they sound.
#include "cases/cases.h"
#include "cases/host.h"
#include "cases/live_mixer.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <algorithm>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("G. Threads and memory");

constexpr int playSeconds = 5;

double processorSeconds()
{
    return processTime() / 1e9;
}

QStringList threads()
{
    return QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
}

/// Times that the threads gave up their processor of their own accord.
double sleeps(const QStringList &of)
{
    double count = 0.0;
    for (const QString &thread : of) {
        QFile file(QStringLiteral("/proc/self/task/%1/status").arg(thread));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.startsWith("voluntary_ctxt_switches:"))
                count += line.mid(line.indexOf(':') + 1).trimmed().toDouble();
        }
    }
    return count;
}

void addPlaying(std::vector<Figure> &figures, int sources)
{
    const QStringList before = threads();
    const double memoryBefore = memoryInUse();
    const double start = double(now());
    LiveMixer mixer(QTovelMixerApiVirtual::Pacing::RealTime, 256, sources);
    if (!mixer.engine.start(0.0))
        return;
    mixer.waitFor(1);
    const double first = (double(now()) - start) / 1e6;
    mixer.waitFor(qint64(48000));
    QStringList workers = threads();
    for (const QString &other : before)
        workers.removeOne(other);
    const double slept = sleeps(workers);
    const double taken = processorSeconds();
    const qint64 from = mixer.delivered();
    mixer.waitFor(from + qint64(48000) * playSeconds);
    const double seconds = double(mixer.delivered() - from) / 48000.0;
    const double blocks = 48000.0 / 256;
    const QString name = QStringLiteral("%1 stereo sources, 256 frames: ").arg(sources);
    const double each = (sleeps(workers) - slept) / seconds;
    figures.push_back({section, name + QStringLiteral("processor time per second of audio"),
                       (processorSeconds() - taken) / seconds * 1e3, QStringLiteral("ms")});
    figures.push_back({section, name + QStringLiteral("sleeps of all threads per second"), each,
                       QStringLiteral("sleeps")});
    figures.push_back({section,
                       name + QStringLiteral("sleeps per source and second, "
                                             "without those of the device"),
                       (each - blocks) / sources, QStringLiteral("sleeps")});
    figures.push_back({section, name + QStringLiteral("engine made to first sound"), first,
                       QStringLiteral("ms")});
    if (sources == 32) {
        figures.push_back({section, name + QStringLiteral("memory that it adds to the process"),
                           memoryInUse() - memoryBefore, QStringLiteral("MiB"), 100.0});
    }
}

void addFreeWheel(std::vector<Figure> &figures, int sources, int rate)
{
    constexpr qint64 audio = qint64(48000) * 20;
    LiveMixer mixer(QTovelMixerApiVirtual::Pacing::FreeWheel, 1024, sources, rate);
    if (!mixer.engine.start(0.0))
        return;
    mixer.waitFor(audio / 2);
    const qint64 from = mixer.delivered();
    const double begin = double(now());
    const double used = processorSeconds();
    mixer.waitFor(from + audio);
    const double seconds = (double(now()) - begin) / 1e9;
    const double processor = processorSeconds() - used;
    const double delivered = double(mixer.delivered() - from) / 48000.0;
    const QString name =
        QStringLiteral("%1 stereo sources of %2 Hz, as fast as they go").arg(sources).arg(rate);
    figures.push_back({section, name, delivered / seconds, QStringLiteral("× real time")});
    figures.push_back({section, name + QStringLiteral(", per second of one processor"),
                       delivered / processor, QStringLiteral("s of audio")});
}

void addRealTime(std::vector<Figure> &figures)
{
    LiveMixer mixer(QTovelMixerApiVirtual::Pacing::RealTime, 256, 2);
    if (!mixer.engine.start(0.0))
        return;
    mixer.waitFor(qint64(48000) * playSeconds);
    const QTovelMixerApiVirtual::Statistics statistics = mixer.api->statistics();
    const double blocks = double(std::max<quint64>(statistics.blocks, 1));
    figures.push_back({section,
                       QStringLiteral("blocks of a device without hardware that are less "
                                      "than 1 ms late"),
                       100.0 * (1.0 - double(statistics.lateBlocks) / blocks),
                       QStringLiteral("%")});
}

std::vector<Figure> measureAll()
{
    Engine::Initialize();
    std::vector<Figure> figures;
    for (const int sources : {32, 63})
        addPlaying(figures, sources);
    addRealTime(figures);
    addFreeWheel(figures, 2, 48000);
    addFreeWheel(figures, 32, 44100);
    return figures;
}

} // namespace

void addWorkerFigures(Suite &suite)
{
    suite.addFigures(section, measureAll);
}

} // namespace Bench
