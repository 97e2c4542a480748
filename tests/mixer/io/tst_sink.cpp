// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <mixer/engine.h>
#include <mixer/engine_p.h>
#include <mixer/io/sink_p.h>
#include <support/log_capture.h>

#include "recording_sink.h"

#include <QtTest/QTest>

#include <limits>
#include <optional>

using namespace QTovelMixer;

class tst_sink : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_quiet.emplace(); }
    void cleanup() { m_quiet.reset(); }

    void fresh_answersInitialValues();
    void constructor_raisesShortRings_data();
    void constructor_raisesShortRings();
    void timeAndStartTime_askTheEngine();
    void withoutEngine_answersZero();
    void signature_offersEveryOperation();
    void start_announcesTheWorker();
    void start_doesNothing_theSecondTime();
    void run_endsAtOnce_data();
    void run_endsAtOnce();
    void run_tells_whenItsRateCannotBeRecorded_data();
    void run_tells_whenItsRateCannotBeRecorded();
    void run_writesBeginAndEnd();
    void stop_keepsTheReason_whenNoneIsGiven();
    void stop_storesTheReason_andCallsTheHook();
    void stop_writesOneTraceLine();
    void stop_beforeStart_endsWithoutRunStart();
    void stop_dropsWhatIsStillInTheRing();
    void stop_endsEveryWorker_overAndOver();
    void endAndWait_isSafe_inEveryState();
    void destructor_isSafe_inEveryState();

private:
    std::optional<LogCapture> m_quiet; // the trace lines of the tests that do not look at them
};

void tst_sink::fresh_answersInitialValues()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 44100);
    sink.setObjectName(QStringLiteral("take 1"));
    QCOMPARE(sink.stopReason(), UserStopAction);
    QVERIFY(!sink.isRunning());
    QVERIFY(!sink.QThread::isRunning());
    QVERIFY(!SinkAccess::threadStarted(sink));
    QCOMPARE(sink.skipTime(), 0.0);
    QCOMPARE(sink.recordedTime(), 0.0);
    QCOMPARE(sink.mixerEngine(), &engine);
    QCOMPARE(sink.name(), QStringLiteral("take 1"));
    QCOMPARE(sink.parent(), nullptr);
    const auto &data = SinkAccess::data(sink);
    QCOMPARE(data.recordTime, 0.0);
    QCOMPARE(data.frameBase.load(), 0);
    QVERIFY(!data.ring);
}

void tst_sink::constructor_raisesShortRings_data()
{
    QTest::addColumn<float>("seconds");
    QTest::addColumn<qint64>("frames");
    QTest::newRow("below five") << 0.5f << qint64(240000);
    QTest::newRow("negative") << -3.0f << qint64(240000);
    QTest::newRow("five") << 5.0f << qint64(240000);
    QTest::newRow("above five, truncated") << 5.00001f << qint64(48000.0f * 5.00001f);
    QTest::newRow("ten") << 10.0f << qint64(480000);
    QTest::newRow("not a number") << std::numeric_limits<float>::quiet_NaN() << qint64(240000);
}

void tst_sink::constructor_raisesShortRings()
{
    QFETCH(float, seconds);
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000, seconds);
    sink.start();
    QVERIFY(sink.waitForStart());
    QTEST(SinkAccess::data(sink).ring->writeSlice().frames, "frames");
}

void tst_sink::timeAndStartTime_askTheEngine()
{
    ClockEngine engine;
    EngineAccess::shipped(engine).active = true;
    EngineAccess::shipped(engine).mixTime = 72000;
    EngineAccess::shipped(engine).startTime = 0.25;
    RecordingSink sink(&engine, 1, 48000);
    QCOMPARE(sink.time(), 1.5);
    QCOMPARE(sink.start_time(), 0.25);
}

void tst_sink::withoutEngine_answersZero()
{
    RecordingSink sink(nullptr, 1, 48000);
    QCOMPARE(sink.time(), 0.0);
    QCOMPARE(sink.start_time(), 0.0);
    QCOMPARE(sink.recordedTime(), 0.0);
    QCOMPARE(sink.mixerEngine(), nullptr);
    sink.setTime(3.0);
    QCOMPARE(SinkAccess::data(sink).frameBase.load(), 0);
    QCOMPARE(SinkAccess::data(sink).recordTime, 3.0);
}

void tst_sink::signature_offersEveryOperation()
{
    const QMetaObject &meta = Sink::staticMetaObject;
    QVERIFY(meta.indexOfSignal("sinkStateChanged(QPointer<QTovelMixer::Sink>)") >= 0);
    QVERIFY(meta.indexOfSignal("sinkFinished(QPointer<QTovelMixer::Sink>)") >= 0);
    static_assert(std::is_abstract_v<Sink>);
    static_assert(std::is_base_of_v<QThread, Sink>);
}

void tst_sink::start_announcesTheWorker()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    SinkSignals heard(sink);
    sink.start(QThread::HighPriority);
    QVERIFY(SinkAccess::threadStarted(sink));
    QVERIFY(sink.waitForStart());
    QVERIFY(sink.isRunning());
    QTRY_COMPARE(heard.states, 1);
    QCOMPARE(heard.last.data(), &sink);
    QCOMPARE(heard.finished, 0);
    QCOMPARE(sink.runStarts, 1);
    QCOMPARE(sink.notified, 1);
    QCOMPARE(sink.notifiedBeforeSignal, 1);
    QVERIFY(sink.stateThread != QThread::currentThreadId());

    sink.stop(UserStopAction);
    QVERIFY(sink.wait(patience));
    QVERIFY(!sink.isRunning());
    QTRY_COMPARE(heard.finished, 1);
    QCOMPARE(heard.states, 2);
    QCOMPARE(sink.notified, 2);
    QCOMPARE(sink.notifiedBeforeSignal, 2);
    QVERIFY(SinkAccess::data(sink).finished);
}

void tst_sink::start_doesNothing_theSecondTime()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.setSkipTime(1.0);
    sink.start();
    sink.setSkipTime(2.0);
    sink.start();
    QVERIFY(sink.waitForStart());
    QCOMPARE(SinkAccess::data(sink).skipFrames.load(), qint64(second));
    sink.stop(NoReason);
    QVERIFY(sink.wait(patience));
    sink.start();
    QVERIFY(!sink.QThread::isRunning());
    QCOMPARE(sink.runStarts, 1);
}

void tst_sink::run_endsAtOnce_data()
{
    QTest::addColumn<bool>("engine");
    QTest::addColumn<int>("channels");
    QTest::newRow("no engine") << false << 1;
    QTest::newRow("no channels") << true << 0;
    QTest::newRow("negative channels") << true << -2;
}

void tst_sink::run_endsAtOnce()
{
    QFETCH(bool, engine);
    QFETCH(int, channels);
    ClockEngine clock(48000);
    RecordingSink sink(engine ? &clock : nullptr, channels, 48000);
    const LogCapture log;
    sink.start();
    QVERIFY(sink.wait(patience));
    QVERIFY(!sink.isRunning());
    QCOMPARE(sink.notified, 0);
    QCOMPARE(sink.runStarts, 0);
    QVERIFY(!SinkAccess::data(sink).ring);
    QVERIFY(log.texts().isEmpty());
    QCOMPARE(sink.recordedTime(), 0.0);
}

void tst_sink::run_tells_whenItsRateCannotBeRecorded_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<unsigned>("mixerRate");
    QTest::newRow("no rate") << 0 << 48000u;
    QTest::newRow("negative rate") << -1 << 48000u;
    QTest::newRow("no mixer rate") << 48000 << 0u;
}

void tst_sink::run_tells_whenItsRateCannotBeRecorded()
{
    QFETCH(int, rate);
    QFETCH(unsigned, mixerRate);
    ClockEngine clock(mixerRate);
    RecordingSink sink(&clock, 1, rate);
    const LogCapture log;
    sink.start();
    QVERIFY(sink.wait(patience));
    QCOMPARE(sink.runStarts, 0);
    QVERIFY(!SinkAccess::data(sink).ring);
    QCOMPARE(sink.stopReason(), WorkerFailed);
    QCOMPARE(log.texts(QtCriticalMsg).size(), 1);
}

void tst_sink::run_writesBeginAndEnd()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 3, 44100);
    const LogCapture log;
    sink.start();
    QVERIFY(sink.waitForStart());
    QCOMPARE(log.count(), 1);
    QCOMPARE(
        log.lines().at(0).text,
        prefix + "Sink::run BEGIN sink=" + hex(&sink) +
            " sampleRate=44100 mixerSampleRate=48000 channels=3 thread=" + hex(sink.stateThread));
    QCOMPARE(log.lines().at(0).type, QtInfoMsg);
    deliver(sink, 3, 0, 24000);
    sink.Sink::stop(AudioFinished);
    QVERIFY(sink.wait(patience));
    QCOMPARE(log.count(), 3);
    QCOMPARE(log.lines().at(2).text,
             prefix + "Sink::run END sink=" + hex(&sink) + " stopReason=1 recordedTime=0.5");
}

void tst_sink::stop_keepsTheReason_whenNoneIsGiven()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.stop(NoReason);
    QCOMPARE(sink.stopReason(), UserStopAction);
    sink.stop(DeviceFailed);
    sink.stop(NoReason);
    QCOMPARE(sink.stopReason(), DeviceFailed);
}

void tst_sink::stop_storesTheReason_andCallsTheHook()
{
    ClockEngine engine;
    for (StopReason reason : {AudioFinished, PausePositionReached, UserStopAction, UserPauseAction,
                              DeviceListChanged, DeviceFailed}) {
        RecordingSink sink(&engine, 1, 48000);
        SinkSignals heard(sink);
        sink.start();
        QVERIFY(sink.waitForStart());
        sink.stop(reason);
        QCOMPARE(sink.stops, 1);
        QCOMPARE(sink.stopReason(), reason);
        QVERIFY(sink.wait(patience));
        QTRY_COMPARE(heard.finished, 1);
        sink.stop(NoReason);
        QCOMPARE(sink.stops, 2);
        QCOMPARE(sink.stopReason(), reason);
    }
}

void tst_sink::stop_writesOneTraceLine()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    const LogCapture log;
    const QString begin = prefix + "Sink::stop sink=" + hex(&sink);
    sink.stop(DeviceFailed);
    QCOMPARE(log.lines().at(0).text,
             begin + " stopReason=6 isRunning=false started=false finished=false");
    QCOMPARE(log.lines().at(0).type, QtInfoMsg);
    QCOMPARE(log.count(), 1);

    RecordingSink running(&engine, 1, 48000);
    running.start();
    QVERIFY(running.waitForStart());
    running.stop(NoReason);
    QVERIFY(log.texts().contains(prefix + "Sink::stop sink=" + hex(&running) +
                                 " stopReason=0 isRunning=true started=true finished=false"));
    QVERIFY(running.wait(patience));
    running.stop(UserStopAction);
    QVERIFY(log.texts().contains(prefix + "Sink::stop sink=" + hex(&running) +
                                 " stopReason=3 isRunning=false started=true finished=true"));
}

void tst_sink::stop_beforeStart_endsWithoutRunStart()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    SinkSignals heard(sink);
    sink.stop(UserStopAction);
    sink.start();
    QVERIFY(sink.wait(patience));
    QTRY_COMPARE(heard.finished, 1);
    QCOMPARE(heard.states, 2);
    QCOMPARE(sink.runStarts, 0);
    QVERIFY(!sink.isRunning());
}

void tst_sink::stop_dropsWhatIsStillInTheRing()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 1000);
    QVERIFY(sink.waitUntilBlocked());
    deliver(sink, 1, 1000, 9000);
    sink.stop(UserStopAction);
    sink.releaseHost();
    QVERIFY(sink.wait(patience));
    QCOMPARE(sink.takenFrames(), 1000);
    QCOMPARE(sink.recordedTime(), 10000.0 / 48000);
}

void tst_sink::stop_endsEveryWorker_overAndOver()
{
    ClockEngine engine;
    for (int turn = 0; turn < 300; ++turn) {
        RecordingSink sink(&engine, 1, turn % 2 ? 48000 : 44100);
        sink.start();
        if (turn % 3)
            QVERIFY(sink.waitForStart());
        sink.stop(UserStopAction);
        QVERIFY(sink.wait(patience));
    }
}

void tst_sink::endAndWait_isSafe_inEveryState()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    SinkAccess::endAndWait(sink); // never started
    QVERIFY(!sink.QThread::isRunning());

    RecordingSink running(&engine, 1, 48000);
    running.start();
    SinkAccess::endAndWait(running); // perhaps before its first turn
    QVERIFY(running.QThread::isFinished());
    SinkAccess::endAndWait(running); // ended
    QCOMPARE(running.stops, 0);
    QCOMPARE(running.stopReason(), UserStopAction);
}

void tst_sink::destructor_isSafe_inEveryState()
{
    ClockEngine engine;
    {
        const RecordingSink never(&engine, 1, 48000);
    }
    {
        RecordingSink fresh(&engine, 1, 48000);
        fresh.start();
    }
    {
        RecordingSink running(&engine, 2, 44100);
        running.start();
        QVERIFY(running.waitForStart());
        deliver(running, 2, 0, 10000);
    }
    {
        RecordingSink ended(&engine, 1, 48000);
        ended.start();
        QVERIFY(ended.waitForStart());
        ended.stop(UserStopAction);
        QVERIFY(ended.wait(patience));
    }
}

QTEST_GUILESS_MAIN(tst_sink)
#include "tst_sink.moc"
