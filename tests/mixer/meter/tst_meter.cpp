// SPDX-License-Identifier: MIT
// A meter's thread, its transport and what it is fed.
#include "meter_fixture.h"

#include <support/log_capture.h>
#include <support/rtguard.h>

#include <QtCore/QBasicTimer>
#include <QtCore/QMutex>
#include <QtCore/QSemaphore>
#include <QtTest/QTest>

#include <atomic>
#include <thread>
#include <utility>

using namespace QTovelMixer;

namespace {

constexpr int patience = 20000; // ms

/// Remembers the blocks it measured; with a gate, measures one for each release.
class RecordingMeter : public Meter
{
public:
    explicit RecordingMeter(int channels, int sampleRate = 48000)
        : Meter(Type::Output, sampleRate, channels, MeterConfig(), nullptr)
    {}

    void updateStatistics(const float *samples, int count) override
    {
        {
            const QMutexLocker locker(&mutex);
            firstSamples.push_back(numMeterChannels() > 0 && count > 0 ? samples[0] : 0.0f);
            lastCount = count;
        }
        entered.release();
        if (gated && !gate.tryAcquire(1, patience))
            qFatal("nobody opened the gate");
        Meter::updateStatistics(samples, count);
    }

    std::vector<float> measured() const
    {
        const QMutexLocker locker(&mutex);
        return firstSamples;
    }

    std::atomic<bool> gated{false};
    QSemaphore gate;
    QSemaphore entered;
    std::atomic<int> lastCount{0};

private:
    mutable QMutex mutex;
    std::vector<float> firstSamples;
};

} // namespace

class tst_Meter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void construction_runsItsThread_data();
    void construction_runsItsThread();
    void start_announcesOnce();
    void start_byName();
    void start_fromAnyThread();
    void tick_measuresBlocksOf42ms_data();
    void tick_measuresBlocksOf42ms();
    void tick_otherTimer_isIgnored();
    void tick_withoutInput_measuresNothing();
    void values_reachTheHost();
    void fill_idle_storesNothing();
    void fill_full_dropsTheWholeBlock();
    void fill_largerThanTheRing_isDropped();
    void fill_empty_isAccepted();
    void fill_isRealtime();
    void fill_besideStartAndStop();
    void fill_leftovers_areMeasuredAfterRestart();
    void stop_forced_announcesOnce();
    void stop_forced_idle_stillAnnounces();
    void stop_gently_idle_isForgottenByStart();
    void stop_gently_fallsSilentFirst();
    void stop_gently_countsMeasurements();
    void stop_gently_allDisabled_endsAtOnce();
    void stop_gently_noChannels_endsAtOnce();
    void stop_gently_cancelledByStart();
};

void tst_Meter::construction_runsItsThread_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("name");
    QTest::newRow("input") << int(Type::Input) << "QTovelMixer::Meter::Meter(input)";
    QTest::newRow("output") << int(Type::Output) << "QTovelMixer::Meter::Meter(output)";
}

void tst_Meter::construction_runsItsThread()
{
    QFETCH(int, type);
    LogCapture log;
    const MeterPointer<> meter(new Meter(Type(type), 48000, 2, MeterConfig(), nullptr));
    QVERIFY(meter->thread() != QThread::currentThread());
    QVERIFY(meter->thread()->isRunning());
    QTEST(meter->thread()->objectName(), "name");
    QVERIFY(!meter->parent());
    QVERIFY(!meter->isRunning());
    QCOMPARE(log.count(), 0);
}

void tst_Meter::start_announcesOnce()
{
    LogCapture log;
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->isRunning());
    meter->start();
    QVERIFY(meter->isRunning());
    emitted.collect();
    QCOMPARE(emitted.started, 1);
    QCOMPARE(emitted.stopped, 0);
    QCOMPARE(emitted.changed, 0);
    QCOMPARE(log.texts(QtInfoMsg), QStringList{"Starting \"input\" meter"});
}

void tst_Meter::start_byName()
{
    const MeterPointer<> meter = makeMeter(2);
    QVERIFY(QMetaObject::invokeMethod(meter.get(), "start", Qt::BlockingQueuedConnection));
    QVERIFY(meter->isRunning());
    QVERIFY(QMetaObject::invokeMethod(meter.get(), "stop", Qt::BlockingQueuedConnection,
                                      Q_ARG(bool, true)));
    QVERIFY(!meter->isRunning());
    QVERIFY(QMetaObject::invokeMethod(meter.get(), "start", Qt::BlockingQueuedConnection));
    QVERIFY(QMetaObject::invokeMethod(meter.get(), "stop", Qt::BlockingQueuedConnection));
    QTRY_VERIFY(!meter->isRunning());
}

void tst_Meter::start_fromAnyThread()
{
    const MeterPointer<> meter = makeMeter(2);
    std::thread([&] { meter->start(); }).join();
    QVERIFY(meter->isRunning());
    // On the meter's own thread the call must not wait for itself.
    QMetaObject::invokeMethod(
        meter.get(), [&] { meter->stop(true); }, Qt::BlockingQueuedConnection);
    QVERIFY(!meter->isRunning());
    QMetaObject::invokeMethod(
        meter.get(), [&] { meter->start(); }, Qt::BlockingQueuedConnection);
    QVERIFY(meter->isRunning());
}

void tst_Meter::tick_measuresBlocksOf42ms_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("expected");
    QTest::newRow("48000") << 48000 << 2016;
    QTest::newRow("44100") << 44100 << 1852;
    QTest::newRow("96000") << 96000 << 4032;
    QTest::newRow("8000") << 8000 << 336;
}

void tst_Meter::tick_measuresBlocksOf42ms()
{
    QFETCH(int, rate);
    QFETCH(int, expected);
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2, rate));
    meter->start();
    QVERIFY(meter->fill(blockOf(2, 0.25f, expected - 1)));
    QVERIFY(meter->fill(blockOf(2, 0.5f, expected)));
    QVERIFY(meter->fill(blockOf(2, 0.75f, 1)));
    QVERIFY(meter->entered.tryAcquire(2, patience));
    QCOMPARE(meter->lastCount, expected);
    QCOMPARE(meter->measured(), (std::vector<float>{0.25f, 0.5f}));
}

void tst_Meter::tick_otherTimer_isIgnored()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(1));
    meter->start();
    meter->stop(true); // from now on each tick would measure silence
    QMetaObject::invokeMethod(
        meter.get(),
        [&] {
            QTimerEvent event(-1);
            QCoreApplication::sendEvent(meter.get(), &event);
        },
        Qt::BlockingQueuedConnection);
    QVERIFY(meter->measured().empty());
}

void tst_Meter::tick_withoutInput_measuresNothing()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(1));
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->fill(blockOf(1, 0.5f, blockFrames - 1))); // one frame short
    // Ticks pass by while a whole block would be measured within two of them.
    QBasicTimer ticks;
    class Counter : public QObject
    {
    public:
        int count = 0;

    protected:
        void timerEvent(QTimerEvent *) override { ++count; }
    } counter;
    ticks.start(21, Qt::PreciseTimer, &counter);
    QTRY_VERIFY(counter.count >= 5);
    QVERIFY(meter->measured().empty());
    QVERIFY(meter->fill(blockOf(1, 0.75f, 1)));
    QVERIFY(meter->entered.tryAcquire(1, patience));
    QTRY_COMPARE(emitted.changed, 1);
}

void tst_Meter::values_reachTheHost()
{
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->fill(blockOf(2, 1.0f)));
    QTRY_COMPARE(emitted.changed, 1);
    MeterValues values;
    QVERIFY(meter->getValues(values));
    QCOMPARE(values.numChannels(), 2);
    QCOMPARE(values.level(1), 0.0);
    QCOMPARE(values.hold_level(0), 0.0);
}

void tst_Meter::fill_idle_storesNothing()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(1));
    for (int i = 0; i < 100; ++i)
        QVERIFY(meter->fill(blockOf(1, 0.875f)));
    meter->start();
    QVERIFY(meter->fill(blockOf(1, 0.25f)));
    QVERIFY(meter->entered.tryAcquire(1, patience));
    QCOMPARE(meter->measured(), std::vector<float>{0.25f});
}

void tst_Meter::fill_full_dropsTheWholeBlock()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    meter->gated = true;
    meter->start();
    for (int i = 1; i <= 15; ++i)
        QVERIFY(meter->fill(blockOf(2, float(i) / 16.0f)));
    // The block that is being measured is not released yet: one more fits, whatever its cut.
    QVERIFY(meter->entered.tryAcquire(1, patience));
    QVERIFY(meter->fill(blockOf(2, 1.0f, blockFrames - 1)));
    QVERIFY(!meter->fill(blockOf(2, 3.0f, 2)));
    QVERIFY(meter->fill(blockOf(2, 1.0f, 1)));
    QVERIFY(!meter->fill(blockOf(2, 3.0f, 1)));
    QVERIFY(meter->fill(blockOf(2, 3.0f, 0)));
    meter->gated = false;
    meter->gate.release();
    QVERIFY(meter->entered.tryAcquire(15, patience));
    QVERIFY(meter->fill(blockOf(2, 0.0f)));
    QVERIFY(meter->entered.tryAcquire(1, patience));
    std::vector<float> expected;
    for (int i = 1; i <= 16; ++i)
        expected.push_back(float(i) / 16.0f);
    expected.push_back(0.0f);
    QCOMPARE(meter->measured(), expected);
}

void tst_Meter::fill_largerThanTheRing_isDropped()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    meter->start();
    QVERIFY(!meter->fill(blockOf(2, 0.5f, 16 * blockFrames + 1)));
    QVERIFY(meter->fill(blockOf(2, 0.25f, 16 * blockFrames)));
    QVERIFY(meter->entered.tryAcquire(16, patience));
    QCOMPARE(meter->measured(), std::vector<float>(16, 0.25f));
}

void tst_Meter::fill_empty_isAccepted()
{
    const MeterPointer<> meter = makeMeter(2);
    const MeterPointer<> mute = makeMeter(0);
    for (Meter *m : {meter.get(), mute.get()}) {
        QVERIFY(m->fill(Block()));
        m->start();
        QVERIFY(m->fill(Block()));
    }
    QVERIFY(!mute->fill(blockOf(1, 0.5f, 1)));
}

void tst_Meter::fill_isRealtime()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    static_assert(noexcept(std::declval<Meter &>().fill(std::declval<const Block &>())));
    const Block block = blockOf(2, 0.5f, 256);
    const auto violations = [&] {
        RealtimeGuard guard;
        for (int i = 0; i < 1000; ++i) // far more than the ring takes
            meter->fill(block);
        guard.end();
        return guard.violations();
    };
    QVERIFY2(violations() == 0, qPrintable(RealtimeGuard::first()));
    meter->start();
    QVERIFY2(violations() == 0, qPrintable(RealtimeGuard::first()));
    QVERIFY(!meter->measured().empty() || meter->entered.tryAcquire(1, patience));
}

void tst_Meter::fill_besideStartAndStop()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    std::atomic<bool> done{false};
    std::thread audio([&] {
        const Block block = blockOf(2, 0.5f, 256);
        while (!done) {
            meter->fill(block);
            meter->isRunning();
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 20; ++i) {
        meter->start();
        meter->setChannelEnabled(1, i % 2 == 0);
        meter->setTruePeakEnabled(i % 3 == 0);
        meter->channelEnabled(1);
        meter->numMeterChannels();
        meter->isTruePeakEnabled();
        QVERIFY(meter->entered.tryAcquire(1, patience));
        valuesOf(*meter);
        meter->stop(i % 2 == 0);
        QVERIFY(i % 2 == 1 || !meter->isRunning());
    }
    done = true;
    audio.join();
    for (const float sample : meter->measured())
        QVERIFY(sample == 0.5f || sample == 0.0f);
}

void tst_Meter::fill_leftovers_areMeasuredAfterRestart()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(1));
    meter->gated = true;
    meter->start();
    for (const float value : {0.25f, 0.5f, 0.75f})
        QVERIFY(meter->fill(blockOf(1, value)));
    QVERIFY(meter->entered.tryAcquire(1, patience));
    // The tick that is under way ends first; the call behind it stops before the next one.
    QMetaObject::invokeMethod(
        meter.get(), [&] { meter->stop(true); }, Qt::QueuedConnection);
    meter->gated = false;
    meter->gate.release();
    QTRY_VERIFY(!meter->isRunning());
    QVERIFY(meter->measured().size() < 3u);
    QVERIFY(meter->fill(blockOf(1, 0.875f)));
    meter->start();
    QTRY_COMPARE(meter->measured(), (std::vector<float>{0.25f, 0.5f, 0.75f}));
}

void tst_Meter::stop_forced_announcesOnce()
{
    LogCapture log;
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->start();
    meter->stop(true);
    QVERIFY(!meter->isRunning());
    emitted.collect();
    QCOMPARE(emitted.started, 1);
    QCOMPARE(emitted.stopped, 1);
    QCOMPARE(log.texts(QtInfoMsg),
             (QStringList{"Starting \"input\" meter", "Stopping \"input\" meter"}));
}

void tst_Meter::stop_forced_idle_stillAnnounces()
{
    LogCapture log;
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->stop(true);
    meter->stop(true);
    emitted.collect();
    QCOMPARE(emitted.stopped, 2);
    QCOMPARE(log.count(QtInfoMsg, "Stopping \"input\" meter"), 2);
    QVERIFY(!meter->isRunning());
}

void tst_Meter::stop_gently_idle_isForgottenByStart()
{
    LogCapture log;
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->stop();
    emitted.collect();
    QCOMPARE(emitted.stopped, 0);
    QCOMPARE(log.count(), 0);
    meter->start();
    QVERIFY(meter->fill(blockOf(2, 0.5f)));
    QTRY_COMPARE(emitted.changed, 1); // peaks count again
    QVERIFY(meter->isRunning());
}

void tst_Meter::stop_gently_fallsSilentFirst()
{
    LogCapture log;
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->fill(blockOf(2, 1.0f)));
    QTRY_COMPARE(emitted.changed, 1);
    meter->stop(false);
    QVERIFY(meter->isRunning());
    emitted.collect();
    QCOMPARE(emitted.stopped, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!meter->isRunning(), patience);
    emitted.collect();
    QCOMPARE(emitted.stopped, 1);
    // 47 blocks of hold, then 35 falls from a sum of 2.0; the last one is not announced.
    QCOMPARE(meter->measured().size(), size_t(1 + 47 + 35));
    QCOMPARE(emitted.changed, 1 + 47 + 34);
    QCOMPARE(log.count(QtInfoMsg, "Stopping \"output\" meter"), 1);
    QVERIFY(linear(valuesOf(*meter).hold_level(0)) <= 0.00005);
}

void tst_Meter::stop_gently_countsMeasurements()
{
    const MeterPointer<> meter = makeMeter(1);
    MeterSignals emitted(meter.get());
    measure(*meter, {1.0f});
    meter->stop(false);
    int measurements = 0;
    while (emitted.stopped == 0 && measurements < 1000) {
        measure(*meter, {1.0f}); // forced to silence
        ++measurements;
        emitted.collect();
    }
    // 0.75^32 is 0.000100522, 0.75^33 is 0.0000754.
    QCOMPARE(measurements, 47 + 33);
    QCOMPARE(emitted.changed, 1 + 47 + 32);
    QCOMPARE(emitted.stopped, 1);
}

void tst_Meter::stop_gently_allDisabled_endsAtOnce()
{
    const MeterPointer<RecordingMeter> meter(new RecordingMeter(2));
    MeterSignals emitted(meter.get());
    meter->setChannelEnabled(0, false);
    meter->setChannelEnabled(1, false);
    meter->start();
    meter->stop(false);
    QTRY_COMPARE(emitted.stopped, 1);
    QCOMPARE(meter->measured().size(), size_t(1));
    QCOMPARE(emitted.changed, 0);
    QVERIFY(!meter->isRunning());
}

void tst_Meter::stop_gently_noChannels_endsAtOnce()
{
    const MeterPointer<> meter = makeMeter(0);
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->isRunning());
    meter->stop(false);
    QTRY_COMPARE(emitted.stopped, 1);
    QVERIFY(!meter->isRunning());
    QCOMPARE(emitted.changed, 0);
}

void tst_Meter::stop_gently_cancelledByStart()
{
    LogCapture log;
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->start();
    QVERIFY(meter->fill(blockOf(2, 1.0f)));
    QTRY_COMPARE(emitted.changed, 1);
    meter->stop(false);
    QTRY_VERIFY(emitted.changed >= 3); // silence is measured
    meter->start();
    emitted.collect();
    const int changed = emitted.changed;
    QVERIFY(meter->fill(blockOf(2, 0.5f)));
    QTRY_COMPARE(emitted.changed, changed + 1); // no silence any more
    QVERIFY(meter->isRunning());
    QVERIFY(valuesOf(*meter).level(0) > -6.1);
    QCOMPARE(emitted.started, 1);
    QCOMPARE(emitted.stopped, 0);
    QCOMPARE(log.texts(QtInfoMsg), QStringList{"Starting \"input\" meter"});
}

QTEST_GUILESS_MAIN(tst_Meter)
#include "tst_meter.moc"
