// SPDX-License-Identifier: MIT
// Transport, the stream's users, the watchdog, monitoring, saved states, destruction.
#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/io/source_p.h>

#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

#include <limits>
#include <thread>

using namespace QTovelMixer;

class tst_EngineLifecycle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void start_refuses_whenInactive();
    void start_twice_positionsAgain();
    void start_withoutLimits_beginsAtTheGivenTime();
    void pause_countsHolds();
    void pause_asksTheBackend();
    void pause_refusedBySource_isLeftSilent();
    void resume_refuses_unlessPaused();
    void resume_playsASource_addedWhilePaused();
    void stop_withoutForce_refuses_whenNotRunning();
    void stop_clearsTheTransport();
    void stop_ofOneSource_waitsForTheOthers();
    void stop_ofNoSource_stopsNothing();
    void stop_beforeStart_removesTheSource();
    void stop_thenStart_doesNotHang();
    void stop_traceNamesEverything();
    void stop_fromAWorker_isQueued();
    void setTime_movesEverySource_once();
    void bracket_keepsTheClock_outsideTheMaterial();
    void bracket_nests();
    void streamUsers_startAndStopTogether();
    void stream_thatFailsToStart_isReported();
    void pausePosition_ofThePlaybackBefore_isForgotten_data();
    void pausePosition_ofThePlaybackBefore_isForgotten();
    void watchdog_stopsADeadDevice();
    void watchdog_tellsEachStallOnce();
    void watchdog_leavesWhatTheHostOpens();
    void watchdog_letsAPulseSinkRest();
    void watchdog_intervalFollowsTheBuffer_data();
    void watchdog_intervalFollowsTheBuffer();
    void monitoring_setsTheCells_andEndsWithStop();
    void save_isRefused_whenInactiveOrRunning();
    void restore_isRefused_withoutSave();
    void failure_isQueued_fromAnotherThread();
    void printStopReason_namesEach();
    void traces_surroundTheStream();
    void operations_areRefused_offTheMainThread();
    void hooks_mayChangeTheMix();
    void slots_mayDelete_whatStopped();
    void queries_areAnswered_inAWorker();
    void destruction_endsEverything_whilePlaying();
    void destruction_toleratesADeletedBackend();
};

namespace {

/// Stops the mixer from its own worker.
class ImpatientSource : public RampSource
{
public:
    using RampSource::RampSource;
    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        if (time > 0.5 && !asked.exchange(true))
            answer = mixerEngine()->stop(true, UserStopAction);
        return RampSource::readSamples(buffer, frames, channels, time);
    }
    std::atomic<bool> asked{false};
    std::atomic<bool> answer{false};
};

/// Changes the mix from inside its own hooks.
class MeddlingSource : public RampSource
{
public:
    using RampSource::RampSource;
    void setTime(double time) override
    {
        RampSource::setTime(time);
        mixerEngine()->setLooping(true);
    }
    void onResume() override { pausedWhileResuming = mixerEngine()->isPaused(); }
    bool pausedWhileResuming = false;
};

/// Asks the engine while it is handed samples.
class AskingSink : public TakeSink
{
public:
    using TakeSink::TakeSink;
    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        asked += mixerEngine()->isValid(this) && mixerEngine()->numActiveSinks() == 1;
        TakeSink::writeSamples(buffer, frames, channels, time);
    }
    std::atomic<int> asked{0};
};

/// Counts how it is positioned.
class PositionedSource : public RampSource
{
public:
    using RampSource::RampSource;
    void setTime(double time) override
    {
        positions.push_back(time);
        RampSource::setTime(time);
    }
    void adjustTime(double playTime, double keep) override
    {
        ++adjustments;
        RampSource::adjustTime(playTime, keep);
    }
    std::vector<double> positions;
    int adjustments = 0;
};

} // namespace

void tst_EngineLifecycle::start_refuses_whenInactive()
{
    Engine engine(new TestApi);
    QVERIFY(!engine.start());
    QVERIFY(!engine.pause());
    QVERIFY(!engine.resume());
    QCOMPARE(engine.time(), 0.0);
}

void tst_EngineLifecycle::start_twice_positionsAgain()
{
    Session session;
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(1.0));
    session.run(3);
    QVERIFY(session.engine.start(4.0));
    QCOMPARE(session.engine.time(), 4.0);
    QCOMPARE(session.engine.startTime(), 4.0);
    QCOMPARE(session.run(1)[0], 192000.0f);
    QCOMPARE(session.count("started"), 2);
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(session.engine.startTime(), 0.0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::start_withoutLimits_beginsAtTheGivenTime()
{
    Session session;
    auto *source = new RampSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.addSource(source, 1.0f, NoTimeline));
    QCOMPARE(source->timeline(), nullptr);
    QVERIFY(session.engine.start(5.0));
    QCOMPARE(session.engine.time(), 5.0);
    QCOMPARE(session.run(1)[0], 240000.0f);
    QVERIFY(session.engine.start(-3.0));
    QCOMPARE(session.engine.time(), 0.0);
    QCOMPARE(session.engine.startTime(), 5.0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::pause_countsHolds()
{
    Session session;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    // Idle: no pause can be taken back by resume, and all count as one.
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.pause());
    QCOMPARE(data.holdCount.load(), 1);
    QVERIFY(!session.engine.resume());
    QVERIFY(session.engine.start());
    QCOMPARE(data.holdCount.load(), 1);
    QVERIFY(session.engine.isPaused());
    QVERIFY(!session.engine.pause());
    QVERIFY(session.engine.resume());
    QCOMPARE(data.holdCount.load(), 0);
    QVERIFY(!session.engine.resume());
    QVERIFY(session.engine.pause());
    session.stopAll();
    QCOMPARE(data.holdCount.load(), 0);
    QCOMPARE(session.count("paused"), 3);
    QCOMPARE(session.count("resumed"), 1);
}

void tst_EngineLifecycle::pause_asksTheBackend()
{
    Session session;
    session.engine.start();
    session.api->calls.clear();
    QVERIFY(session.engine.pause());
    QVERIFY(!session.engine.pause());
    QCOMPARE(session.api->calls, QStringList({"pause"}));
    session.api->mayPause = true;
    QVERIFY(session.engine.pause());
    QVERIFY(!session.engine.resume());
    QVERIFY(!session.engine.isPaused());
    session.api->mayPause = false;
    QVERIFY(session.engine.resume());
    QVERIFY(session.api->calls.contains("resume"));
    session.stopAll();
}

void tst_EngineLifecycle::pause_refusedBySource_isLeftSilent()
{
    Session session;
    RampSource *source = session.addRamp(48000, 20.0);
    source->acceptsPause = false;
    session.engine.start();
    session.run(4);
    QVERIFY(session.engine.pause());
    QCOMPARE(session.run(1)[0], 0.0f);
    QVERIFY(session.engine.resume());
    QCOMPARE(session.run(1)[0], float(4 * Session::blockFrames));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::resume_refuses_unlessPaused()
{
    Session session;
    QVERIFY(!session.engine.resume());
    session.engine.start();
    QVERIFY(!session.engine.resume());
    QCOMPARE(session.count("resumed"), 0);
    session.stopAll();
}

void tst_EngineLifecycle::resume_playsASource_addedWhilePaused()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    session.addRamp(48000, 20.0);
    session.engine.start();
    session.run(2);
    session.engine.pause();
    auto *late = new RampSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.play(late));
    session.engine.resume();
    QCOMPARE(session.run(1)[0], 2.0f * (2 * Session::blockFrames));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::stop_withoutForce_refuses_whenNotRunning()
{
    Session session;
    QVERIFY(!session.engine.stop());
    session.engine.start();
    QVERIFY(session.engine.stop());
    QVERIFY(!session.engine.stop());
    QVERIFY(session.engine.stop(true));
    QCOMPARE(session.count("stopped"), 0);
}

void tst_EngineLifecycle::stop_clearsTheTransport()
{
    Session session;
    session.addRamp(48000, 20.0);
    session.engine.start(2.0);
    session.run(3);
    session.engine.pause();
    QVERIFY(session.engine.stop(true, DeviceListChanged));
    QVERIFY(!session.engine.isRunning());
    QCOMPARE(session.engine.time(), 0.0);
    QCOMPARE(session.engine.timeline()->start(), -1.0);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, DeviceListChanged);
    session.checkAtRest();
}

void tst_EngineLifecycle::stop_ofOneSource_waitsForTheOthers()
{
    Session session;
    RampSource *first = session.addRamp(48000, 20.0);
    RampSource *second = session.addRamp(48000, 20.0);
    session.engine.start();
    QVERIFY(!session.engine.stop(first, false, UserStopAction));
    QVERIFY(EngineAccess::shipped(session.engine).running);
    QVERIFY(session.engine.stop(second, false, UserStopAction));
    QVERIFY(!EngineAccess::shipped(session.engine).running);
    QTRY_COMPARE(session.count("stopped"), 1);
    RampSource stranger(&session.engine, 48000, 2, 1.0);
    LogCapture log;
    QVERIFY(!session.engine.stop(&stranger, true, UserStopAction));
    QVERIFY(log.contains("QTovelMixer::stop: Invalid source ("));
    session.checkAtRest();
}

void tst_EngineLifecycle::stop_ofNoSource_stopsNothing()
{
    Session session;
    QVERIFY(session.addRamp(48000, 10.0));
    QVERIFY(session.engine.start(0.0));
    session.run(10);
    auto source = std::make_unique<RampSource>(&session.engine, 48000, 2, 1.0);
    const QPointer<Source> gone(source.get());
    source.reset();
    for (const bool force : {false, true}) {
        QVERIFY(!session.engine.stop(gone, force, UserStopAction));
        QVERIFY(session.engine.isRunning());
        QVERIFY(!session.engine.activeSources().first()->wasStoped());
    }
    const std::vector<float> heard = session.run(10);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(10 * Session::blockFrames + int(i)));
    QCOMPARE(session.count("stopped"), 0);
    // All, as ever.
    QVERIFY(session.engine.stop_mixer(true, nullptr, UserStopAction));
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineLifecycle::stop_beforeStart_removesTheSource()
{
    Session session(2, 2);
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 2)));
    QVERIFY(session.engine.stop(true, UserStopAction));
    QCOMPARE(session.engine.numActiveSources(), 1);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, UserStopAction);
    session.checkAtRest();
}

void tst_EngineLifecycle::stop_thenStart_doesNotHang()
{
    Session session;
    session.addRamp(48000, 20.0);
    session.engine.stop(true, UserStopAction);
    QVERIFY(session.engine.start());
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, UserStopAction);
    session.stopAll();
    session.checkAtRest();
}

void tst_EngineLifecycle::stop_traceNamesEverything()
{
    Session session;
    LogCapture log;
    session.engine.stop(true, DeviceFailed);
    const QStringList lines = log.texts().filter("Engine::stop_mixer");
    QCOMPARE(lines.size(), 1);
    QVERIFY2(QRegularExpression(
                 "^\\[TOVEL_DEBUG_MIXER_CRASH_TRACE\\] Engine::stop_mixer force=true "
                 "source=\\S+ stopReason=6 isActive=true isRunning=false sources=0 sinks=0$")
                 .match(lines[0])
                 .hasMatch(),
             qPrintable(lines[0]));
}

void tst_EngineLifecycle::stop_fromAWorker_isQueued()
{
    Session session;
    auto *source = new ImpatientSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.addSource(source));
    session.engine.start();
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, UserStopAction);
    session.checkAtRest();
}

void tst_EngineLifecycle::setTime_movesEverySource_once()
{
    Session session;
    auto *source = new PositionedSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.addSource(source));
    session.engine.start(1.0);
    source->positions.clear();
    session.engine.setTime(7.0);
    QCOMPARE(source->positions, std::vector<double>({7.0}));
    QCOMPARE(source->adjustments, 0);
    QCOMPARE(session.engine.time(), 7.0);
    QCOMPARE(session.engine.startTime(), 7.0);
    session.engine.setTime(99.0);
    QCOMPARE(session.engine.time(), 20.0);
    session.engine.setTime(std::numeric_limits<double>::quiet_NaN());
    QCOMPARE(session.engine.time(), 0.0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineLifecycle::bracket_keepsTheClock_outsideTheMaterial()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(4);
    const double time = session.engine.time();
    session.engine.setLooping(true);
    QCOMPARE(session.engine.time(), time);
    session.run(4);
    QTRY_COMPARE(sink->frames(), qint64(8 * Session::blockFrames));
    session.engine.setLooping(false);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineLifecycle::bracket_nests()
{
    Session session;
    auto *source = new PositionedSource(&session.engine, 48000, 2, 20.0);
    session.engine.addSource(source);
    session.engine.start(2.0);
    session.run(2);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    source->positions.clear();
    data.update_lock();
    data.update_lock();
    QCOMPARE(data.holdCount.load(), 2);
    QCOMPARE(data.lockedSources.size(), 1u);
    QVERIFY(!session.engine.start());
    data.update_unlock();
    QCOMPARE(SourceAccess::data(*source).updateWaiters.load(), 1);
    data.update_unlock();
    QCOMPARE(SourceAccess::data(*source).updateWaiters.load(), 0);
    QCOMPARE(data.holdCount.load(), 0);
    QCOMPARE(source->adjustments, 1);
    QVERIFY(source->positions.empty());
    QCOMPARE(session.run(1)[0], float(96000 + 2 * Session::blockFrames));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::streamUsers_startAndStopTogether()
{
    Session session;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    LogCapture log;
    data.startMixerApi();
    QVERIFY(session.api->isRunning());
    QCOMPARE(log.count(QtInfoMsg, "Mixer Api Started!"), 1);
    data.startMixerApi();
    QCOMPARE(data.apiRefs, 2);
    data.stopMixerApi();
    QVERIFY(session.api->isRunning());
    QCOMPARE(log.count(QtInfoMsg, "Mixer Api Stopped!"), 0);
    data.stopMixerApi();
    QVERIFY(!session.api->isRunning());
    QCOMPARE(log.count(QtInfoMsg, "Mixer Api Stopped!"), 1);
    QVERIFY(!data.watchdogTimer->isActive());
    data.stopMixerApi();
    QCOMPARE(data.apiRefs, 0);
    QCOMPARE(log.count("Mixer Api Stopped!"), 1);
}

void tst_EngineLifecycle::stream_thatFailsToStart_isReported()
{
    Session session;
    session.api->failStart = true;
    LogCapture log;
    RampSource *source = session.addRamp(48000, 1.0);
    QVERIFY(source);
    QCOMPARE(log.count(QtWarningMsg, "Mixer Api failed to start!"), 1);
    QCOMPARE(EngineAccess::shipped(session.engine).apiRefs, 0);
    QVERIFY(!EngineAccess::shipped(session.engine).watchdogTimer->isActive());
    session.api->failStart = false;
    session.addRamp(48000, 1.0);
    QCOMPARE(EngineAccess::shipped(session.engine).apiRefs, 2);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::pausePosition_ofThePlaybackBefore_isForgotten_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("isDeleted");
    QTest::newRow("keep state, deleted") << int(PauseKeepState) << true;
    QTest::newRow("soft, deleted") << int(PauseSoft) << true;
    QTest::newRow("keep state, stopped") << int(PauseKeepState) << false;
    QTest::newRow("soft, stopped") << int(PauseSoft) << false;
}

// The host has stopped and begins anew before the event loop brings the pause.
void tst_EngineLifecycle::pausePosition_ofThePlaybackBefore_isForgotten()
{
    QFETCH(int, mode);
    QFETCH(bool, isDeleted);
    Session session;
    session.engine.setPauseMode(PauseMode(mode));
    RampSource *paused = session.addRamp(48000, 20.0);
    paused->pauseAt = 0.3;
    QVERIFY(session.engine.start());
    const QDeadlineTimer deadline(10000);
    while (!paused->isFinished() && !deadline.hasExpired())
        session.runWithoutWaiting(1);
    QVERIFY(paused->isFinished());
    if (isDeleted)
        session.engine.deleteSource(paused);
    session.engine.stop(true, UserStopAction);
    const QPointer<RampSource> next = session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start());
    QCoreApplication::processEvents();
    QCOMPARE(session.count("paused"), 0);
    // The stopped one leaves when its worker has told so.
    QTRY_COMPARE(session.engine.numActiveSources(), 1);
    QVERIFY(next);
    QCOMPARE(session.run(1).back(), float(Session::blockFrames - 1));
    session.stopAll();
    QTRY_VERIFY(session.count("stopped") >= 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::watchdog_stopsADeadDevice()
{
    Session session;
    session.addRamp(48000, 20.0);
    session.engine.start();
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QVERIFY(data.watchdogTimer->isActive());
    QCOMPARE(data.watchdogTimer->interval(), 1000);
    QList<double> stalls;
    connect(&session.engine, &Engine::deviceStalled, this, [&](double position) {
        QVERIFY(data.running);
        stalls.append(position);
    });
    session.run(1);
    session.engine.monitorTimeout();
    QVERIFY(data.running);
    QVERIFY(stalls.isEmpty());
    session.engine.monitorTimeout();
    QVERIFY(!data.running);
    QCOMPARE(stalls, QList<double>{Session::blockFrames / 48000.0});
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, UserStopAction);
    session.engine.monitorTimeout();
    QCOMPARE(stalls.size(), 1);
    session.checkAtRest();
}

// The watchdog does not stop a preview, and does not tell of its stall at every tick.
void tst_EngineLifecycle::watchdog_tellsEachStallOnce()
{
    Session session;
    int stalls = 0;
    connect(&session.engine, &Engine::deviceStalled, this, [&] { ++stalls; });
    session.engine.monitorTimeout();
    QCOMPARE(stalls, 0); // no stream, no stall
    QVERIFY(session.engine.play(new RampSource(&session.engine, 48000, 2, 20.0)));
    for (int expected = 1; expected <= 2; ++expected) {
        session.run(1);
        for (int tick = 0; tick < 4; ++tick)
            session.engine.monitorTimeout();
        QCOMPARE(stalls, expected);
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

// The host opens the next device itself, which is then not stopped for the stall of the last one.
void tst_EngineLifecycle::watchdog_leavesWhatTheHostOpens()
{
    Session session;
    Device *other = session.api->addTestDevice("Other", 0, 2);
    session.api->updateDeviceList();
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    connect(&session.engine, &Engine::deviceStalled, this,
            [&] { QVERIFY(session.engine.select(other, nullptr, 48000)); });
    session.run(1);
    session.engine.monitorTimeout();
    session.engine.monitorTimeout();
    QVERIFY(session.engine.isPlaying());
    session.run(1);
    QCOMPARE(session.count("stopped"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineLifecycle::watchdog_letsAPulseSinkRest()
{
    const LogCapture log;
    for (Backend backend : {Pulse, Jack}) {
        auto *api = new TestApi(256, backend);
        Engine engine(api);
        api->addTestDevice("sink", 0, 2);
        api->updateDeviceList();
        engine.activate();
        Engine::Data &data = EngineAccess::shipped(engine);
        QVERIFY(!data.mayStillRest());
        data.startMixerApi();
        QCOMPARE(data.mayStillRest(), backend == Pulse);
        QTRY_VERIFY_WITH_TIMEOUT(!data.mayStillRest(), 5000);
        QVERIFY(!data.streamClock.hasExpired(60000));
        if (backend == Pulse)
            QVERIFY(data.streamClock.elapsed() >= 2500);
    }
}

void tst_EngineLifecycle::watchdog_intervalFollowsTheBuffer_data()
{
    QTest::addColumn<unsigned>("frames");
    QTest::addColumn<unsigned>("rate");
    QTest::addColumn<int>("interval");
    QTest::newRow("usual") << 1024u << 48000u << 1000;
    QTest::newRow("long") << 16384u << 44100u << 3715;
    QTest::newRow("slow") << 1024u << 8000u << 1280;
}

void tst_EngineLifecycle::watchdog_intervalFollowsTheBuffer()
{
    QFETCH(unsigned, frames);
    QFETCH(unsigned, rate);
    QFETCH(int, interval);
    auto *api = new TestApi;
    Engine engine(api);
    TestDevice *device = api->addTestDevice("Desk", 0, 2);
    device->rates = {rate};
    device->prefered = rate;
    api->updateDeviceList();
    engine.activate();
    api->setBufferFrames(frames);
    EngineAccess::shipped(engine).startMixerApi();
    QCOMPARE(EngineAccess::shipped(engine).watchdogTimer->interval(), interval);
}

void tst_EngineLifecycle::monitoring_setsTheCells_andEndsWithStop()
{
    Session session(1, 2);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    data.set_input_mask(0, 1, 1, 1, 0);
    QCOMPARE(data.enableMatrix[0][1], 0.0f);
    session.engine.setMonitoring(true);
    QVERIFY(session.engine.isMonitoring());
    QCOMPARE(data.gainMatrix[0][0], 1.0f);
    QCOMPARE(data.gainMatrix[0][1], 1.0f);
    QCOMPARE(data.enableMatrix[0][1], 1.0f);
    session.engine.start();
    session.engine.stop(true);
    QVERIFY(!session.engine.isMonitoring());
    QCOMPARE(data.gainMatrix[0][0], 0.0f);

    session.engine.setMonitorTrigger(MonitorTrigger(2));
    session.engine.setMonitoring(true);
    session.engine.stop(true);
    QVERIFY(session.engine.isMonitoring());
    // Opening anew clears the matrix, but not what the user wants to hear.
    QVERIFY(session.engine.open(session.engine.currentDevice(DeviceKind::Output),
                                session.engine.currentDevice(DeviceKind::Input), 48000, false));
    QCOMPARE(data.gainMatrix[0][0], 1.0f);
    session.engine.deactivate();
    QVERIFY(!session.engine.isMonitoring());
    session.engine.setMonitoring(false);
    QCOMPARE(data.gainMatrix[0][0], 1.0f);
}

void tst_EngineLifecycle::save_isRefused_whenInactiveOrRunning()
{
    Session session;
    session.engine.start();
    LogCapture log;
    QVERIFY(!session.engine.save());
    QCOMPARE(log.count("QTovelMixer::save: Can't save state on a running mixer."), 1);
    QVERIFY(!session.engine.restore());
    QCOMPARE(log.count("QTovelMixer::restore: Can't restore state on a running mixer."), 1);
    session.engine.deactivate();
    QVERIFY(!session.engine.save());
    QCOMPARE(log.count("QTovelMixer::save: Can't save state on an inactive mixer."), 1);
    QVERIFY(!session.engine.restore());
    QCOMPARE(log.count("QTovelMixer::restore: Can't restore state on an inactive mixer."), 1);
}

void tst_EngineLifecycle::restore_isRefused_withoutSave()
{
    Session session;
    LogCapture log;
    QVERIFY(!session.engine.restore());
    QCOMPARE(log.count("QTovelMixer::restore: No saved state to restore!"), 1);
    const int changes = session.count("mixerChanged");
    QVERIFY(session.engine.save());
    QVERIFY(session.engine.save());
    QVERIFY(session.engine.restore());
    QVERIFY(session.engine.restore());
    QVERIFY(!session.engine.restore());
    QCOMPARE(session.count("mixerChanged"), changes + 4);
}

void tst_EngineLifecycle::failure_isQueued_fromAnotherThread()
{
    Session session;
    std::thread other([&] { session.engine.onApiDeviceFailure(); });
    other.join();
    QCOMPARE(session.count("deviceFailed"), 0);
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(session.failure, "playing=0 capturing=0 Auto");
}

void tst_EngineLifecycle::printStopReason_namesEach()
{
    Engine engine(nullptr);
    LogCapture log;
    for (int reason = 0; reason <= 8; ++reason)
        engine.printStopReason(StopReason(reason));
    QCOMPARE(log.texts(QtDebugMsg),
             QStringList({"StopReason: NoReason", "StopReason: AudioFinished",
                          "StopReason: PausePositionReached", "StopReason: UserStopAction",
                          "StopReason: UserPauseAction", "StopReason: DeviceListChanged",
                          "StopReason: DeviceFailed"}));
}

void tst_EngineLifecycle::traces_surroundTheStream()
{
    Session session;
    LogCapture log;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    data.startMixerApi();
    data.stopMixerApi();
    data.closeMixerApi();
    data.deleteMeters();
    const QString prefix = "[TOVEL_DEBUG_MIXER_CRASH_TRACE] Engine::Data::";
    for (const char *operation :
         {"startMixerApi", "stopMixerApi", "closeMixerApi", "deleteMeters"}) {
        for (const char *event : {" BEGIN", " END"})
            QCOMPARE(log.countStarting(prefix + operation + event), 1);
    }
    QVERIFY(log.contains(" apiRunning=true refs=1 sources=0 sinks=0 sampleRate=48000 thread="));
    QVERIFY(log.contains(" apiOpen=false"));
    QVERIFY(log.contains(" outputMeter="));
}

void tst_EngineLifecycle::operations_areRefused_offTheMainThread()
{
    Session session;
    auto *source = new RampSource(&session.engine, 48000, 2, 1.0);
    LogCapture log;
    std::atomic<int> accepted{0};
    std::thread other([&] {
        accepted += session.engine.start();
        accepted += session.engine.pause();
        accepted += session.engine.resume();
        accepted += session.engine.addSource(source);
        accepted += session.engine.save();
        session.engine.setTime(4.0);
        session.engine.setLimits(1.0, 2.0);
    });
    other.join();
    QCOMPARE(accepted.load(), 0);
    QCOMPARE(session.engine.time(), 0.0);
    QCOMPARE(session.engine.timeline()->start(), -1.0);
    QCOMPARE(log.texts(QtCriticalMsg).size(), 7);
    QVERIFY(log.contains("QTovelMixer::addSource: refused outside main thread!!"));
    delete source;
}

void tst_EngineLifecycle::hooks_mayChangeTheMix()
{
    Session session;
    auto *source = new MeddlingSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.addSource(source));
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.engine.start(1.0));
    QVERIFY(session.engine.isLooping());
    QCOMPARE(session.run(1)[0], 48000.0f);
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.resume());
    QVERIFY(!source->pausedWhileResuming);
    QCOMPARE(session.run(1)[0], float(48000 + Session::blockFrames));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineLifecycle::slots_mayDelete_whatStopped()
{
    Session session;
    QPointer<Source> source = session.addRamp(48000, 20.0);
    connect(&session.engine, &Engine::stopped, &session.engine,
            [&] { session.engine.deleteSource(source); });
    session.engine.start();
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QVERIFY(!source);
    session.checkAtRest();

    // Another one, while the engine walks its list.
    session.engine.setPauseMode(PauseSoft);
    session.addRamp(48000, 20.0);
    QPointer<Source> other = session.addRamp(48000, 20.0);
    session.engine.start();
    const auto link = connect(&session.engine, &Engine::sourceStateChanged, &session.engine,
                              [&] { session.engine.deleteSource(other); });
    session.engine.pause();
    QVERIFY(!other);
    disconnect(link);
    session.stopAll();
    QTRY_COMPARE(session.engine.numActiveSources(), 0);
}

void tst_EngineLifecycle::queries_areAnswered_inAWorker()
{
    Session session(2, 2);
    auto *sink = new AskingSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    for (int i = 0; i < 50; ++i) {
        session.run(4);
        session.engine.setTime(double(i));
    }
    session.run(40);
    QTRY_VERIFY(sink->asked > 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineLifecycle::destruction_endsEverything_whilePlaying()
{
    auto session = std::make_unique<Session>(2, 2);
    QPointer<Source> source = session->addRamp(44100, 20.0);
    QPointer<Sink> sink = new TakeSink(&session->engine, 48000, 2);
    QVERIFY(session->engine.addSink(sink));
    session->engine.start();
    session->run(4);
    session->api->startThread();
    QTRY_VERIFY(session->api->blocks > 8);
    session.reset();
    QVERIFY(!source);
    QVERIFY(!sink);
}

void tst_EngineLifecycle::destruction_toleratesADeletedBackend()
{
    auto *api = new TestApi;
    Engine engine(api);
    engine.activate();
    delete api;
    QCOMPARE(engine.backend(), NoBackend);
    QVERIFY(engine.isActive());
}

QTEST_GUILESS_MAIN(tst_EngineLifecycle)
#include "tst_engine_lifecycle.moc"
