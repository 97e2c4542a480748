// SPDX-License-Identifier: MIT
// How long the main thread's operations keep the audio thread out while 59 sources play.
#include "cases/cases.h"
#include "cases/live_mixer.h"

#include <mixer/engine_p.h>

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <functional>
#include <thread>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("H. Update lock");

constexpr int sources = 59;
constexpr int repetitions = 15;
constexpr double oneBlock = 1.3e6; // ns: 64 frames at 48 kHz

/// Waits for every read as for a disk. Workers that only calculate would keep whoever holds the
/// lock waiting for a processor, which says nothing of the operation.
class DiskSource : public NoiseSource
{
public:
    using NoiseSource::NoiseSource;

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        QThread::msleep(3);
        return NoiseSource::readSamples(buffer, frames, channels, time);
    }
};

/// Tries the lock all the time, as no device does, and so sees for how long nobody got it.
class Probe
{
public:
    using Lock = decltype(Engine::Data::updateLock);

    explicit Probe(Lock &lock) : m_lock(lock), m_thread([this] { run(); }) {}
    ~Probe()
    {
        m_ending = true;
        m_thread.join();
    }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    /// Nanoseconds of the longest while without the lock since the last call.
    int64_t takeLongest()
    {
        // What is under way now has to end first.
        const int64_t called = now();
        while (m_last < called)
            std::this_thread::yield();
        return m_longest.exchange(0);
    }

private:
    void run()
    {
        while (!m_ending) {
            const bool free = m_lock.tryLock();
            if (free)
                m_lock.unlock();
            const int64_t time = now();
            if (free) {
                m_longest = std::max(m_longest.load(), time - m_last.load());
                m_last = time;
            }
            // Leaves the lock to whoever waits for it.
            for (int i = 0; i < 50; ++i)
                asm volatile("");
        }
    }

    Lock &m_lock;
    std::atomic<bool> m_ending{false};
    std::atomic<int64_t> m_last{now()};
    std::atomic<int64_t> m_longest{0};
    std::thread m_thread;
};

/// Until the workers rest.
void waitForWorkers(const Engine &engine)
{
    constexpr qint64 nearlyFull = qint64(48000) * 5 - 2 * 4096; // of 5 seconds, read by 4096
    for (const Source *source : engine.activeSources()) {
        for (int i = 0; i < 2000 && source->isRunning() && source->bufferedFrames() < nearlyFull;
             ++i)
            QThread::msleep(1);
    }
}

/// The median over the repetitions of the longest hold in each.
double holdOf(Probe &probe, const Engine &engine, const std::function<void()> &operation,
              const std::function<void()> &undo)
{
    std::vector<double> longest;
    for (int i = 0; i < repetitions; ++i) {
        waitForWorkers(engine);
        probe.takeLongest();
        operation();
        longest.push_back(double(probe.takeLongest()));
        undo();
        QCoreApplication::processEvents();
    }
    return median(longest);
}

std::vector<Figure> holds()
{
    if (std::thread::hardware_concurrency() < 2)
        return {};
    Engine::Initialize();
    LiveMixer mixer(QTovelMixerApiVirtual::Pacing::RealTime, 64, 0);
    Engine &engine = mixer.engine;
    for (int i = 0; i < sources; ++i)
        engine.addSource(new DiskSource(&engine), 0.02f);
    engine.setPauseMode(PauseSoft);
    engine.start(0.0);
    mixer.waitFor(4800);

    std::vector<Figure> figures;
    Probe probe(EngineAccess::shipped(engine).updateLock);
    const auto add = [&](
                         const char *name, const std::function<void()> &operation,
                         const std::function<void()> &undo = [] {}) {
        figures.push_back({section, QString::fromUtf8(name), holdOf(probe, engine, operation, undo),
                           QStringLiteral("ns"), oneBlock});
    };
    add("nothing (the device's own blocks)", [] { QThread::msleep(20); });
    NoiseSource *extra = nullptr;
    add(
        "addSource, the 60th",
        [&] {
            extra = new DiskSource(&engine);
            engine.addSource(extra, 0.02f);
        },
        [&] { engine.removeSource(extra); });
    add(
        "removeSource", [&] { engine.removeSource(extra); },
        [&] {
            extra = new DiskSource(&engine);
            engine.addSource(extra, 0.02f);
        });
    engine.removeSource(extra);
    QCoreApplication::processEvents();
    Source *const some = engine.activeSources().first();
    add("setGain of a source's channel", [&] { engine.setGain(some, 0, 1, 0.25f); });
    add("setMasterOutputGain", [&] { engine.setMasterOutputGain(0.5f); });
    add("setOutputEffectBypass", [&] { engine.setOutputEffectBypass(true); });
    add(
        "pause", [&] { engine.pause(); }, [&] { engine.resume(); });
    add(
        "resume", [&] { engine.resume(); }, [&] { engine.pause(); });
    engine.resume();
    add("setTime", [&] { engine.setTime(10.0); });
    add(
        "setLooping", [&] { engine.setLooping(true); }, [&] { engine.setLooping(false); });
    // Long enough that no source comes to its end meanwhile.
    const auto select = [&] { engine.addSelection(1.0, 1000.0); };
    const auto unselect = [&] { engine.clearSelections(); };
    add("addSelection", select, unselect);
    select();
    add("clearSelections", unselect, select);
    return figures;
}

} // namespace

void addLockFigures(Suite &suite)
{
    suite.addFigures(section, holds);
}

} // namespace Bench
