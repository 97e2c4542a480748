// SPDX-License-Identifier: MIT
// What is called on the wrong thread, inside a block or inside a hook: refused or done, never a
// deadlock.
#include "faulty_hosts.h"

#include <base/trace_p.h>
#include <mixer/io/effect.h>
#include <support/log_capture.h>

#include <functional>
#include <thread>

using namespace QTovelMixer;

namespace {

using Call = std::function<void()>;

/// Calls from its worker, once.
class OnceSource : public FaultySource
{
public:
    OnceSource(Engine *engine, double seconds) : FaultySource(engine, seconds) {}
    ~OnceSource() override
    {
        stop(NoReason);
        wait();
    }
    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        if (inWorker && !called.exchange(true)) {
            inWorker();
            done.release();
        }
        return FaultySource::readSamples(buffer, frames, channels, time);
    }
    bool acceptPause(PauseMode mode) override
    {
        if (inAcceptPause)
            inAcceptPause();
        return FaultySource::acceptPause(mode);
    }
    void notifyState(PlaybackState state, const Config &) override
    {
        if (state == Paused && inNotifyState)
            inNotifyState();
    }
    void onStop() override { call(inStop); }
    void onPause() override { call(inPause); }
    void onResume() override { call(inResume); }
    void onAdded(Engine *) override { call(inAdded); }

    Call inWorker;
    Call inAcceptPause;
    Call inNotifyState;
    Call inStop;
    Call inPause;
    Call inResume;
    Call inAdded;
    std::atomic<bool> called{false};
    QSemaphore done;

private:
    static void call(const Call &hook)
    {
        if (hook)
            hook();
    }
};

/// Calls the engine from inside a block, once.
class CallingEffect : public Effect
{
public:
    explicit CallingEffect(Call call) : Effect(48000, 2), m_call(std::move(call)) {}
    int processBuffers(const float *, float *, int, int) override
    {
        if (!calls)
            m_call();
        ++calls;
        return 1;
    }
    std::atomic<int> calls{0};

private:
    const Call m_call;
};

struct Operation
{
    const char *name;
    std::function<void(Engine &, Source *)> call;
};

Device *outputOf(const Engine &engine)
{
    return engine.currentDevice(DeviceKind::Output);
}

/// All that may change or hold the mix, and has to be refused inside a block.
const Operation operations[] = {
    {"select", [](Engine &e, Source *) { e.select(outputOf(e), nullptr, 44100); }},
    {"open", [](Engine &e, Source *) { e.open(outputOf(e), nullptr, 44100); }},
    {"activate", [](Engine &e, Source *) { e.activate(); }},
    {"deactivate", [](Engine &e, Source *) { e.deactivate(UserStopAction); }},
    {"stop", [](Engine &e, Source *) { e.stop(true, UserStopAction); }},
    {"stop", [](Engine &e, Source *s) { e.stop(s, true, UserStopAction); }},
    {"updateDeviceList", [](Engine &e, Source *) { e.updateDeviceList(); }},
    {"doDeviceListUpdate", [](Engine &e, Source *) { e.doDeviceListUpdate(); }},
    {"start", [](Engine &e, Source *) { e.start(1.0); }},
    {"pause", [](Engine &e, Source *) { e.pause(); }},
    {"resume", [](Engine &e, Source *) { e.resume(); }},
    {"save", [](Engine &e, Source *) { e.save(); }},
    {"restore", [](Engine &e, Source *) { e.restore(); }},
    {"addSource", [](Engine &e, Source *s) { e.addSource(s); }},
    {"play", [](Engine &e, Source *s) { e.play(s); }},
    {"deleteSource", [](Engine &e, Source *s) { e.deleteSource(s); }},
    {"setGain", [](Engine &e, Source *s) { e.setGain(s, 0, 0, 0.5f); }},
    {"setChannelsMask", [](Engine &e, Source *s) { e.setChannelsMask(s, 1); }},
    {"replaceEffect", [](Engine &e, Source *) { e.replaceOutputEffect(nullptr); }},
    {"setOutputEffectBypass", [](Engine &e, Source *) { e.setOutputEffectBypass(true); }},
    {"setInputEffectBypass", [](Engine &e, Source *) { e.setInputEffectBypass(true); }},
    {"setMonitoring", [](Engine &e, Source *) { e.setMonitoring(true); }},
    {"setTime", [](Engine &e, Source *) { e.setTime(5.0); }},
    {"setLimits", [](Engine &e, Source *) { e.setLimits(0.0, 1.0); }},
    {"setLooping", [](Engine &e, Source *) { e.setLooping(true); }},
    {"reset", [](Engine &e, Source *) { e.reset(); }},
};

} // namespace

class tst_ThreadRules : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void operation_isRefused_offTheMainThread_data();
    void operation_isRefused_offTheMainThread();
    void deleteSource_ofItself_inAWorker_isRefused();
    void effect_thatCallsTheEngine_isRefused_data();
    void effect_thatCallsTheEngine_isRefused();
    void hook_mayDeleteASibling_data();
    void hook_mayDeleteASibling();
    void hook_mayDeleteASibling_whileADeviceOpens();
};

void tst_ThreadRules::operation_isRefused_offTheMainThread_data()
{
    QTest::addColumn<QByteArray>("name");
    for (const char *name : {"deleteSource", "deleteSink", "doDeviceListUpdate",
                             "setOutputEffectBypass", "setInputEffectBypass"})
        QTest::newRow(name) << QByteArray(name);
}

void tst_ThreadRules::operation_isRefused_offTheMainThread()
{
    QFETCH(QByteArray, name);
    Session session(2, 2);
    const QPointer<FaultySource> source(new FaultySource(&session.engine, 60.0));
    const QPointer<FaultySink> sink(new FaultySink(&session.engine, 2));
    {
        const LogCapture quiet;
        QVERIFY(session.engine.addSource(source));
        QVERIFY(session.engine.addSink(sink));
    }
    const int updates = int(session.api->calls.count("update"));
    LogCapture log;
    std::thread([&] {
        if (name == "deleteSource")
            session.engine.deleteSource(source);
        else if (name == "deleteSink")
            session.engine.deleteSink(sink);
        else if (name == "doDeviceListUpdate")
            session.engine.doDeviceListUpdate();
        else if (name == "setOutputEffectBypass")
            session.engine.setOutputEffectBypass(true);
        else
            session.engine.setInputEffectBypass(true);
    }).join();
    QCOMPARE(log.count("QTovelMixer::" + name + ": refused outside main thread!!"), 1);
    QVERIFY(session.engine.isValid(source));
    QVERIFY(session.engine.isValid(sink));
    QVERIFY(!session.engine.outputEffectBypass());
    QVERIFY(!session.engine.inputEffectBypass());
    QCOMPARE(int(session.api->calls.count("update")), updates);
}

void tst_ThreadRules::deleteSource_ofItself_inAWorker_isRefused()
{
    Session session;
    const QPointer<OnceSource> source(new OnceSource(&session.engine, 60.0));
    source->inWorker = [&] { session.engine.deleteSource(source); };
    LogCapture log;
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(source->done.tryAcquire(1, longest));
    QCOMPARE(log.count("QTovelMixer::deleteSource: refused outside main thread!!"), 1);
    QVERIFY(session.engine.isValid(source));
    QCOMPARE(session.run(1)[1], 1.0f);
    playsAgain(session);
}

void tst_ThreadRules::effect_thatCallsTheEngine_isRefused_data()
{
    QTest::addColumn<int>("operation");
    QTest::addColumn<bool>("ownThread");
    for (int i = 0; i < int(std::size(operations)); ++i) {
        QTest::addRow("%s %d on a device's thread", operations[i].name, i) << i << true;
        QTest::addRow("%s %d on the main thread", operations[i].name, i) << i << false;
    }
}

void tst_ThreadRules::effect_thatCallsTheEngine_isRefused()
{
    QFETCH(int, operation);
    QFETCH(bool, ownThread);
    Session session(2, 2);
    Engine &engine = session.engine;
    const QPointer<RampSource> source(session.addRamp(48000, 60.0));
    CallingEffect effect([&] { operations[operation].call(engine, source); });
    engine.replaceOutputEffect(&effect);
    QVERIFY(engine.start(0.0));
    Device *const device = outputOf(engine);
    LogCapture log;
    if (ownThread) {
        session.api->startThread();
        QVERIFY(waitUntil([&] { return effect.calls > 0; }));
        session.api->stopThread();
    } else {
        // As a backend does whose blocks come from the event loop: nobody marks the thread.
        const unsigned frames = Session::blockFrames;
        engine.mixerCallback(session.api->input, session.api->output, frames, 0.0, 0);
        QCOMPARE(effect.calls.load(), 1);
    }
    flushTrace();
    QCOMPARE(log.count(QStringLiteral("QTovelMixer::%1: refused inside a block!!")
                           .arg(operations[operation].name)),
             1);
    QCOMPARE(log.texts(QtCriticalMsg).size(), 1);
    QVERIFY(engine.isValid(source));
    QVERIFY(!source->wasStoped());
    QVERIFY(engine.isActive());
    QVERIFY(engine.isPlaying());
    QCOMPARE(outputOf(engine), device);
    QCOMPARE(engine.replaceOutputEffect(nullptr), &effect);
    playsAgain(session);
}

void tst_ThreadRules::hook_mayDeleteASibling_data()
{
    QTest::addColumn<int>("hook");
    const char *const hooks[] = {"acceptPause", "notifyState", "onStop",
                                 "onPause",     "onResume",    "onAdded"};
    for (int hook = 0; hook < int(std::size(hooks)); ++hook)
        QTest::newRow(hooks[hook]) << hook;
}

void tst_ThreadRules::hook_mayDeleteASibling()
{
    QFETCH(int, hook);
    const LogCapture quiet;
    Session session(2, 2);
    session.engine.setPauseMode(PauseSoft);
    QPointer<OnceSource> siblings[3];
    bool erasing = false; // what is deleted has hooks as well
    const auto eraseOthers = [&](int keep) {
        if (std::exchange(erasing, true))
            return;
        for (int i = 0; i < 3; ++i) {
            if (i != keep && session.engine.isValid(siblings[i]))
                session.engine.deleteSource(siblings[i]);
        }
        erasing = false;
    };
    for (int i = 0; i < 3; ++i) {
        siblings[i] = new OnceSource(&session.engine, 60.0);
        OnceSource &source = *siblings[i];
        const Call erase = [&, i] { eraseOthers(i); };
        Call *const hooks[] = {&source.inAcceptPause, &source.inNotifyState, &source.inStop,
                               &source.inPause,       &source.inResume,      &source.inAdded};
        *hooks[hook] = erase;
        QVERIFY(session.engine.addSource(&source));
    }
    session.api->startThread();
    session.engine.start(0.0);
    session.engine.pause();
    session.engine.resume();
    session.engine.stop(true, UserStopAction);
    QCOMPARE(int(std::count_if(std::begin(siblings), std::end(siblings),
                               [](const auto &source) { return !source.isNull(); })),
             1);
    session.api->stopThread();
    for (auto &source : siblings) {
        if (source)
            source->inStop = nullptr;
    }
    playsAgain(session);
}

// The new device has so many channels that nothing fits: all are stopped while it opens.
void tst_ThreadRules::hook_mayDeleteASibling_whileADeviceOpens()
{
    const LogCapture quiet;
    Session session(2, 2);
    TestDevice *wide = session.api->addTestDevice("Wide", 128, 128);
    session.api->updateDeviceList();
    QPointer<OnceSource> siblings[8];
    bool erasing = false; // what is deleted has hooks as well
    for (auto &sibling : siblings) {
        sibling = new OnceSource(&session.engine, 60.0);
        sibling->inStop = [&, self = sibling.data()] {
            if (std::exchange(erasing, true))
                return;
            for (auto &other : siblings) {
                if (other != self && session.engine.isValid(other))
                    session.engine.deleteSource(other);
            }
            erasing = false;
        };
        QVERIFY(session.engine.addSource(sibling));
    }
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.engine.select(wide, wide, 48000));
    QCOMPARE(int(std::count_if(std::begin(siblings), std::end(siblings),
                               [](const auto &source) { return !source.isNull(); })),
             1);
    QTRY_COMPARE(session.engine.numActiveSources(), 0);
    Device *const desk = session.engine.device(DeviceKind::Output, QStringLiteral("Desk"));
    QVERIFY(session.engine.select(desk, desk, 48000, false));
    session.engine.deactivate();
    session.engine.activate();
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_ThreadRules)
#include "tst_thread_rules.moc"
