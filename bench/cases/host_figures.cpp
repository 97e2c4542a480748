// SPDX-License-Identifier: MIT
// What a host waits for, or makes the audio thread wait for, through the public interface.
#include "cases/cases.h"
#include "cases/host.h"
#include "cases/pacing.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <algorithm>
#include <atomic>
#include <thread>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("I. A host");

double milliseconds(double nanoseconds)
{
    return nanoseconds / 1e6;
}

/// Calls `operation` and returns the nanoseconds that it took.
template <class Operation>
double timeOf(Operation operation)
{
    const int64_t begin = now();
    operation();
    return double(now() - begin);
}

/// The same, without the time that others had the processor.
template <class Operation>
double workOf(Operation operation)
{
    const double begin = threadTime();
    operation();
    return threadTime() - begin;
}

// Beginning --------------------------------------------------------------------------------------

std::vector<Figure> beginning()
{
    constexpr int times = 5;
    std::vector<double> waited;
    std::vector<double> worked;
    std::vector<double> filled;
    for (int i = 0; i < times; ++i) {
        Host host({.sources = 60});
        const double used = processTime();
        const int64_t begin = now();
        waited.push_back(timeOf([&] { host.engine.start(0.0); }));
        worked.push_back(processTime() - used);
        host.waitUntilFull();
        filled.push_back(double(now() - begin));
    }
    const QString name = QStringLiteral("start of 60 sources, reads that return at once: ");
    const QString unit = QStringLiteral("ms");
    return {{section, name + QStringLiteral("until start() returns"), milliseconds(median(waited)),
             unit, 10.0},
            {section, name + QStringLiteral("processor time until then"),
             milliseconds(median(worked)), unit, 30.0},
            {section, name + QStringLiteral("until all rings are full"),
             milliseconds(median(filled)), unit}};
}

// Seeking ----------------------------------------------------------------------------------------

Figure seeking(int rate, double most)
{
    constexpr int times = 9;
    Host host({.sources = 32, .rate = rate});
    host.play();
    std::vector<double> silent;
    for (int i = 0; i < times; ++i) {
        silent.push_back(timeOf([&] {
            host.engine.setTime(10.0 + i);
            for (const Source *source : host.sources) {
                while (source->bufferedFrames() < 256)
                    std::this_thread::yield();
            }
        }));
        host.waitUntilFull();
    }
    return {section,
            QStringLiteral("seek with 32 sources of %1 Hz: until all sound again").arg(rate),
            milliseconds(median(silent)), QStringLiteral("ms"), most};
}

/// Calculates for every read.
class WorkingSource : public ClipSource
{
public:
    using ClipSource::ClipSource;

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        const double until = threadTime() + 0.85e6;
        while (threadTime() < until) {
        }
        return ClipSource::readSamples(buffer, frames, channels, time);
    }
};

Figure seekingWhileFilling()
{
    constexpr int sources = 32;
    constexpr int times = 20;
    const std::vector<float> clip = noise(4096 * 2, 1);
    Host host({});
    for (int i = 0; i < sources; ++i)
        host.engine.addSource(new WorkingSource(&host.engine, clip.data(), 4096, 2, mixerRate),
                              Host::gain);
    host.engine.start(0.0);
    double worst = 0.0;
    for (int i = 0; i < times; ++i) {
        QThread::msleep(20);
        worst = std::max(worst, timeOf([&] { host.engine.setTime(10.0 + i); }));
    }
    return {section,
            QStringLiteral("worst setTime of 20 while rings fill, 32 sources, 0.85 ms of work for "
                           "each read"),
            milliseconds(worst), QStringLiteral("ms"), 10.0};
}

// Gains ------------------------------------------------------------------------------------------

Host::Setup square(unsigned size)
{
    return {.sources = 1, .channels = size, .outputs = size};
}

Figure settingGain(unsigned size)
{
    constexpr int times = 2000;
    Host host(square(size));
    host.fillMatrix();
    Source *const source = host.sources.front();
    std::vector<double> turns;
    for (int turn = 0; turn < 5; ++turn) {
        turns.push_back(workOf([&] {
            for (int i = 0; i < times; ++i)
                host.engine.setGain(source, int(size) / 2, 1, 0.25f + 0.01f * float(i % 7));
        }));
    }
    return {section, QStringLiteral("setGain of one cell, dense, %1 × %1").arg(size),
            median(turns) / times, QStringLiteral("ns"), 200.0};
}

/// Blocks on a device's thread, as fast as they go, until `end`.
std::vector<double> blocksUntil(const Host &host, const std::atomic<bool> &end)
{
    std::vector<double> taken;
    while (!end)
        taken.push_back(timeOf([&] { host.api->waitingBlock(); }));
    std::sort(taken.begin(), taken.end());
    return taken;
}

/// Block times of a thread beside `work`, which lasts until the time given to it.
template <class Work>
std::vector<double> blocksBeside(const Host &host, Work work)
{
    std::atomic<bool> end{false};
    std::vector<double> taken;
    std::thread device([&] { taken = blocksUntil(host, end); });
    work(now() + int64_t(1000000000));
    end = true;
    device.join();
    return taken;
}

std::vector<Figure> mixingBesideGains()
{
    Host host(square(64));
    host.fillMatrix();
    const std::vector<double> quiet = blocksBeside(host, [](int64_t until) {
        while (now() < until) {
        }
    });
    const std::vector<double> disturbed = blocksBeside(host, [&](int64_t until) {
        for (int i = 0; now() < until; ++i)
            host.engine.setGain(host.sources.front(), i % 64, i / 64 % 64,
                                0.25f + 0.01f * float(i % 7));
    });
    const auto ratio = [&](double part) {
        const auto at = [part](const std::vector<double> &of) {
            return of[size_t(double(of.size() - 1) * part)];
        };
        return at(disturbed) / at(quiet);
    };
    const QString name =
        QStringLiteral("block while another thread sets gains without pause, 64 × 64: ");
    const QString unit = QStringLiteral("× a quiet one");
    return {{section, name + QStringLiteral("median"), ratio(0.5), unit},
            {section, name + QStringLiteral("999th of 1000"), ratio(0.999), unit, 1.2},
            {section, name + QStringLiteral("worst"), ratio(1.0), unit}};
}

// Selections -------------------------------------------------------------------------------------

constexpr int selections = 10000;
constexpr double selected = 1000.0; ///< seconds that the selections and the gaps fill

/// Every second half of equal parts.
double select(Host &host, int count)
{
    const double part = selected / count;
    host.engine.setLimits(0.0, selected);
    return workOf([&] {
        for (int i = 0; i < count; ++i)
            host.engine.addSelection(part * i, part * (i + 0.5));
    });
}

double blockWithSelections(int count)
{
    constexpr double left =
        40.0; // seconds, enough for rings that fill and blocks that are measured
    Host host({.sources = 32});
    select(host, count);
    host.play((count > 1 ? selected : selected / 2.0) - left);
    std::vector<double> turns;
    for (int turn = 0; turn < 9; ++turn) {
        constexpr int blocks = 20;
        turns.push_back(workOf([&] {
                            for (int i = 0; i < blocks; ++i)
                                host.api->block();
                        }) /
                        blocks);
    }
    return median(turns) / 1e3;
}

std::vector<Figure> selecting()
{
    const QString unit = QStringLiteral("µs");
    std::vector<Figure> figures;
    for (const int count : {1, 100, selections}) {
        figures.push_back(
            {section, QStringLiteral("block near the end of %1 selections, 32 sources").arg(count),
             blockWithSelections(count), unit, count == selections ? 10.0 : 0.0});
    }
    for (const int count : {1000, selections}) {
        Host host({.sources = 32});
        figures.push_back({section, QStringLiteral("adding %1 selections").arg(count),
                           milliseconds(select(host, count)), QStringLiteral("ms"),
                           count == selections ? 20.0 : 0.0});
    }
    return figures;
}

// At rest ----------------------------------------------------------------------------------------

/// Times that threads of this process, without this one, gave up their processor of their own
/// accord.
double wakeUps()
{
    double count = 0.0;
    const QString self = QString::number(QCoreApplication::applicationPid());
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &thread : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(tasks.filePath(thread + QStringLiteral("/status")));
        if (thread == self || !file.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.startsWith("voluntary_ctxt_switches:"))
                count += line.mid(line.indexOf(':') + 1).trimmed().toDouble();
        }
    }
    return count;
}

std::vector<Figure> resting()
{
    constexpr double seconds = 3.0;
    const Host host({});
    QThread::msleep(100);
    const double woken = wakeUps();
    const double used = processTime();
    QThread::msleep(static_cast<unsigned long>(seconds * 1e3));
    const double worked = processTime() - used;
    const QString name = QStringLiteral("idle engine, nothing playing: ");
    return {{section, name + QStringLiteral("wake-ups"), (wakeUps() - woken) / seconds,
             QStringLiteral("per second"), 2.0},
            {section, name + QStringLiteral("processor"), milliseconds(worked) / seconds,
             QStringLiteral("ms per second"), 0.1}};
}

std::vector<Figure> remembering()
{
    constexpr int sources = 32;
    const double before = memoryInUse();
    Host host({.sources = sources});
    host.play();
    return {{section, QStringLiteral("memory of a playing stereo source"),
             (memoryInUse() - before) / sources, QStringLiteral("MiB")}};
}

} // namespace

void addHostFigures(Suite &suite)
{
    suite.addFigures(section, beginning);
    suite.addFigures(section, [] {
        return std::vector<Figure>{seeking(48000, 2.0), seeking(44100, 4.0), seekingWhileFilling()};
    });
    suite.addFigures(section, [] {
        return std::vector<Figure>{settingGain(8), settingGain(64), settingGain(128)};
    });
    suite.addFigures(section, mixingBesideGains);
    suite.addFigures(section, selecting);
    suite.addFigures(section, resting);
    suite.addFigures(section, remembering);
}

} // namespace Bench
