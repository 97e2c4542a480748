// SPDX-License-Identifier: MIT
// Devices that come, go and fail without end, and an event loop that does not turn.
#include "../api/virtual_fixture.h"

#include <support/log_capture.h>
#include <support/rtguard.h>

#include <QtTest/QTest>

using namespace QTovelMixer;
using Pacing = QTovelMixerApiVirtual::Pacing;

namespace {

constexpr int longest = 5000; // ms
constexpr int listChanges = 1000;

/// Each failure costs the 50 ms that a device rests before it is opened again.
int failureCount()
{
    bool set = false;
    const int count = qEnvironmentVariableIntValue("QTTOVELMIXER_DEVICE_FAILURES", &set);
    return set ? count : 150;
}

} // namespace

class tst_DeviceFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void device_failsInARow();
    void device_failsToOpen_againAndAgain();
    void lateFailure_ofThePreviousDevice_isIgnored();
    void deviceList_changesAThousandTimes();
    void eventLoop_blockedForFiveSeconds();

private:
    static void playsAgain(VirtualSession &session);

    std::unique_ptr<LogCapture> m_quiet;
};

/// The frames of a new source come out, one after the other.
void tst_DeviceFaults::playsAgain(VirtualSession &session)
{
    constexpr qint64 frames = 48000;
    std::vector<float> heard;
    QSemaphore done;
    heard.reserve(size_t(frames + 4096) * 2);
    session.api->setOutputHandler([&](const float *samples, unsigned count, unsigned width,
                                      quint64) {
        if (qint64(heard.size()) >= frames * 2)
            return;
        // In real time blocks run before the transport does.
        unsigned first = 0;
        while (heard.empty() && first < count && samples[size_t(first) * width] == 0.0f)
            ++first;
        heard.insert(heard.end(), samples + size_t(first) * width, samples + size_t(count) * width);
        if (qint64(heard.size()) >= frames * 2) {
            const RealtimeGuardExemption wakesTheTest;
            done.release();
        }
    });
    QVERIFY(session.add(48000, 2, 10 * frames, 99));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(done.tryAcquire(1, longest));
    for (qint64 i = 0; i < frames * 2; ++i)
        QCOMPARE(heard[size_t(i)], noiseSample(99, i / 2, int(i % 2)));
    session.engine.stop(true, UserStopAction);
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 0, longest);
    session.api->stop();
}

void tst_DeviceFaults::device_failsInARow()
{
    VirtualSession session(Pacing::FreeWheel, 1);
    int failures = 0;
    int deactivations = 0;
    int stops = 0;
    QObject::connect(&session.engine, &Engine::deviceFailed, this,
                     [&](bool playing, bool capturing, const QString &) {
                         ++failures;
                         QVERIFY(playing);
                         QVERIFY(!capturing);
                     });
    QObject::connect(&session.engine, &Engine::deactivated, this, [&] { ++deactivations; });
    QObject::connect(&session.engine, &Engine::stopped, this, [&](StopReason reason) {
        ++stops;
        QCOMPARE(reason, DeviceFailed);
    });
    const int times = failureCount();
    for (int i = 0; i < times; ++i) {
        QVERIFY(session.engine.isActive());
        QVERIFY(session.add(48000, 2, 4800000, 1));
        QVERIFY(session.engine.start(0.0));
        QVERIFY(session.api->setFailing("Speaker", true));
        QTRY_COMPARE_WITH_TIMEOUT(failures, i + 1, longest);
        QTRY_COMPARE_WITH_TIMEOUT(stops, i + 1, longest);
        QVERIFY(!session.engine.isActive());
        QVERIFY(session.api->setFailing("Speaker", false));
        session.engine.activate();
    }
    QCOMPARE(failures, times);
    QCOMPARE(deactivations, times);
    disconnect(&session.engine, nullptr, this, nullptr);
    playsAgain(session);
}

void tst_DeviceFaults::device_failsToOpen_againAndAgain()
{
    VirtualSession session(Pacing::FreeWheel, 1);
    session.engine.deactivate(UserStopAction);
    int activations = 0;
    QObject::connect(&session.engine, &Engine::activated, this, [&] { ++activations; });
    QVERIFY(session.api->setFailing("Speaker", true));
    // Each attempt rests for a while between closing and opening.
    for (int i = 0; i < failureCount() / 10; ++i) {
        session.engine.activate();
        QVERIFY(!session.engine.currentDevice(DeviceKind::Output) || !session.api->isOpen());
        QVERIFY(!session.engine.canPlayback() || !session.api->isOpen());
        session.engine.deactivate(UserStopAction);
    }
    QCOMPARE(activations, 0);
    QVERIFY(session.api->setFailing("Speaker", false));
    session.engine.activate();
    QCOMPARE(activations, 1);
    playsAgain(session);
}

// The report waits in the event loop while the host opens another device.
void tst_DeviceFaults::lateFailure_ofThePreviousDevice_isIgnored()
{
    VirtualSession session(Pacing::FreeWheel, 1);
    QVERIFY(session.api->plug({.name = QStringLiteral("Other"), .outputChannels = 2}));
    session.engine.doDeviceListUpdate();
    Device *const other = session.engine.device(DeviceKind::Output, QStringLiteral("Other"));
    Device *const speaker = session.engine.currentDevice(DeviceKind::Output);
    QVERIFY(other && other != speaker);
    int failures = 0;
    int deactivations = 0;
    QObject::connect(&session.engine, &Engine::deviceFailed, this, [&] { ++failures; });
    QObject::connect(&session.engine, &Engine::deactivated, this, [&] { ++deactivations; });
    session.api->reportDeviceFailure();
    QVERIFY(session.engine.select(other, nullptr, 48000));
    QCoreApplication::processEvents();
    QCOMPARE(failures, 0);
    QCOMPARE(deactivations, 0);
    QVERIFY(session.engine.isActive());
    QCOMPARE(session.engine.currentDevice(DeviceKind::Output), other);
    // Its own failure counts.
    session.api->rearmDeviceFailure();
    session.api->reportDeviceFailure();
    QCoreApplication::processEvents();
    QCOMPARE(failures, 1);
    QCOMPARE(deactivations, 1);
    disconnect(&session.engine, nullptr, this, nullptr);
    QVERIFY(session.engine.select(speaker, nullptr, 48000));
    session.engine.activate();
    playsAgain(session);
}

void tst_DeviceFaults::deviceList_changesAThousandTimes()
{
    VirtualSession session(Pacing::FreeWheel, 1);
    int changes = 0;
    QObject::connect(&session.engine, &Engine::deviceListChanged, this, [&] { ++changes; });
    Device *const open = session.engine.currentDevice(DeviceKind::Output);
    QVERIFY(open);
    for (int i = 0; i < listChanges; ++i) {
        const QString name = QString("Guest %1 %2").arg(i % 7).arg("[%1]");
        if (i % 2 == 0)
            QVERIFY(session.api->plug({.name = name, .inputChannels = 2, .outputChannels = 2}));
        else
            QVERIFY(session.api->unplug(QString("Guest %1 %2").arg((i - 1) % 7).arg("[%1]")));
        session.engine.doDeviceListUpdate();
        QCOMPARE(session.engine.devices().size(), i % 2 == 0 ? 2 : 1);
        QCOMPARE(session.engine.currentDevice(DeviceKind::Output), open);
        QCOMPARE(session.engine.device(DeviceKind::Output, "Speaker"), open);
    }
    QCOMPARE(changes, listChanges);
    playsAgain(session);
}

// The audio goes on by itself; what it caused is told afterwards, each thing once.
void tst_DeviceFaults::eventLoop_blockedForFiveSeconds()
{
    constexpr qint64 frames = 7 * 48000;
    VirtualSession session(Pacing::RealTime, frames);
    NoiseSource *long_ = session.add(48000, 2, 60 * 48000, 5);
    QVERIFY(long_);
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.addRoute(long_, sink));
    int stops = 0;
    int finished = 0;
    QObject::connect(&session.engine, &Engine::stopped, this, [&] { ++stops; });
    QObject::connect(&session.engine, &Engine::sourceFinished, this, [&] { ++finished; });
    QVERIFY(session.engine.start(0.0));
    // No event is handled until seven seconds have been heard.
    QVERIFY(session.finish());
    QCOMPARE(stops, 0);
    for (qint64 i = 0; i < frames * 2; ++i)
        QCOMPARE(session.kept[size_t(i)], noiseSample(5, i / 2, int(i % 2)));
    QVERIFY(sink->keptFrames > 5 * 48000);
    // The watchdog's ticks come late, all at once, and stop nothing.
    QCoreApplication::processEvents();
    QVERIFY(session.engine.isPlaying());
    long_->stop(AudioFinished);
    QVERIFY(long_->wait(longest));
    QCOMPARE(finished, 0);
    QTRY_COMPARE_WITH_TIMEOUT(finished, 1, longest);
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 0, longest);
    QCOMPARE(stops, 0);
    session.engine.stop(true, UserStopAction);
    QTRY_COMPARE_WITH_TIMEOUT(stops, 1, longest);
    QCOMPARE(finished, 1);
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSinks(), 0, longest);
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_DeviceFaults)
#include "tst_device_faults.moc"
