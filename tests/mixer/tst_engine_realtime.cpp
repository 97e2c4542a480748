// SPDX-License-Identifier: MIT
// What the block callback must never do, watched over everything that it reaches.
#include <base/trace_p.h>
#include <support/callback_watch.h>
#include <support/rtguard.h>
#include <support/session.h>

#include <mixer/io/effect.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>
#include <mixer/meter/meter.h>

#include <QtTest/QTest>

#include <utility>

using namespace QTovelMixer;

namespace {

class Halver : public Effect
{
public:
    Halver() : Effect(48000, 2) {}
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        for (int i = 0; i < channels * frames; ++i)
            output[i] = input[i] * 0.5f;
        return 1;
    }
};

/// Runs a block as the device's thread would, under the guard.
void runWatched(Session &session, int blocks)
{
    for (int i = 0; i < blocks; ++i) {
        const AudioThreadMark mark;
        const RealtimeGuard guard;
        session.api->runBlock(0x4);
    }
}

/// Whether the next block has nothing to plan.
bool isPlanned(const Engine::Data &data)
{
    const int rows = int(data.inputBuses.size());
    const int columns = int(data.outputBuses.size());
    return data.plan->watchesCells() ? data.plan->matches(data.matrix, rows, columns)
                                     : data.plan->isFor(data.matrix, rows, columns);
}

} // namespace

class tst_EngineRealtime : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { RealtimeGuard::resetTotal(); }
    void cleanup();

    void block_isClean_withEverythingAttached();
    void block_isClean_whileHeld();
    void block_isClean_withTraceLines();
    void block_isClean_whenTheMixChanges_data();
    void block_isClean_whenTheMixChanges();
    void plan_isReady_afterEveryChange();
    void plan_isReady_afterOpening_withoutInputs();
    void thread_mixes_whileTheMainThreadChangesEverything();
    void block_isClean_whenRingsRunOver_andDry();
    void block_takesNoPageFault_afterItsWarmUp();
};

void tst_EngineRealtime::cleanup()
{
    QVERIFY2(RealtimeGuard::total() == 0, qPrintable(RealtimeGuard::first()));
}

void tst_EngineRealtime::block_isClean_withEverythingAttached()
{
    Session session(2, 2);
    Halver inputEffect;
    Halver outputEffect;
    session.engine.replaceInputEffect(&inputEffect);
    session.engine.replaceOutputEffect(&outputEffect);
    session.engine.inputMeter()->start();
    session.engine.outputMeter()->start();
    session.addRamp(48000, 20.0);
    session.addRamp(44100, 20.0, 0.5f);
    auto *sink = new TakeSink(&session.engine, 44100, 2);
    session.engine.addSink(sink);
    QVERIFY(session.startRecording());
    session.engine.setMasterOutputGain(0.25f);
    session.run(1);
    runWatched(session, 200);
    session.engine.setTime(3.0);
    runWatched(session, 200);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.engine.replaceInputEffect(nullptr);
    session.engine.replaceOutputEffect(nullptr);
}

void tst_EngineRealtime::block_isClean_whileHeld()
{
    Session session(2, 2);
    session.engine.setPauseMode(PauseSoft);
    session.addRamp(48000, 20.0);
    session.engine.start();
    session.engine.pause();
    runWatched(session, 50);
    session.engine.resume();
    runWatched(session, 50);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineRealtime::block_isClean_withTraceLines()
{
    Session session(2, 2);
    // Neither is started: each block writes a line for each.
    RampSource *source = session.addRamp(48000, 20.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    runWatched(session, 100);
    session.engine.start();
    // Gaps are traced too.
    EngineAccess::shipped(session.engine).mixTime += 5000;
    runWatched(session, 10);
    QVERIFY(source->isRunning());
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineRealtime::block_isClean_whenTheMixChanges_data()
{
    QTest::addColumn<bool>("isWatched");
    QTest::newRow("as shipped") << false;
    QTest::newRow("cells watched") << true;
}

void tst_EngineRealtime::block_isClean_whenTheMixChanges()
{
    QFETCH(const bool, isWatched);
    Session session(2, 2);
    for (int i = 0; i < 20; ++i)
        session.addRamp(48000, 20.0);
    session.engine.start();
    Engine::Data &data =
        isWatched ? EngineAccess::data(session.engine) : EngineAccess::shipped(session.engine);
    for (unsigned i = 0; i < 100; ++i) {
        // Behind the plan's back, so that the callback has to make it anew.
        if (isWatched)
            data.gainMatrix[i % 40][i % 2] = float(i);
        else
            data.matrix.setCell(i % 40, i % 2, float(i));
        QVERIFY(!isPlanned(data));
        runWatched(session, 1);
        QVERIFY(isPlanned(data));
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

// Planning 128 × 128 cells takes longer than a short block may.
void tst_EngineRealtime::plan_isReady_afterEveryChange()
{
    Session session(2, 2);
    Engine &engine = session.engine;
    const Engine::Data &data = EngineAccess::shipped(engine);
    quint64 seen = data.matrix.changes;
    const auto isChangedAndPlanned = [&] {
        const bool isChanged = data.matrix.changes != std::exchange(seen, data.matrix.changes);
        return isChanged && isPlanned(data);
    };
    RampSource *source = session.addRamp(48000, 20.0);
    QVERIFY(isChangedAndPlanned());
    auto *sink = new TakeSink(&engine, 48000, 2);
    QVERIFY(engine.addSink(sink));
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.setGain(source, 0, 1, 0.5f));
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.setGain(0, sink, 1, 0.5f));
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.setGain(source, 0, sink, 1, 0.5f));
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.setChannelsMask(source, 1));
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.addRoute(source, sink, 0.5f));
    QVERIFY(isChangedAndPlanned());
    engine.setMonitoring(true);
    QVERIFY(isChangedAndPlanned());
    engine.setMonitoring(false);
    QVERIFY(isChangedAndPlanned());
    QVERIFY(engine.open(engine.currentDevice(DeviceKind::Output),
                        engine.currentDevice(DeviceKind::Input), 48000, false));
    QVERIFY(isChangedAndPlanned());
    engine.removeSource(source);
    QVERIFY(isChangedAndPlanned());
    engine.removeSink(sink);
    QVERIFY(isChangedAndPlanned());
    QVERIFY(!data.plan->watchesCells());
}

// No gain of the sink is written then, so that nothing else plans its column.
void tst_EngineRealtime::plan_isReady_afterOpening_withoutInputs()
{
    Session session(0, 2);
    Engine &engine = session.engine;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(engine.addSink(new TakeSink(&engine, 48000, 2)));
    QVERIFY(engine.open(engine.currentDevice(DeviceKind::Output), nullptr, 48000, false));
    QVERIFY(isPlanned(EngineAccess::shipped(engine)));
    session.stopAll();
}

void tst_EngineRealtime::thread_mixes_whileTheMainThreadChangesEverything()
{
    Session session(2, 2);
    // The thread runs far faster than real time: material that does not end meanwhile.
    constexpr double endless = 1.0e7;
    session.addRamp(48000, endless);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    QVERIFY(session.engine.start());
    session.api->startThread();
    for (int i = 0; i < 40; ++i) {
        auto *source = new RampSource(&session.engine, i % 2 ? 44100 : 48000, 2, endless);
        QVERIFY(session.engine.play(source));
        session.engine.setGain(source, 0, 1, 0.5f);
        session.engine.setChannelsMask(source, unsigned(i));
        session.engine.addRoute(source, sink, 0.5f);
        session.engine.setTime(double(i % 20));
        session.engine.setLooping(i % 2 != 0);
        session.engine.setMasterOutputGain(float(i));
        session.engine.stop(source, true, UserStopAction);
        const quint64 blocks = session.api->blocks;
        QTRY_VERIFY(session.api->blocks > blocks);
        QTRY_COMPARE(session.engine.numActiveSources(), 1);
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QVERIFY(!session.api->isRunning());
    session.checkAtRest();
    QCOMPARE(CallbackWatch::counts().callbacks > 0, CallbackWatch::isOn());
}

// More blocks than any ring holds, while nobody takes or delivers a frame.
void tst_EngineRealtime::block_isClean_whenRingsRunOver_andDry()
{
    Session session(2, 2);
    session.addRamp(48000, 1.0);
    auto *sink = new TakeSink(&session.engine, 44100, 2);
    session.engine.addSink(sink);
    QVERIFY(session.startRecording());
    {
        // The sink's worker waits for the end of this, with everything that has arrived since.
        const QMutexLocker locker(&SinkAccess::data(*sink).ringMutex);
        const int blocks = 8 * 48000 / Session::blockFrames;
        runWatched(session, blocks);
        QVERIFY(sink->freeFrames() == 0);
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineRealtime::block_takesNoPageFault_afterItsWarmUp()
{
    Session session(2, 2);
    Halver effect;
    session.engine.replaceOutputEffect(&effect);
    session.engine.outputMeter()->start();
    for (int i = 0; i < 16; ++i)
        session.addRamp(i % 2 ? 44100 : 48000, 60.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    QVERIFY(session.startRecording());
    runWatched(session, int(CallbackWatch::warmUp));
    const CallbackWatch::Counts before = CallbackWatch::counts();
    for (int i = 0; i < 500; ++i) {
        // What a host does meanwhile must not make fresh memory meet the audio thread.
        session.engine.setGain(session.engine.activeSources().at(i % 16), 0, 1, float(i));
        runWatched(session, 2);
    }
    const CallbackWatch::Counts after = CallbackWatch::counts();
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.engine.replaceOutputEffect(nullptr);
    QCOMPARE(after.callbacks - before.callbacks, quint64(CallbackWatch::isOn() ? 1000 : 0));
    QCOMPARE(after.pageFaults, before.pageFaults);
}

QTEST_GUILESS_MAIN(tst_EngineRealtime)
#include "tst_engine_realtime.moc"
