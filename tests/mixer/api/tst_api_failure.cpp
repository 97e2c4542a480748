// SPDX-License-Identifier: MIT
// The report of a broken device.
#include <mixer/api/api.h>

#include "plain_api.h"

#include <mixer/engine.h>
#include <support/log_capture.h>

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <thread>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr char failureText[] =
    "QTovelMixer::Api: audio device failure detected (Jack) -- requesting mixer teardown";

} // namespace

class tst_ApiFailure : public QObject
{
    Q_OBJECT

private slots:
    void reportDeviceFailure_reportsOncePerArming();
    void reportDeviceFailure_reportsOnce_fromManyThreads();
    void reportDeviceFailure_reachesTheEngine_fromTheEventLoop();
    void setEngine_disconnectsThePreviousEngine();
    void setEngine_connectsTheSameEngineOnce();
};

void tst_ApiFailure::reportDeviceFailure_reportsOncePerArming()
{
    const LogCapture log;
    PlainApi api(256);
    const QSignalSpy failures(&api, &Api::deviceFailure);
    api.reportDeviceFailure();
    api.reportDeviceFailure();
    QCOMPARE(failures.count(), 1);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList{failureText});
    api.rearmDeviceFailure();
    QCOMPARE(failures.count(), 1);
    api.reportDeviceFailure();
    api.reportDeviceFailure();
    QCOMPARE(failures.count(), 2);
    QCOMPARE(log.count(QtCriticalMsg, failureText), 2);
    QCOMPARE(log.count(), 2);
}

void tst_ApiFailure::reportDeviceFailure_reportsOnce_fromManyThreads()
{
    const LogCapture log;
    PlainApi api(256);
    int failures = 0;
    QObject::connect(
        &api, &Api::deviceFailure, this, [&failures] { ++failures; }, Qt::QueuedConnection);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&api] { api.reportDeviceFailure(); });
    for (std::thread &thread : threads)
        thread.join();
    QCoreApplication::processEvents();
    QCOMPARE(failures, 1);
    QCOMPARE(log.count(QtCriticalMsg, failureText), 1);
}

void tst_ApiFailure::reportDeviceFailure_reachesTheEngine_fromTheEventLoop()
{
    const LogCapture log;
    PlainApi api(256);
    Engine engine(nullptr);
    api.setEngine(&engine);
    const QSignalSpy failures(&engine, &Engine::deviceFailed);
    std::thread([&api] { api.reportDeviceFailure(); }).join();
    QCOMPARE(failures.count(), 0);
    QCoreApplication::processEvents();
    QCOMPARE(failures.count(), 1);
    QCOMPARE(log.count(QtCriticalMsg, failureText), 1);

    // Neither does it happen at once on the engine's own thread.
    api.rearmDeviceFailure();
    api.reportDeviceFailure();
    QCOMPARE(failures.count(), 1);
    QCoreApplication::processEvents();
    QCOMPARE(failures.count(), 2);
}

void tst_ApiFailure::setEngine_disconnectsThePreviousEngine()
{
    const LogCapture log;
    PlainApi api(256);
    Engine first(nullptr);
    Engine second(nullptr);
    const QSignalSpy firstFailures(&first, &Engine::deviceFailed);
    const QSignalSpy secondFailures(&second, &Engine::deviceFailed);
    api.setEngine(&first);
    api.setEngine(&second);
    api.reportDeviceFailure();
    QCoreApplication::processEvents();
    QCOMPARE(firstFailures.count(), 0);
    QCOMPARE(secondFailures.count(), 1);

    api.setEngine(nullptr);
    api.rearmDeviceFailure();
    api.reportDeviceFailure();
    QCoreApplication::processEvents();
    QCOMPARE(firstFailures.count(), 0);
    QCOMPARE(secondFailures.count(), 1);
}

void tst_ApiFailure::setEngine_connectsTheSameEngineOnce()
{
    const LogCapture log;
    PlainApi api(256);
    Engine engine(nullptr);
    const QSignalSpy failures(&engine, &Engine::deviceFailed);
    api.setEngine(&engine);
    api.setEngine(&engine);
    api.reportDeviceFailure();
    QCoreApplication::processEvents();
    QCOMPARE(failures.count(), 1);
}

QTEST_GUILESS_MAIN(tst_ApiFailure)
#include "tst_api_failure.moc"
