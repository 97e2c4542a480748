// SPDX-License-Identifier: MIT
// How long a block of a real-time thread takes while the main thread edits the mix and ordinary
// threads keep every processor busy.
#include "cases/cases.h"
#include "cases/live_mixer.h"

#include <mixer/api/api_virtual.h>
#include <mixer/engine_p.h>

#include <algorithm>
#include <thread>

#if defined(__linux__)
#include <sched.h>
#endif

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("H. Update lock");

constexpr int edits = 10000;
constexpr int leastBlocks = 3000; // 4 s
constexpr int busyThreads = 4;
constexpr int sources = 8;
constexpr int priority = 50;
constexpr double bound = 1.0e6; // ns

#if defined(__linux__)
/// Answers false where the user may not.
bool becomeRealTime()
{
    sched_param parameters{};
    parameters.sched_priority = priority;
    return sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
}
#else
bool becomeRealTime()
{
    return false;
}
#endif

/// Threads without end and without a word.
class Bustle
{
public:
    Bustle()
    {
        for (int i = 0; i < busyThreads; ++i) {
            m_threads.emplace_back([this] {
                while (!m_ending.load(std::memory_order_relaxed)) {
                }
            });
        }
    }
    ~Bustle()
    {
        m_ending = true;
        for (std::thread &thread : m_threads)
            thread.join();
    }
    Bustle(const Bustle &) = delete;
    Bustle &operator=(const Bustle &) = delete;

private:
    std::atomic<bool> m_ending{false};
    std::vector<std::thread> m_threads;
};

enum class Edits {
    Empty,   ///< the lock is taken and given back: what is seen then is the machine's
    Gains,   ///< cells, masks and the loop
    Sources, ///< and now and then a source that comes and goes
};

void edit(Engine &engine, const QList<Source *> &playing, Edits kind)
{
    for (int i = 0; i < edits; ++i) {
        Source *const source = playing[i % playing.size()];
        if (kind == Edits::Empty) {
            EngineAccess::shipped(engine).updateLock.lock();
            EngineAccess::shipped(engine).updateLock.unlock();
        } else if (kind == Edits::Sources && i % 500 == 499) {
            auto *more = new NoiseSource(&engine);
            if (engine.addSource(more))
                engine.deleteSource(more);
        } else if (i % 50 == 49) {
            engine.setLooping(i % 100 == 99);
        } else if (i % 10 == 9) {
            engine.setChannelsMask(source, i % 4);
        } else {
            engine.setGain(source, i % 2, i % 2, float(i % 100) / 100.0f);
        }
    }
}

QString nameOf(Edits kind)
{
    switch (kind) {
    case Edits::Empty:
        return QStringLiteral("the same, with edits that do nothing under the lock");
    case Edits::Gains:
        break;
    case Edits::Sources:
        return QStringLiteral("the same, and sources that come and go");
    }
    return QStringLiteral("longest block of a SCHED_FIFO thread: 10,000 edits, 4 busy threads");
}

std::vector<Figure> longestBlock(Edits kind)
{
    Engine::Initialize();
    std::atomic<int> isRealTime{-1};
    std::atomic<int64_t> began{0};
    std::atomic<int64_t> longest{0};
    std::atomic<int> blocks{0};
    auto *api = new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime, 64);
    api->plug({.name = QStringLiteral("bench"), .inputChannels = 1, .outputChannels = 2});
    api->setGenerator([&](float *, unsigned, unsigned, quint64) {
        if (isRealTime < 0)
            isRealTime = becomeRealTime() ? 1 : 0;
        began = now();
    });
    api->setOutputHandler([&](const float *, unsigned, unsigned, quint64) {
        constexpr int warmUp = 200;
        if (++blocks > warmUp)
            longest = std::max(longest.load(), now() - began.load());
    });
    api->updateDeviceList();
    Engine engine(api);
    engine.activate();
    for (int i = 0; i < sources; ++i)
        engine.addSource(new NoiseSource(&engine), 0.1f);
    if (!engine.start(0.0))
        return {};
    while (isRealTime < 0)
        std::this_thread::yield();
    if (isRealTime == 1) {
        const Bustle bustle;
        do
            edit(engine, engine.activeSources(), kind);
        while (blocks < leastBlocks);
    }
    engine.deactivate(UserStopAction);
    if (isRealTime == 0)
        return {};
    return {{section, nameOf(kind), double(longest.load()), QStringLiteral("ns"), bound}};
}

} // namespace

void addPriorityFigures(Suite &suite)
{
    for (Edits kind : {Edits::Gains, Edits::Sources, Edits::Empty})
        suite.addFigures(section, [kind] { return longestBlock(kind); });
}

} // namespace Bench
