// SPDX-License-Identifier: MIT
// Devices, pacing, failures and ends of a virtual device.
#include "virtual_fixture.h"

#include <mixer/api/device.h>
#include <mixer/api/virtual_stream_p.h>
#include <support/callback_watch.h>
#include <support/log_capture.h>

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <stdexcept>
#include <thread>

using namespace QTovelMixer;
using VirtualApi = QTovelMixerApiVirtual;
using Pacing = VirtualApi::Pacing;
using Setup = VirtualApi::DeviceSetup;

class tst_ApiVirtual : public QObject
{
    Q_OBJECT

private slots:
    void plug_listsTheDevice_atTheNextUpdate();
    void plug_refuses_data();
    void plug_refuses();
    void plug_changesADevice_butNotAnOpenOne();
    void unplug_takesTheDeviceOutOfTheList();
    void defaultDevice_isTheFlaggedOne();
    void open_refuses();
    void blockTimes_neverDrift();
    void realTime_keepsItsPace();
    void stop_wakesALongBlock();
    void stop_fromTheHandler_doesNotWait();
    void start_startsAgain();
    void freeWheel_waits_untilSourcesAreStarted();
    void wakeMix_endsAWait_forWhichNothingIsReady();
    void bufferedFrames_and_freeFrames_tellTheRings();
    void unplug_endsPlayback_asFailed();
    void unplug_endsRecording_asFailed();
    void setFailing_endsPlayback_untilRepaired();
    void failure_isReportedOnce_forBothSides();
    void handler_thatThrows_isAFailure();
    void destruction_inEveryState_data();
    void destruction_inEveryState();
};

void tst_ApiVirtual::plug_listsTheDevice_atTheNextUpdate()
{
    const LogCapture log;
    VirtualApi api(Pacing::FreeWheel, 512, "Rack");
    QCOMPARE(api.name(), QString("Rack"));
    QCOMPARE(api.backend(), Backend::File);
    QCOMPARE(api.backendString(), QString("File"));
    QCOMPARE(api.bufferFrames(), 512u);
    QCOMPARE(api.pacing(), Pacing::FreeWheel);
    QVERIFY(api.plug({.name = "Box",
                      .inputChannels = 3,
                      .outputChannels = 128,
                      .sampleRates = {8000, 192000},
                      .preferedSampleRate = 44100,
                      .minBufferFrames = 16,
                      .maxBufferFrames = 512}));
    QVERIFY(api.devices().isEmpty());
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.deviceListWasChanged());
    QCOMPARE(api.devices().size(), 1);
    const Device *device = api.devices().first();
    QCOMPARE(device->name(), QString("Box"));
    QCOMPARE(device->fullName(), QString("Box"));
    QCOMPARE(device->uniqueId(), QString("Box"));
    QCOMPARE(device->manufacture(), QString("Virtual"));
    QCOMPARE(device->numInputChannels(), 3u);
    QCOMPARE(device->numOutputChannels(), 128u);
    QCOMPARE(device->sampleRates(), (QList<unsigned>{8000, 192000}));
    QCOMPARE(device->preferedSampleRate(), 8000u);
    QCOMPARE(device->minBufferFrames(), 16u);
    QCOMPARE(device->maxBufferFrames(), 512u);
    QCOMPARE(device->defaultBufferFrames(), 512u);
    QVERIFY(device->isDuplex() && device->isAvailable() && device->isValid());
    QVERIFY(device->canPlayback() && device->canCapture() && device->isListed());
    QVERIFY(api.device(DeviceKind::Output, "Box") == device);
    QVERIFY(api.updateDeviceList());
    QVERIFY(!api.deviceListWasChanged());
}

void tst_ApiVirtual::plug_refuses_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<unsigned>("inputs");
    QTest::addColumn<unsigned>("outputs");
    QTest::addColumn<QList<unsigned>>("rates");
    QTest::addColumn<unsigned>("least");
    QTest::addColumn<unsigned>("most");
    const QList<unsigned> rates = {48000};
    QTest::newRow("no name") << QString() << 0u << 2u << rates << 64u << 4096u;
    QTest::newRow("no channels") << "x" << 0u << 0u << rates << 64u << 4096u;
    QTest::newRow("129 inputs") << "x" << 129u << 2u << rates << 64u << 4096u;
    QTest::newRow("129 outputs") << "x" << 0u << 129u << rates << 64u << 4096u;
    QTest::newRow("no rate") << "x" << 0u << 2u << QList<unsigned>() << 64u << 4096u;
    QTest::newRow("a rate of 0") << "x" << 0u << 2u << QList<unsigned>{48000, 0} << 64u << 4096u;
    QTest::newRow("blocks of 0") << "x" << 0u << 2u << rates << 0u << 4096u;
    QTest::newRow("blocks of 4097") << "x" << 0u << 2u << rates << 64u << 4097u;
    QTest::newRow("no block size") << "x" << 0u << 2u << rates << 128u << 127u;
}

void tst_ApiVirtual::plug_refuses()
{
    QFETCH(QString, name);
    QFETCH(unsigned, inputs);
    QFETCH(unsigned, outputs);
    QFETCH(QList<unsigned>, rates);
    QFETCH(unsigned, least);
    QFETCH(unsigned, most);
    VirtualApi api(Pacing::RealTime);
    QVERIFY(!api.plug({.name = name,
                       .inputChannels = inputs,
                       .outputChannels = outputs,
                       .sampleRates = rates,
                       .minBufferFrames = least,
                       .maxBufferFrames = most}));
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.devices().isEmpty());
}

void tst_ApiVirtual::plug_changesADevice_butNotAnOpenOne()
{
    const LogCapture log;
    VirtualSession session(Pacing::FreeWheel, 1);
    QVERIFY(!session.api->plug({.name = "Speaker", .outputChannels = 8}));
    session.engine.deactivate(UserStopAction);
    QVERIFY(session.api->plug({.name = "Speaker", .outputChannels = 8}));
    const Device *device = session.api->devices().first();
    QCOMPARE(device->numOutputChannels(), 2u);
    session.api->updateDeviceList();
    QCOMPARE(session.api->devices().size(), 1);
    QVERIFY(session.api->devices().first() == device);
    QCOMPARE(device->numOutputChannels(), 8u);
}

void tst_ApiVirtual::unplug_takesTheDeviceOutOfTheList()
{
    const LogCapture log;
    VirtualApi api(Pacing::RealTime);
    QVERIFY(api.plug({.name = "A", .outputChannels = 2}));
    QVERIFY(api.plug({.name = "B", .outputChannels = 2}));
    api.updateDeviceList();
    Device *device = api.devices().first();
    QVERIFY(api.unplug("A"));
    QVERIFY(!api.unplug("A"));
    QVERIFY(!api.unplug("C"));
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QCOMPARE(api.devices().size(), 1);
    QVERIFY(!device->isListed());
    QVERIFY(api.plug({.name = "A", .outputChannels = 2}));
    api.updateDeviceList();
    QVERIFY(api.devices().contains(device));
    QVERIFY(device->isListed());
}

void tst_ApiVirtual::defaultDevice_isTheFlaggedOne()
{
    const LogCapture log;
    VirtualApi api(Pacing::RealTime);
    api.plug({.name = "A", .inputChannels = 1, .outputChannels = 2});
    api.plug({.name = "B", .inputChannels = 1, .outputChannels = 2, .defaultOutput = true});
    api.plug({.name = "C", .inputChannels = 1, .defaultInput = true});
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(DeviceKind::Output)->name(), QString("B"));
    QCOMPARE(api.defaultDevice(DeviceKind::Input)->name(), QString("C"));
}

void tst_ApiVirtual::open_refuses()
{
    const LogCapture log;
    VirtualApi api(Pacing::RealTime);
    VirtualApi other(Pacing::RealTime);
    for (VirtualApi *each : {&api, &other}) {
        each->plug({.name = "A", .inputChannels = 1, .outputChannels = 2});
        each->updateDeviceList();
    }
    Device *device = api.devices().first();
    QVERIFY(!api.open(nullptr, nullptr, 48000));
    QVERIFY(!api.open(device, nullptr, 0));
    QVERIFY(!api.open(other.devices().first(), nullptr, 48000));
    QVERIFY(!api.isOpen());
    QVERIFY(!api.start());
    api.setFailing("A", true);
    QVERIFY(!api.open(device, nullptr, 48000));
    api.setFailing("A", false);
    QVERIFY(!api.setFailing("B", true));
    QVERIFY(api.open(device, device, 48000));
    QVERIFY(api.isOpen() && !api.isRunning());
    QVERIFY(api.close());
    QVERIFY(!api.isOpen());
    QVERIFY(api.stop());
}

void tst_ApiVirtual::blockTimes_neverDrift()
{
    constexpr quint64 day = 24 * 3600;
    for (const unsigned rate : {44100u, 48000u, 96000u, 11025u}) {
        const FrameClock clock{rate};
        QCOMPARE(clock.nanoseconds(0), qint64(0));
        QCOMPARE(clock.nanoseconds(rate), qint64(1000000000));
        QCOMPARE(clock.nanoseconds(600 * quint64(rate)), qint64(600) * 1000000000);
        QCOMPARE(clock.nanoseconds(365 * day * rate), qint64(365 * day) * 1000000000);
    }
    QCOMPARE(FrameClock{44100}.nanoseconds(1), qint64(22675));
    QCOMPARE(FrameClock{44100}.nanoseconds(44101), qint64(1000022675));
}

void tst_ApiVirtual::realTime_keepsItsPace()
{
    const LogCapture log;
    VirtualSession session(Pacing::RealTime, 24000);
    QVERIFY(session.add(48000, 2, 96000, 1));
    QElapsedTimer watch;
    watch.start();
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.finish());
    // Never early: half a second of frames takes half a second, less the last block.
    QVERIFY(watch.nsecsElapsed() >= 500000000 - 2 * FrameClock{48000}.nanoseconds(256));
    const VirtualApi::Statistics statistics = session.api->statistics();
    QVERIFY(statistics.blocks >= 24000 / 256);
    QVERIFY(statistics.lateBlocks <= statistics.blocks);
    QVERIFY(statistics.worstDelay >= 0);
    session.engine.deactivate(UserStopAction);
}

void tst_ApiVirtual::stop_wakesALongBlock()
{
    const LogCapture log;
    // A block lasts 68 minutes: the second one is far away.
    VirtualSession session(Pacing::RealTime, 1, 2, 0, 1, 4096);
    QVERIFY(session.api->start());
    QTRY_COMPARE(session.api->statistics().blocks, quint64(1));
    QVERIFY(session.api->stop());
    QVERIFY(!session.api->isRunning());
    QVERIFY(session.api->isOpen());
}

void tst_ApiVirtual::stop_fromTheHandler_doesNotWait()
{
    const LogCapture log;
    VirtualSession session(Pacing::RealTime, 1);
    std::atomic<int> calls{0};
    session.api->setOutputHandler([&](const float *, unsigned, unsigned, quint64) {
        ++calls;
        session.api->stop();
    });
    QVERIFY(session.api->start());
    QTRY_COMPARE(calls.load(), 1);
    QTRY_VERIFY(!session.api->isRunning());
    QVERIFY(session.api->stop());
    QCOMPARE(calls.load(), 1);
}

void tst_ApiVirtual::start_startsAgain()
{
    const LogCapture log;
    VirtualSession session(Pacing::RealTime, 1);
    std::atomic<quint64> last{0};
    std::atomic<int> starts{0};
    session.api->setOutputHandler([&](const float *, unsigned, unsigned, quint64 first) {
        starts += first == 0;
        last = first;
    });
    for (int i = 1; i <= 3; ++i) {
        QVERIFY(session.api->start());
        QVERIFY(session.api->start());
        QTRY_VERIFY(last > 0);
        QVERIFY(session.api->stop());
        QCOMPARE(starts.load(), i);
        last = 0;
    }
}

void tst_ApiVirtual::freeWheel_waits_untilSourcesAreStarted()
{
    const LogCapture log;
    VirtualSession session(Pacing::FreeWheel, 48000);
    QVERIFY(session.add(48000, 2, 96000, 1));
    QTRY_COMPARE(session.api->statistics().blocks, quint64(1));
    QVERIFY(session.api->isRunning());
    QCOMPARE(session.engine.time(), 0.0);
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.finish());
    session.engine.deactivate(UserStopAction);
    QCOMPARE(session.kept.front(), noiseSample(1, 0, 0));
}

void tst_ApiVirtual::wakeMix_endsAWait_forWhichNothingIsReady()
{
    constexpr int tooLong = 60000; // ms
    Engine engine(nullptr);
    std::atomic<int> answer{-1};
    QSemaphore ended;
    std::thread backend([&] {
        aligned_vector<float, 16> input(256);
        aligned_vector<float, 16> output(256);
        answer = engine.mixWhenReady(input, output, 256, 0.0, tooLong);
        ended.release();
    });
    // Again and again: the wait may not have begun.
    const QDeadlineTimer patience(10000);
    bool hasEnded = false;
    do {
        engine.wakeMix();
        hasEnded = ended.tryAcquire(1, 1);
    } while (!hasEnded && !patience.hasExpired());
    backend.join();
    QVERIFY(hasEnded);
    QCOMPARE(answer.load(), int(Engine::BlockNotReady));
}

void tst_ApiVirtual::bufferedFrames_and_freeFrames_tellTheRings()
{
    const LogCapture log;
    VirtualSession session(Pacing::RealTime, 1, 2, 0, 48000, 4096);
    NoiseSource *source = session.add(48000, 2, 480000, 1);
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    QVERIFY(source && session.engine.addSink(sink));
    QCOMPARE(source->bufferedFrames(), qint64(0));
    QCOMPARE(sink->freeFrames(), qint64(0));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(source->bufferedFrames() > 0);
    QTRY_VERIFY(sink->freeFrames() > 0);
    QTRY_VERIFY(source->bufferedFrames() >= 4 * 48000);
    QTRY_VERIFY(sink->freeFrames() >= 4 * 48000);
    session.engine.deactivate(UserStopAction);
}

void tst_ApiVirtual::unplug_endsPlayback_asFailed()
{
    const LogCapture log;
    VirtualSession session(Pacing::RealTime, 4096);
    session.api->plug({.name = "Other", .outputChannels = 2, .sampleRates = {48000}});
    QPointer<NoiseSource> source = session.add(48000, 2, 4800000, 1);
    QVERIFY(source);
    StopReason reason = NoReason;
    QObject::connect(&session.engine, &Engine::stopped, this,
                     [&reason](StopReason given) { reason = given; });
    QSignalSpy failed(&session.engine, &Engine::deviceFailed);
    QSignalSpy deactivated(&session.engine, &Engine::deactivated);
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.finish());
    QVERIFY(session.api->unplug("Speaker"));
    QVERIFY(!session.api->isRunning());
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(failed.first(), (QVariantList{true, false, "File"}));
    QCOMPARE(deactivated.count(), 1);
    QTRY_VERIFY(!source);
    QCOMPARE(reason, StopReason::DeviceFailed);
    QVERIFY(!session.engine.isActive());
    QVERIFY(!session.api->isOpen());
    // The next best device takes over.
    session.api->updateDeviceList();
    session.engine.activate();
    QVERIFY(session.engine.isActive());
    QCOMPARE(session.engine.currentDeviceName(DeviceKind::Output), QString("Other"));
}

void tst_ApiVirtual::unplug_endsRecording_asFailed()
{
    const LogCapture log;
    VirtualSession session(Pacing::FreeWheel, 1, 0, 2);
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    const QPointer<Sink> guarded(sink);
    QVERIFY(session.engine.addSink(sink));
    QSignalSpy failed(&session.engine, &Engine::deviceFailed);
    QVERIFY(session.engine.start(0.0));
    QTRY_VERIFY(sink->keptFrames > 0);
    QVERIFY(session.api->unplug("Speaker"));
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(failed.first(), (QVariantList{false, true, "File"}));
    QTRY_VERIFY(!guarded);
}

void tst_ApiVirtual::setFailing_endsPlayback_untilRepaired()
{
    const LogCapture log;
    VirtualSession session(Pacing::FreeWheel, 4096);
    QVERIFY(session.add(48000, 2, 48000000, 1));
    QSignalSpy failed(&session.engine, &Engine::deviceFailed);
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.finish());
    QVERIFY(session.api->setFailing("Speaker", true));
    QTRY_COMPARE(failed.count(), 1);
    session.api->updateDeviceList();
    QCOMPARE(session.api->devices().size(), 1);
    session.engine.activate();
    QVERIFY(!session.api->isOpen());
    session.engine.deactivate(NoReason);
    QVERIFY(session.api->setFailing("Speaker", false));
    session.engine.activate();
    QVERIFY(session.api->isOpen());
    // A second failure is reported as well.
    QVERIFY(session.add(48000, 2, 48000000, 1));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.api->setFailing("Speaker", true));
    QTRY_COMPARE(failed.count(), 2);
}

void tst_ApiVirtual::failure_isReportedOnce_forBothSides()
{
    const LogCapture log;
    VirtualApi api(Pacing::RealTime);
    api.plug({.name = "In", .inputChannels = 2});
    api.plug({.name = "Out", .outputChannels = 2});
    api.updateDeviceList();
    QSignalSpy failures(&api, &Api::deviceFailure);
    QVERIFY(api.open(api.devices().last(), api.devices().first(), 48000));
    QVERIFY(api.unplug("In"));
    QVERIFY(api.unplug("Out"));
    QCOMPARE(failures.count(), 1);
    QVERIFY(api.close());
}

void tst_ApiVirtual::handler_thatThrows_isAFailure()
{
    const LogCapture log;
    VirtualSession session(Pacing::FreeWheel, 1);
    session.api->setOutputHandler(
        [](const float *, unsigned, unsigned, quint64) { throw std::runtime_error("disk full"); });
    QVERIFY(session.add(48000, 2, 480000, 1));
    QSignalSpy failed(&session.engine, &Engine::deviceFailed);
    QVERIFY(session.engine.start(0.0));
    QTRY_COMPARE(failed.count(), 1);
    QCOMPARE(log.count(QtCriticalMsg, "QTovelMixerApiVirtual: Exception (disk full) in a device!!"),
             1);
    // To throw is to allocate.
    QCOMPARE(CallbackWatch::forgive() > 0, CallbackWatch::isOn());
}

void tst_ApiVirtual::destruction_inEveryState_data()
{
    QTest::addColumn<int>("pacing");
    QTest::addColumn<int>("steps");
    for (const Pacing pacing : {Pacing::RealTime, Pacing::FreeWheel}) {
        for (int steps = 0; steps <= 6; ++steps)
            QTest::addRow("%s, %d steps", pacing == Pacing::RealTime ? "real time" : "free-wheel",
                          steps)
                << int(pacing) << steps;
    }
}

void tst_ApiVirtual::destruction_inEveryState()
{
    QFETCH(int, pacing);
    QFETCH(int, steps);
    const LogCapture log;
    {
        VirtualSession session(static_cast<Pacing>(pacing), 4096, 2, 2);
        session.engine.setPauseMode(PauseSoft);
        if (steps > 0)
            QVERIFY(session.add(48000, 2, 4800000, 1));
        if (steps > 1)
            QVERIFY(session.engine.addSink(new KeepingSink(&session.engine, 44100, 2)));
        if (steps > 2)
            QVERIFY(session.engine.start(0.0));
        if (steps > 3)
            QVERIFY(session.finish());
        if (steps == 5)
            QVERIFY(session.engine.pause());
        if (steps == 6)
            QVERIFY(session.api->setFailing("Speaker", true));
    }
    {
        VirtualApi api(static_cast<Pacing>(pacing));
        api.plug({.name = "A", .outputChannels = 2});
        api.updateDeviceList();
        if (steps > 0)
            QVERIFY(api.open(api.devices().first(), nullptr, 48000));
        if (steps > 1)
            QVERIFY(api.start());
        if (steps > 2)
            QVERIFY(api.stop());
    }
}

QTEST_GUILESS_MAIN(tst_ApiVirtual)

#include "tst_api_virtual.moc"
