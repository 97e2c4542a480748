// SPDX-License-Identifier: MIT
// Pauses before the start, and where playback stands.
#include <support/log_capture.h>
#include <support/session.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr int block = Session::blockFrames;

double seconds(int blocks)
{
    return double(blocks) * block / 48000.0;
}

bool allZero(const std::vector<float> &samples)
{
    return std::all_of(samples.begin(), samples.end(), [](float sample) { return sample == 0.0f; });
}

} // namespace

class tst_EnginePosition : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void pausesBeforeTheStart_countOnce();
    void pausesBeforeTheStart_countOnce_forWhatIsAddedBetween();
    void pausesBeforeTheStart_areOver_afterAStop();
    void position_followsTheMaterial();
    void position_isKept_throughAStop();
    void position_isKept_throughAFailure();
    void position_isKept_atTheNaturalEnd();
    void position_isKept_whenASelectFails();
    void position_isThePausePosition_afterReachingIt();
    void position_staysInsideTheSelections();
    void position_isSetWithoutPlaying();
    void position_isLeft_byAPreview();

private:
    std::unique_ptr<LogCapture> m_quiet;
};

void tst_EnginePosition::pausesBeforeTheStart_countOnce()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.addRamp(48000, 20.0));
    for (int i = 0; i < 3; ++i)
        QVERIFY(session.engine.pause());
    QCOMPARE(session.count("paused"), 3);
    QCOMPARE(session.count("sourceStateChanged"), 3);
    QVERIFY(!session.engine.resume());
    QVERIFY(session.engine.start());
    QVERIFY(session.engine.isPaused());
    QVERIFY(!session.engine.pause());
    QVERIFY(allZero(session.run(2)));
    QVERIFY(session.engine.resume());
    QVERIFY(!session.engine.isPaused());
    const std::vector<float> heard = session.run(2);
    QCOMPARE(heard.front(), 0.0f);
    QCOMPARE(heard.back(), float(2 * block - 1));
    QVERIFY(!session.engine.resume());
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.isPaused());
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EnginePosition::pausesBeforeTheStart_countOnce_forWhatIsAddedBetween()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.engine.pause());
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.pause());
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.start());
    QVERIFY(session.engine.resume());
    QCOMPARE(session.run(2).back(), 2.0f * float(2 * block - 1));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EnginePosition::pausesBeforeTheStart_areOver_afterAStop()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.stop(true));
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    QVERIFY(!session.engine.isPaused());
    QCOMPARE(session.run(2).back(), float(2 * block - 1));
    QVERIFY(session.engine.pause());
    QVERIFY(session.engine.resume());
    QCOMPARE(session.run(1).back(), float(3 * block - 1));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EnginePosition::position_followsTheMaterial()
{
    Session session;
    QCOMPARE(session.engine.position(), 0.0);
    QVERIFY(session.addRamp(48000, 20.0));
    QCOMPARE(session.engine.position(), 0.0);
    QVERIFY(session.engine.start(3.0));
    QCOMPARE(session.engine.position(), 3.0);
    session.run(10);
    QCOMPARE(session.engine.position(), 3.0 + seconds(10));
    session.engine.setTime(7.0);
    QCOMPARE(session.engine.position(), 7.0);
    session.run(1);
    QCOMPARE(session.engine.position(), 7.0 + seconds(1));
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.engine.pause());
    session.run(3);
    QCOMPARE(session.engine.position(), 7.0 + seconds(1));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EnginePosition::position_isKept_throughAStop()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    session.engine.setLimits(2.0, 12.0);
    QVERIFY(session.engine.start(4.0));
    session.run(6);
    session.stopAll();
    QCOMPARE(session.engine.position(), 4.0 + seconds(6));
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.engine.time(), 0.0);
    QCOMPARE(session.engine.position(), 4.0 + seconds(6));
    session.engine.deactivate();
    QCOMPARE(session.engine.position(), 4.0 + seconds(6));
    session.engine.activate();
    QVERIFY(session.addRamp(48000, 20.0));
    QCOMPARE(session.engine.position(), 4.0 + seconds(6));
    QVERIFY(session.engine.start(session.engine.position()));
    QCOMPARE(session.run(1).front(), float(4 * 48000 + 6 * block));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 2);
}

void tst_EnginePosition::position_isKept_throughAFailure()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start(5.0));
    session.run(4);
    double told = -1.0;
    connect(&session.engine, &Engine::deviceFailed, &session.engine,
            [&] { told = session.engine.position(); });
    session.api->reportDeviceFailure();
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(told, 5.0 + seconds(4));
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.engine.position(), 5.0 + seconds(4));
}

void tst_EnginePosition::position_isKept_atTheNaturalEnd()
{
    Session session;
    RampSource *source = session.addRamp(48000, 0.5);
    session.expectEnd(source);
    QVERIFY(session.engine.start());
    // The clock goes on past the end of the material.
    session.run(100);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.engine.position(), 0.5);
    session.engine.stop(true);
    QCOMPARE(session.engine.position(), 0.5);
}

void tst_EnginePosition::position_isKept_whenASelectFails()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start(1.0));
    session.run(2);
    session.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    Device *device = session.engine.currentDevice(DeviceKind::Output);
    QVERIFY(!session.engine.select(device, nullptr, 44100));
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(session.engine.position(), 1.0 + seconds(2));
}

void tst_EnginePosition::position_isThePausePosition_afterReachingIt()
{
    Session session;
    RampSource *source = session.addRamp(48000, 20.0);
    source->pauseAt = 1.0;
    session.expectEnd(source, 48000);
    QVERIFY(session.engine.start(0.5));
    // Until the worker notices that its ring is empty, the clock goes on.
    session.run(100);
    session.runWithoutWaiting(10);
    QCOMPARE(session.engine.position(), 1.0);
    QTRY_COMPARE(session.count("paused"), 1);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.engine.position(), 1.0);
}

void tst_EnginePosition::position_staysInsideTheSelections()
{
    Session session;
    RampSource *source = session.addRamp(48000, 20.0);
    session.engine.addSelection(2.0, 3.0);
    session.engine.addSelection(8.0, 9.0);
    session.expectEnd(source, 2 * 48000);
    QVERIFY(session.engine.start(2.5));
    QCOMPARE(session.engine.position(), 2.5);
    const int toTheGap = 48000 / 2 / block;
    session.run(toTheGap);
    QCOMPARE(session.engine.position(), 2.5 + seconds(toTheGap));
    session.run(1);
    QCOMPARE(session.engine.position(), 7.5 + seconds(toTheGap + 1));
    // Past the last stretch it is the end of that one.
    session.runWithoutWaiting(2 * 48000 / block);
    QCOMPARE(session.engine.position(), 9.0);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.engine.position(), 9.0);
}

void tst_EnginePosition::position_isSetWithoutPlaying()
{
    Session session;
    session.engine.setTime(4.0);
    QCOMPARE(session.engine.position(), 4.0);
    QVERIFY(session.engine.start(6.0));
    QCOMPARE(session.engine.position(), 6.0);
    session.engine.stop(true);
    QCOMPARE(session.engine.position(), 6.0);
    QVERIFY(session.addRamp(48000, 5.0));
    session.engine.setTime(9.0);
    QCOMPARE(session.engine.position(), 5.0);
}

void tst_EnginePosition::position_isLeft_byAPreview()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start(3.0));
    session.run(2);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QVERIFY(session.engine.play(new RampSource(&session.engine, 48000, 2, 20.0)));
    session.run(5);
    QCOMPARE(session.engine.position(), 3.0 + seconds(2));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 2);
    QCOMPARE(session.engine.position(), 3.0 + seconds(2));
}

QTEST_GUILESS_MAIN(tst_EnginePosition)
#include "tst_engine_position.moc"
