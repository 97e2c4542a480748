// SPDX-License-Identifier: MIT
// References to the device's stream, what survives its reopening, and its timers.
#include <mixer/meter/meter.h>
#include <support/log_capture.h>
#include <support/session.h>

#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>

using namespace QTovelMixer;

class tst_EngineStream : public QObject
{
    Q_OBJECT

private slots:
    void start_keepsNoReferences_whenTheStreamIsGone();
    void stop_endsTheWatchdog_whenTheStreamIsGone();
    void watchdog_isTimedFromTheStart();
    void reopening_keepsSources_thatFillTheBuses();
    void reopening_keepsGains_ofSourcesWithoutBuses();
    void deviceListTimer_waitsForTheEnd_whilePlaying();
    void engine_deletesWhatWasRemoved_whenItGoesFirst();
    void meterThreads_end_withTheDevice();
    void cleanUp_paysWhatIsOwed();
};

void tst_EngineStream::start_keepsNoReferences_whenTheStreamIsGone()
{
    Session session;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    const LogCapture quiet;
    data.startMixerApi();
    data.startMixerApi();
    QCOMPARE(data.apiRefs, 2);
    session.api->stop();
    session.api->failStart = true;
    data.startMixerApi();
    QCOMPARE(data.apiRefs, 0);
    QVERIFY(!data.watchdogTimer->isActive());
}

void tst_EngineStream::stop_endsTheWatchdog_whenTheStreamIsGone()
{
    Session session;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    const LogCapture quiet;
    data.startMixerApi();
    data.startMixerApi();
    QVERIFY(data.watchdogTimer->isActive());
    session.api->stop();
    data.stopMixerApi();
    QCOMPARE(data.apiRefs, 0);
    QVERIFY(!data.watchdogTimer->isActive());
}

// A clock that was never started would call the first tick late, and pass it over.
void tst_EngineStream::watchdog_isTimedFromTheStart()
{
    Session session;
    Engine::Data &data = EngineAccess::shipped(session.engine);
    const LogCapture quiet;
    QVERIFY(!data.watchdogClock.isValid());
    data.startMixerApi();
    QVERIFY(data.watchdogClock.isValid());
    data.stopMixerApi();
}

void tst_EngineStream::reopening_keepsSources_thatFillTheBuses()
{
    Session session(2, 2);
    Engine &engine = session.engine;
    auto *source = new RampSource(&engine, 48000, 126, 20.0);
    QVERIFY(engine.addSource(source));
    QVERIFY(engine.open(engine.currentDevice(DeviceKind::Output),
                        engine.currentDevice(DeviceKind::Input), 48000, false));
    QCOMPARE(EngineAccess::shipped(engine).inputBuses.size(), size_t(128));
    QVERIFY(engine.isValid(source));
    QVERIFY(source->stopReason() != DeviceListChanged);
    session.checkMapping();
    session.stopAll();
}

// Its gains are kept for the next device, and touch nothing of this one.
void tst_EngineStream::reopening_keepsGains_ofSourcesWithoutBuses()
{
    Session session(2, 2);
    Engine &engine = session.engine;
    TestDevice *wide = session.api->addTestDevice("Wide", 128, 2);
    session.api->updateDeviceList();
    auto *source = new RampSource(&engine, 48000, 2, 20.0);
    QVERIFY(engine.addSource(source));
    QVERIFY(engine.open(wide, wide, 48000, false));
    Engine::Data &data = EngineAccess::shipped(engine);
    QCOMPARE(data.inputBuses.size(), size_t(128));
    QVERIFY(engine.isValid(source));
    constexpr float gain = 0.25f;
    for (int channel : {0, 1}) {
        for (int output : {0, 1})
            engine.setGain(source, channel, output, gain);
    }
    for (size_t row = 0; row < 128; ++row) {
        for (size_t column = 0; column < 128; ++column) {
            QVERIFY(data.gainMatrix[row][column] != gain);
            QCOMPARE(data.enableMatrix[row][column], 1.0f);
        }
    }
    session.stopAll();
}

// Playback may begin between the start of the timer and its end.
void tst_EngineStream::deviceListTimer_waitsForTheEnd_whilePlaying()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    Engine::Data &data = EngineAccess::shipped(session.engine);
    data.deviceListTimer->start(0);
    QTRY_VERIFY(data.stoppedLink);
    QCOMPARE(session.count("updatingDeviceList"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("updatingDeviceList"), 1);
}

// The deletion waits for an event loop that never comes.
void tst_EngineStream::engine_deletesWhatWasRemoved_whenItGoesFirst()
{
    auto session = std::make_unique<Session>(2, 2);
    const QPointer<Source> source = session->addRamp(48000, 20.0);
    const QPointer<Sink> sink = new TakeSink(&session->engine, 48000, 2);
    QVERIFY(session->engine.addSink(sink));
    session->engine.removeSource(source);
    session->engine.removeSink(sink);
    QVERIFY(source && sink);
    session.reset();
    QVERIFY(!source);
    QVERIFY(!sink);
}

void tst_EngineStream::meterThreads_end_withTheDevice()
{
    Session session(2, 2);
    const QPointer<QThread> input = session.engine.inputMeter()->thread();
    const QPointer<QThread> output = session.engine.outputMeter()->thread();
    QVERIFY(input->isRunning() && output->isRunning());
    session.engine.deactivate();
    QVERIFY(!input || input->isFinished());
    QVERIFY(!output || output->isFinished());
}

// What a system without memory could not queue.
void tst_EngineStream::cleanUp_paysWhatIsOwed()
{
    Session session(2, 2);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    const LogCapture quiet;
    data.startMixerApi();
    data.startMixerApi();
    data.startMixerApi();
    data.owedStops = 1;
    data.owedGeneration = data.streamGeneration;
    data.cleanUp();
    QCOMPARE(data.apiRefs, 2);
    data.owedStops = 1;
    data.owedGeneration = data.streamGeneration - 1; // of a stream that was closed since
    data.cleanUp();
    QCOMPARE(data.apiRefs, 2);
    QCOMPARE(data.owedStops, 0);

    const QPointer<Source> source = session.addRamp(48000, 20.0);
    session.engine.removeSource(source);
    QVERIFY(source);
    data.cleanUp();
    QVERIFY(!source);
    session.stopAll();
}

QTEST_GUILESS_MAIN(tst_EngineStream)
#include "tst_engine_stream.moc"
