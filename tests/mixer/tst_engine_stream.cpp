// SPDX-License-Identifier: MIT
// References to the device's stream, and the watchdog over it.
#include <support/log_capture.h>
#include <support/session.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_EngineStream : public QObject
{
    Q_OBJECT

private slots:
    void start_keepsNoReferences_whenTheStreamIsGone();
    void stop_endsTheWatchdog_whenTheStreamIsGone();
    void watchdog_isTimedFromTheStart();
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

QTEST_GUILESS_MAIN(tst_EngineStream)
#include "tst_engine_stream.moc"
