// SPDX-License-Identifier: MIT
// Streams that are lost, do not start, or stay open without users.
#include "api/virtual_fixture.h"

#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/meter/meter.h>
#include <mixer/meter/meter_values.h>

#include <QtTest/QTest>

using namespace QTovelMixer;
using Pacing = QTovelMixerApiVirtual::Pacing;

namespace {

/// A session whose second device never opens.
struct Desk : Session
{
    Desk()
    {
        good = engine.currentDevice(DeviceKind::Output);
        bad = api->addTestDevice("Broken", 0, 2);
        api->updateDeviceList();
        api->acceptOpen = [this](Device *output, Device *, unsigned) { return output != bad; };
    }

    Device *good;
    TestDevice *bad;
};

} // namespace

class tst_EngineStreaming : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void failedSelect_isRepairedByActivate();
    void failedSelect_isRepairedByTheNextDeviceUpdate();
    void failedSelect_underPlayback_isADeviceFailure();
    void failedSelect_underARecording_isADeviceFailure();
    void failedSelect_goesOn_whenTheNextOneSucceeds();
    void failedSelect_goesOn_whenActivateRepairsIt();
    void failedSelect_goesOn_whenADeviceUpdateRepairsIt();
    void failedSelect_keepsWhatWaitsForItsStart();
    void failedActivate_isRepairedByActivate();
    void stream_thatDoesNotStart_isADeviceFailure();
    void stream_thatDoesNotStart_isNoPlayback();
    void stream_thatDoesNotStart_isToldOnce_data();
    void stream_thatDoesNotStart_isToldOnce();
    void failedOpen_isNotTold_ofTheNextDevice();
    void stream_thatDoesNotStart_isToldOfASelect();
    void stream_thatStartsAtTheSecondAttempt_isNoFailure();
    void streaming_keepsTheStreamOpen_withoutUsers();
    void streaming_outlivesItsUsers();
    void streaming_goesOn_onTheNextDevice();
    void streaming_waitsForTheActivation();
    void streaming_givesAnIdleEditorItsInputLevel();
    void streaming_thatDoesNotStart_isADeviceFailure();

private:
    std::unique_ptr<LogCapture> m_quiet;
};

void tst_EngineStreaming::failedSelect_isRepairedByActivate()
{
    Desk desk;
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    QVERIFY(!desk.engine.canPlayback());
    desk.engine.activate();
    QVERIFY(desk.engine.canPlayback());
    QVERIFY(desk.engine.isActive());
    QCOMPARE(desk.count("activated"), 2);
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.run(2).back(), float(2 * Session::blockFrames - 1));
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
    QCOMPARE(desk.count("deviceFailed"), 0);
    desk.checkAtRest();
}

void tst_EngineStreaming::failedSelect_isRepairedByTheNextDeviceUpdate()
{
    Desk desk;
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    desk.engine.doDeviceListUpdate();
    QTRY_COMPARE(desk.count("activated"), 2);
    QVERIFY(desk.engine.canPlayback());
    QVERIFY(desk.engine.isActive());
}

void tst_EngineStreaming::failedSelect_underPlayback_isADeviceFailure()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    desk.run(2);
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    QTRY_COMPARE(desk.count("deviceFailed"), 1);
    QVERIFY(!desk.engine.isPlaying());
    QCOMPARE(desk.failure, "playing=1 capturing=0 Auto");
    QTRY_COMPARE(desk.count("stopped"), 1);
    QCOMPARE(desk.lastReason, DeviceFailed);
    desk.engine.activate();
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.run(2).back(), float(2 * Session::blockFrames - 1));
    QCOMPARE(desk.count("deviceFailed"), 1);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 2);
    desk.checkAtRest();
}

void tst_EngineStreaming::failedSelect_underARecording_isADeviceFailure()
{
    Desk desk;
    QVERIFY(desk.engine.addSink(new TakeSink(&desk.engine, 48000, 2)));
    QVERIFY(desk.startRecording());
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    QTRY_COMPARE(desk.count("deviceFailed"), 1);
    QCOMPARE(desk.failure, "playing=0 capturing=1 Auto");
    QTRY_COMPARE(desk.count("stopped"), 1);
    desk.checkAtRest();
}

void tst_EngineStreaming::failedSelect_goesOn_whenTheNextOneSucceeds()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    desk.run(2);
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    QVERIFY(desk.engine.select(desk.good, nullptr, 48000));
    QCoreApplication::processEvents();
    QCOMPARE(desk.run(1).back(), float(3 * Session::blockFrames - 1));
    QCOMPARE(desk.count("deviceFailed"), 0);
    QVERIFY(desk.engine.isPlaying());
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineStreaming::failedSelect_goesOn_whenActivateRepairsIt()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    desk.run(2);
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    desk.engine.activate();
    QVERIFY(desk.api->isRunning());
    QCoreApplication::processEvents();
    QCOMPARE(desk.run(1).back(), float(3 * Session::blockFrames - 1));
    QCOMPARE(desk.count("deviceFailed"), 0);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
    desk.checkAtRest();
}

void tst_EngineStreaming::failedSelect_goesOn_whenADeviceUpdateRepairsIt()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    desk.run(2);
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    desk.engine.doDeviceListUpdate();
    QTRY_COMPARE(desk.count("activated"), 2);
    QVERIFY(desk.api->isRunning());
    QCOMPARE(desk.run(1).back(), float(3 * Session::blockFrames - 1));
    QVERIFY(desk.engine.isPlaying());
    QCOMPARE(desk.count("deviceFailed"), 0);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineStreaming::failedSelect_keepsWhatWaitsForItsStart()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    QCoreApplication::processEvents();
    QCOMPARE(desk.count("deviceFailed"), 0);
    QVERIFY(!desk.engine.start());
    QVERIFY(!desk.engine.isPlaying());
    QCOMPARE(desk.count("started"), 0);
    QVERIFY(desk.engine.select(desk.good, nullptr, 48000));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.run(1).back(), float(Session::blockFrames - 1));
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineStreaming::failedActivate_isRepairedByActivate()
{
    Desk desk;
    desk.engine.deactivate();
    desk.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    desk.engine.activate();
    QVERIFY(desk.engine.isActive());
    QVERIFY(!desk.engine.canPlayback());
    desk.api->acceptOpen = nullptr;
    desk.engine.activate();
    QVERIFY(desk.engine.canPlayback());
    QCOMPARE(desk.count("deviceFailed"), 0);
}

void tst_EngineStreaming::stream_thatDoesNotStart_isADeviceFailure()
{
    Session session;
    session.api->failStart = true;
    QVERIFY(session.addRamp(48000, 20.0));
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QVERIFY(!session.engine.isActive());
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, DeviceFailed);
    session.checkAtRest();
}

void tst_EngineStreaming::stream_thatDoesNotStart_isNoPlayback()
{
    Session session;
    session.api->failStart = true;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(!session.engine.start());
    QVERIFY(!session.engine.isPlaying());
    QCOMPARE(session.count("started"), 0);
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(session.failure, "playing=0 capturing=0 Auto");
    session.api->failStart = false;
    session.engine.activate();
    QTRY_COMPARE(session.engine.numActiveSources(), 0);
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    QCOMPARE(session.run(1).back(), float(Session::blockFrames - 1));
    QCOMPARE(session.count("deviceFailed"), 1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 2);
}

void tst_EngineStreaming::stream_thatDoesNotStart_isToldOnce_data()
{
    QTest::addColumn<bool>("backendIsFirst");
    QTest::newRow("the backend tells first") << true;
    QTest::newRow("the start fails first") << false;
}

// The start fails because the device is gone, which the backend tells as well.
void tst_EngineStreaming::stream_thatDoesNotStart_isToldOnce()
{
    QFETCH(bool, backendIsFirst);
    Session session;
    int deactivations = 0;
    connect(&session.engine, &Engine::deactivated, this, [&] { ++deactivations; });
    session.api->failStart = true;
    if (backendIsFirst)
        session.api->reportDeviceFailure();
    QVERIFY(session.addRamp(48000, 20.0));
    if (!backendIsFirst)
        session.api->reportDeviceFailure();
    QTRY_COMPARE(session.count("stopped"), 1);
    QCoreApplication::processEvents();
    QCOMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(deactivations, 1);

    // What befalls the next device is news.
    session.api->failStart = false;
    session.api->rearmDeviceFailure();
    session.engine.activate();
    session.api->reportDeviceFailure();
    QTRY_COMPARE(session.count("deviceFailed"), 2);
    session.checkAtRest();
}

// What was lost with the last device is no loss of the next one, which nobody uses yet.
void tst_EngineStreaming::failedOpen_isNotTold_ofTheNextDevice()
{
    Desk desk;
    QVERIFY(desk.addRamp(48000, 20.0));
    QVERIFY(desk.engine.start());
    Device *const good = desk.engine.currentDevice(DeviceKind::Output);
    QVERIFY(!desk.engine.open(desk.bad, nullptr, 48000, false));
    QVERIFY(desk.engine.stop(true, UserStopAction));
    QVERIFY(desk.engine.open(good, nullptr, 48000, false));
    QTRY_COMPARE(desk.count("stopped"), 1);
    QCoreApplication::processEvents();
    QCOMPARE(desk.count("deviceFailed"), 0);
    QVERIFY(desk.engine.canPlayback());
}

void tst_EngineStreaming::stream_thatDoesNotStart_isToldOfASelect()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    session.run(1);
    session.api->failStart = true;
    Device *device = session.engine.currentDevice(DeviceKind::Output);
    QVERIFY(session.engine.open(device, nullptr, 48000));
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QVERIFY(!session.engine.isPlaying());
    QCOMPARE(session.failure, "playing=1 capturing=0 Auto");
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineStreaming::stream_thatStartsAtTheSecondAttempt_isNoFailure()
{
    Session session;
    session.api->failStart = true;
    QVERIFY(session.addRamp(48000, 20.0));
    session.api->failStart = false;
    QVERIFY(session.engine.start());
    QCoreApplication::processEvents();
    QCOMPARE(session.count("deviceFailed"), 0);
    QCOMPARE(session.run(1).back(), float(Session::blockFrames - 1));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineStreaming::streaming_keepsTheStreamOpen_withoutUsers()
{
    Session session;
    QVERIFY(!session.engine.isStreaming());
    QVERIFY(!session.api->isRunning());
    session.engine.setStreaming(true);
    QVERIFY(session.engine.isStreaming());
    QVERIFY(session.api->isRunning());
    QVERIFY(!session.engine.isRunning());
    session.engine.setStreaming(true);
    session.engine.setStreaming(false);
    QVERIFY(!session.engine.isStreaming());
    QVERIFY(!session.api->isRunning());
    QCOMPARE(session.api->calls.count("start"), 1);
    QCOMPARE(session.api->calls.count("stop"), 1);
    session.checkAtRest();
}

void tst_EngineStreaming::streaming_outlivesItsUsers()
{
    Session session;
    session.engine.setStreaming(true);
    for (int i = 1; i <= 2; ++i) {
        QVERIFY(session.addRamp(48000, 20.0));
        QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 2)));
        QVERIFY(session.startRecording());
        QCOMPARE(session.run(2).back(), float(2 * Session::blockFrames - 1));
        session.stopAll();
        QTRY_COMPARE(session.count("stopped"), i);
        session.checkAtRest();
        QVERIFY(session.api->isRunning());
    }
    // What uses the stream keeps it, too.
    RampSource *source = session.addRamp(48000, 20.0);
    session.engine.setStreaming(false);
    QVERIFY(session.api->isRunning());
    session.engine.deleteSource(source);
    QVERIFY(!session.api->isRunning());
    session.engine.setStreaming(true);
    session.engine.setStreaming(false);
    QCOMPARE(session.api->calls.count("start"), 2);
    session.checkAtRest();
}

void tst_EngineStreaming::streaming_goesOn_onTheNextDevice()
{
    Desk desk;
    desk.engine.setStreaming(true);
    for (const bool startapi : {false, true}) {
        QVERIFY(desk.engine.open(desk.good, nullptr, 48000, startapi));
        QVERIFY(desk.api->isRunning());
    }
    QVERIFY(!desk.engine.select(desk.bad, nullptr, 48000));
    desk.engine.activate();
    QVERIFY(desk.api->isRunning());
    desk.engine.deactivate();
    QVERIFY(!desk.api->isRunning());
    desk.engine.activate();
    QVERIFY(desk.api->isRunning());
    desk.engine.setStreaming(false);
    QVERIFY(!desk.api->isRunning());
    QCOMPARE(desk.count("deviceFailed"), 0);
}

void tst_EngineStreaming::streaming_waitsForTheActivation()
{
    Session session;
    session.engine.deactivate();
    session.engine.setStreaming(true);
    QVERIFY(!session.api->isRunning());
    session.engine.activate();
    QVERIFY(session.api->isRunning());
    QCOMPARE(session.count("activated"), 2);
}

void tst_EngineStreaming::streaming_givesAnIdleEditorItsInputLevel()
{
    auto *api = new QTovelMixerApiVirtual(Pacing::RealTime);
    Engine engine(api);
    QVERIFY(api->plug({.name = "Desk", .inputChannels = 1, .outputChannels = 2}));
    api->setGenerator([](float *samples, unsigned frames, unsigned, quint64) {
        std::fill_n(samples, frames, 0.5f);
    });
    api->updateDeviceList();
    engine.activate();
    Meter *meter = engine.inputMeter();
    QVERIFY(meter);
    meter->start();
    engine.setStreaming(true);
    MeterValues values;
    const auto level = [&] {
        meter->getValues(values);
        return values.level(0);
    };
    QTRY_VERIFY(level() > -6.1);
    QVERIFY(level() < -5.9);
    engine.setStreaming(false);
    QVERIFY(!api->isRunning());
}

void tst_EngineStreaming::streaming_thatDoesNotStart_isADeviceFailure()
{
    Session session;
    session.api->failStart = true;
    session.engine.setStreaming(true);
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QVERIFY(!session.engine.isActive());
    QVERIFY(session.engine.isStreaming());
    session.api->failStart = false;
    session.engine.activate();
    QVERIFY(session.api->isRunning());
}

QTEST_GUILESS_MAIN(tst_EngineStreaming)
#include "tst_engine_streaming.moc"
