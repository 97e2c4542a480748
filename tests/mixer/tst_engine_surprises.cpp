// SPDX-License-Identifier: MIT
// What the headers tell because hosts do not expect it.
#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/meter/meter.h>

#include <QtCore/QSemaphore>
#include <QtTest/QTest>

#include <algorithm>
#include <atomic>

using namespace QTovelMixer;

namespace {

constexpr int block = Session::blockFrames;

/// Material that begins later than at 0.
class LateSource : public RampSource
{
public:
    using RampSource::RampSource;
    double contentStart() const override { return 3.0; }
    double contentDuration() const override { return 5.0; }
};

/// A host that writes when the test lets it.
class SlowSink : public TakeSink
{
public:
    using TakeSink::TakeSink;
    ~SlowSink() override
    {
        mayWrite.release(1000);
        stop(NoReason);
        wait();
    }
    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        writing.release();
        mayWrite.acquire();
        TakeSink::writeSamples(buffer, frames, channels, time);
        written += frames;
    }
    QSemaphore writing;
    QSemaphore mayWrite;
    std::atomic<qint64> written{0};
};

/// Material that a host changes, or takes its time to read.
class EditedSource : public RampSource
{
public:
    using RampSource::RampSource;
    ~EditedSource() override
    {
        isSlow = false;
        mayRead.release(1000);
        stop(NoReason);
        wait();
    }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        if (isSlow) {
            reading.release();
            mayRead.acquire();
        }
        std::fill_n(buffer, frames * channels, level.load());
        framesRead += frames;
        return frames;
    }
    std::atomic<float> level{1.0f};
    std::atomic<bool> isSlow{false};
    QSemaphore reading;
    QSemaphore mayRead;
};

} // namespace

class tst_EngineSurprises : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void stopAndDeactivate_emptyTheTimeline();
    void save_isRefused_afterANaturalEnd();
    void preview_isNoPlayback();
    void stopOfTheLastSource_leavesSinksRecording();
    void selectAtAnotherRate_endsEverything();
    void setMonitoring_startsNoStream();
    void mask_isLost_beyond32Outputs();
    void mask_staysOnItsRow_whenAnEarlierSourceLeaves();
    void start_movesARangeToo();
    void start_waitsOnceOnly();
    void edit_isHeard_afterTheRing_data();
    void edit_isHeard_afterTheRing();
    void defaultDevice_changesWithoutItsSignal();
    void inputMeter_isThere_withoutAnInput();
    void limits_areReplaced_bySourcesThatReachBeyond();
    void sinkStop_dropsTheRing();

private:
    std::unique_ptr<LogCapture> m_quiet;
};

void tst_EngineSurprises::stopAndDeactivate_emptyTheTimeline()
{
    Session session;
    session.engine.setLooping(true);
    const auto end = [&] {
        session.stopAll();
        return session.engine.timeline()->end();
    };
    const auto endOfDeactivation = [&] {
        session.engine.deactivate();
        return session.engine.timeline()->end();
    };
    QVERIFY(session.addRamp(48000, 20.0));
    session.engine.addSelection(1.0, 2.0);
    QVERIFY(session.engine.timeline()->hasSlices());
    QCOMPARE(end(), -1.0);
    QVERIFY(!session.engine.timeline()->hasSlices());
    QVERIFY(session.engine.isLooping());
    session.engine.setLimits(1.0, 2.0);
    QCOMPARE(endOfDeactivation(), -1.0);
}

void tst_EngineSurprises::save_isRefused_afterANaturalEnd()
{
    Session session;
    session.expectEnd(session.addRamp(48000, 0.5));
    QVERIFY(session.engine.start());
    session.run(100);
    QTRY_COMPARE(session.count("stopped"), 1);
    QVERIFY(!session.engine.isRunning());
    QVERIFY(!session.engine.save());
    QVERIFY(session.engine.stop());
    QVERIFY(session.engine.save());
    QVERIFY(session.engine.restore());
}

void tst_EngineSurprises::preview_isNoPlayback()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.engine.play(new RampSource(&session.engine, 48000, 2, 20.0)));
    QVERIFY(!session.engine.isPlaying());
    QVERIFY(session.run(2).back() > 0.0f);
    session.engine.monitorTimeout();
    session.engine.monitorTimeout();
    QVERIFY(!session.engine.stop());
    session.engine.updateDeviceList();
    QCOMPARE(session.count("updatingDeviceList"), 1);
    QVERIFY(session.engine.pause());
    QCOMPARE(session.run(2).back(), 0.0f);
    QVERIFY(!session.engine.resume());
    QCOMPARE(session.run(2).back(), 0.0f);
    QCOMPARE(session.engine.numActiveSources(), 1);
    QVERIFY(session.engine.stop(true, UserStopAction));
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineSurprises::stopOfTheLastSource_leavesSinksRecording()
{
    Session session;
    RampSource *source = session.addRamp(48000, 20.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(2);
    QVERIFY(session.engine.stop(source));
    QVERIFY(!session.engine.isRunning());
    QCOMPARE(session.engine.timeline()->end(), -1.0);
    QTRY_COMPARE(session.engine.numActiveSources(), 0);
    session.run(4);
    QTRY_VERIFY(sink->frames() >= 6 * block);
    QVERIFY(!session.engine.stop());
    QVERIFY(sink->isRunning());
    QVERIFY(session.engine.stop(true));
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineSurprises::selectAtAnotherRate_endsEverything()
{
    Session session;
    QVERIFY(session.addRamp(48000, 20.0));
    QVERIFY(session.engine.start());
    session.run(2);
    QVERIFY(
        session.engine.select(session.engine.currentDevice(DeviceKind::Output), nullptr, 96000));
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, DeviceListChanged);
    QCOMPARE(session.engine.numActiveSources(), 0);
    QCOMPARE(session.count("deviceFailed"), 0);
}

void tst_EngineSurprises::setMonitoring_startsNoStream()
{
    Session session(1, 2);
    session.engine.setMonitoring(true);
    QVERIFY(session.engine.isMonitoring());
    QVERIFY(!session.api->isRunning());
    session.engine.setStreaming(true);
    QCOMPARE(session.run(2).back(), float(2 * block - 1));
}

void tst_EngineSurprises::mask_isLost_beyond32Outputs()
{
    for (const int outputs : {32, 33}) {
        Session session(0, outputs);
        RampSource *source = session.addRamp(48000, 20.0);
        QVERIFY(session.engine.setChannelsMask(source, 0x2));
        QCOMPARE(source->channelMask(), quint64(0x2));
        QVERIFY(session.engine.start());
        QCOMPARE(session.run(1).back(), outputs == 32 ? 0.0f : float(block - 1));
        session.stopAll();
        QTRY_COMPARE(session.count("stopped"), 1);
    }
}

void tst_EngineSurprises::mask_staysOnItsRow_whenAnEarlierSourceLeaves()
{
    Session session;
    RampSource *first = session.addRamp(48000, 20.0);
    RampSource *second = session.addRamp(48000, 20.0);
    QVERIFY(session.engine.setChannelsMask(second, 0x2));
    session.engine.deleteSource(first);
    QVERIFY(session.engine.start());
    QCOMPARE(session.run(1).back(), float(block - 1));
    QVERIFY(session.engine.open(session.engine.currentDevice(DeviceKind::Output), nullptr, 48000));
    QCOMPARE(session.run(1).back(), 0.0f);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineSurprises::start_movesARangeToo()
{
    for (const double time : {0.0, 2.0}) {
        Session session;
        auto *source = new RampSource(&session.engine, 48000, 2, 20.0, Range{2.0, 3.0});
        QVERIFY(session.engine.addSource(source));
        QVERIFY(session.engine.start(time));
        QCOMPARE(session.run(2).back(), float(time * 48000) + float(2 * block - 1));
        session.stopAll();
        QTRY_COMPARE(session.count("stopped"), 1);
    }
}

// The second start has nothing to play while its read is under way, and returns all the same.
void tst_EngineSurprises::start_waitsOnceOnly()
{
    Session session;
    auto *source = new EditedSource(&session.engine, 48000, 2, 3.0);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start());
    QTRY_VERIFY(source->framesRead >= 3 * 48000);
    session.api->output.zero();
    session.runWithoutWaiting(1);
    QCOMPARE(session.api->output[0], 1.0f);

    source->isSlow = true;
    QVERIFY(session.engine.start(1.0));
    QVERIFY(source->reading.tryAcquire(1, 10000));
    session.api->output.zero();
    session.runWithoutWaiting(1);
    QCOMPARE(session.api->output[0], 0.0f);
    source->isSlow = false;
    source->mayRead.release(1000);
    QCOMPARE(session.run(1).back(), 1.0f);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineSurprises::edit_isHeard_afterTheRing_data()
{
    QTest::addColumn<bool>("isAdjusted");
    QTest::addColumn<double>("earliest"); // s
    QTest::addColumn<double>("latest");
    // A full ring lacks a piece of the size that the worker reads.
    QTest::newRow("as it is") << false << 4.9 << 8.0;
    QTest::newRow("adjusted") << true << 0.0 << 0.11;
}

void tst_EngineSurprises::edit_isHeard_afterTheRing()
{
    QFETCH(bool, isAdjusted);
    QFETCH(double, earliest);
    QFETCH(double, latest);
    Session session;
    auto *source = new EditedSource(&session.engine, 48000, 2, 60.0);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start());
    QCOMPARE(session.run(1).back(), 1.0f);
    QTRY_VERIFY2(source->framesRead >= qint64(earliest * 48000),
                 qPrintable(QString::number(source->framesRead / 48000.0)));
    source->level = 2.0f;
    if (isAdjusted) {
        source->update_lock();
        source->adjustTime(session.engine.time(), 0.1);
        source->update_unlock();
    }
    int frames = 0;
    float heard = 1.0f;
    while (heard == 1.0f && frames < 10 * 48000) {
        for (const float sample : session.run(1)) {
            if (sample != 1.0f) {
                heard = sample;
                break;
            }
            ++frames;
        }
    }
    QCOMPARE(heard, 2.0f); // without a gap
    QVERIFY2(frames >= earliest * 48000 && frames <= latest * 48000,
             qPrintable(QString::number(frames / 48000.0)));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineSurprises::defaultDevice_changesWithoutItsSignal()
{
    Session session;
    int told = 0;
    int listChanges = 0;
    connect(&session.engine, &Engine::defaultDeviceChanged, this, [&] { ++told; });
    connect(session.api, &Api::deviceListChanged, this, [&] { ++listChanges; });
    auto *before = dynamic_cast<TestDevice *>(session.engine.defaultDevice(DeviceKind::Output));
    QVERIFY(before);
    before->defaultOutput = false;
    TestDevice *other = session.api->addTestDevice("Other", 0, 2);
    other->defaultOutput = true;
    session.engine.doDeviceListUpdate();
    QCoreApplication::processEvents();
    QCOMPARE(session.engine.defaultDevice(DeviceKind::Output), other);
    QVERIFY(session.count("deviceListChanged") > 0);
    QCOMPARE(told, 0);
    QCOMPARE(listChanges, 0);
}

void tst_EngineSurprises::inputMeter_isThere_withoutAnInput()
{
    Session session(0, 2);
    QVERIFY(session.engine.inputMeter());
    QCOMPARE(session.engine.inputMeter()->numMeterChannels(), 0);
    session.engine.deactivate();
    QVERIFY(!session.engine.inputMeter());
}

void tst_EngineSurprises::limits_areReplaced_bySourcesThatReachBeyond()
{
    Session session;
    QVERIFY(session.addRamp(48000, 5.0));
    QCOMPARE(session.engine.timeline()->end(), 5.0);
    QVERIFY(session.engine.addSource(new LateSource(&session.engine, 48000, 2, 8.0)));
    QCOMPARE(session.engine.timeline()->start(), 3.0);
    QCOMPARE(session.engine.timeline()->end(), 8.0);
}

void tst_EngineSurprises::sinkStop_dropsTheRing()
{
    Session session(2, 2);
    auto *sink = new SlowSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(1);
    QVERIFY(sink->writing.tryAcquire(1, 10000));
    session.run(100);
    sink->stop(UserStopAction);
    qint64 written = -1;
    connect(
        sink, &Sink::sinkFinished, sink, [&] { written = sink->written; }, Qt::DirectConnection);
    sink->mayWrite.release(1000);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(written, qint64(block));
}

QTEST_GUILESS_MAIN(tst_EngineSurprises)
#include "tst_engine_surprises.moc"
