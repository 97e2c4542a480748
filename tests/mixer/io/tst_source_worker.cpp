// SPDX-License-Identifier: MIT
#include "source_fixture.h"

#include <mixer/io/timeline.h>

#include <QtCore/QSemaphore>
#include <QtTest/QTest>

#include <stdexcept>
#include <thread>

namespace {

constexpr int patience = 20000; // ms, far beyond what any step takes

/// Counts a source's signals on the threads that emit them.
struct SignalCount
{
    explicit SignalCount(Source &source)
    {
        QObject::connect(
            &source, &Source::sourceFinished, &source,
            [this, &source](const SourcePointer &from) { finished += from == &source ? 1 : 1000; },
            Qt::DirectConnection);
        QObject::connect(
            &source, &Source::sourceStateChanged, &source, [this] { ++changed; },
            Qt::DirectConnection);
    }
    std::atomic<int> finished{0};
    std::atomic<int> changed{0};
};

std::vector<PlaybackState> statesOf(const RampSource &source)
{
    std::vector<PlaybackState> states;
    for (const RampSource::State &state : source.states())
        states.push_back(state.state);
    return states;
}

using States = std::vector<PlaybackState>;
using Reasons = std::vector<StopReason>;

/// The samples of the ramp's frames [first, end), two channels.
void appendRamp(std::vector<float> &samples, qint64 first, qint64 end)
{
    for (qint64 k = first; k < end; ++k) {
        samples.push_back(rampSample(k, 0));
        samples.push_back(rampSample(k, 1));
    }
}

} // namespace

class TestSourceWorker : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void run_withoutFormat_returnsAtOnce_data();
    void run_withoutFormat_returnsAtOnce();
    void run_withoutEngine_returnsAtOnce();
    void run_writesItsTraces();
    void run_announcesChunkLength_data();
    void run_announcesChunkLength();
    void run_makesRing_data();
    void run_makesRing();
    void run_readsChunksUntilTheRingIsFull();
    void run_atRatesThatCannotBeConverted_ends_data();
    void run_atRatesThatCannotBeConverted_ends();
    void run_atVeryLowRate_primes();
    void start_again_doesNothing();
    void noData_endsTheSource_data();
    void noData_endsTheSource();
    void tooMuchData_isCut();
    void exception_endsTheMaterialAndIsLoggedOnce_data();
    void exception_endsTheMaterialAndIsLoggedOnce();
    void equalRates_everyFrameArrivesOnce();
    void otherRate_everyFrameArrivesAligned_data();
    void otherRate_everyFrameArrivesAligned();
    void range_isReadFromStartToEnd();
    void slices_areReadOneAfterAnother();
    void loop_repeatsTheSlices();
    void withoutTimeline_readsOnFromSetTime();
    void pausePosition_cutsTheChunkAndPausesTheEngine();
    void fill_pausePositionBeforeTheChunk_isIgnored();
    void fill_afterPausePosition_readsNothing();
    void stop_beforeStart_endsWithoutRunning();
    void stop_fromReadSamples_keepsItsReason();
    void stop_whileHostBlocks_returnsAndEndsLater();
    void stop_winsOverTheEndOfData();
    void pause_keepState_endsQuietly();
    void pause_afterTheEnd_keepsTheEndsReason();
    void pause_soft_letsTheWorkerGoOn();
    void updateLock_holdsReadingOff();
    void updateLock_manyTimes_letsReadingGoOn();
    void prime_returnsOnceAndForAll();
    void prime_neverStarted_waitsForStart();
    void prime_whileHostBlocks_waits();
    void destruction_withFullRing();
    void destruction_whileHostBlocks();
    void destruction_afterTheEnd();
};

void TestSourceWorker::run_withoutFormat_returnsAtOnce_data()
{
    QTest::addColumn<int>("channels");
    QTest::newRow("no channels") << 0;
    QTest::newRow("negative channels") << -2;
}

void TestSourceWorker::run_withoutFormat_returnsAtOnce()
{
    QFETCH(int, channels);
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, channels, 5.0f);
    const SignalCount count(source);
    const LogCapture log;
    source.start();
    source.prime();
    QVERIFY(source.wait(patience));
    QVERIFY(!source.isRunning());
    QVERIFY(source.states().empty());
    QCOMPARE(count.finished.load(), 0);
    QVERIFY(linesWith(log, "Source::run").isEmpty());
}

void TestSourceWorker::run_withoutEngine_returnsAtOnce()
{
    RampSource source(nullptr, 48000, 2, 5.0f);
    source.start();
    source.prime();
    QVERIFY(source.wait(patience));
    QVERIFY(source.states().empty());
}

void TestSourceWorker::run_writesItsTraces()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.duration = 0.0;
    Qt::HANDLE thread = nullptr;
    source.runStarted = [&] { thread = QThread::currentThreadId(); };
    const LogCapture log;
    source.start();
    QVERIFY(source.wait(patience));
    QCOMPARE(linesWith(log, "Source::run"),
             (QStringList{
                 tracePrefix + "Source::run BEGIN source=" + address(&source) +
                     " sampleRate=44100 mixerSampleRate=48000 channels=2 thread=" + address(thread),
                 tracePrefix + "Source::run END source=" + address(&source) +
                     " stopReason=1 keepStateOnStop=false"
                     " pausePositionReached=false"}));
}

void TestSourceWorker::run_announcesChunkLength_data()
{
    QTest::addColumn<int>("sourceRate");
    QTest::addColumn<double>("milliseconds");
    QTest::newRow("equal rates") << 48000 << 4096000.0 / 48000;
    QTest::newRow("converting") << 44100 << 6687 * 1000.0 / 48000;
}

void TestSourceWorker::run_announcesChunkLength()
{
    QFETCH(int, sourceRate);
    QFETCH(double, milliseconds);
    ClockEngine engine(48000);
    RampSource source(&engine, sourceRate, 2, 5.0f);
    source.duration = 0.0;
    source.start();
    QVERIFY(source.wait(patience));
    QCOMPARE(source.runStarts, std::vector<double>{milliseconds});
}

void TestSourceWorker::run_makesRing_data()
{
    QTest::addColumn<int>("mixerRate");
    QTest::addColumn<int>("sourceRate");
    QTest::addColumn<float>("seconds");
    QTest::addColumn<qint64>("frames");
    QTest::newRow("short buffer") << 48000 << 48000 << 1.0f << qint64{240000};
    QTest::newRow("longer buffer") << 44100 << 44100 << 7.5f << qint64{330750};
    QTest::newRow("converting") << 48000 << 44100 << 5.0f << qint64{240000};
    QTest::newRow("two converted chunks") << 192000 << 1000 << 5.0f << qint64{2 * 1179648};
    QTest::newRow("low rate") << 100 << 100 << 5.0f << qint64{3 * 4096};
}

void TestSourceWorker::run_makesRing()
{
    QFETCH(int, mixerRate);
    QFETCH(int, sourceRate);
    QFETCH(float, seconds);
    ClockEngine engine(static_cast<unsigned>(mixerRate));
    RampSource source(&engine, sourceRate, 2, seconds);
    source.duration = 0.0;
    source.start();
    QVERIFY(source.wait(patience));
    QTEST(source.record().ring.load()->capacity(), "frames");
}

void TestSourceWorker::run_readsChunksUntilTheRingIsFull()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.start();
    // The last chunk begins with more than 4096 of the 240000 frames free.
    QTRY_COMPARE_WITH_TIMEOUT(readyFrames(source), qint64{58 * 4096}, patience);
    const std::vector<RampSource::Read> reads = source.reads();
    QCOMPARE(reads.size(), size_t{58});
    for (size_t i = 0; i < reads.size(); ++i) {
        QCOMPARE(reads[i].frames, 4096);
        QCOMPARE(reads[i].channels, 2);
        QCOMPARE(reads[i].time, static_cast<double>(i * 4096) / 48000);
    }
    QVERIFY(source.isRunning());
    QVERIFY(!source.isFinished());
}

void TestSourceWorker::run_atRatesThatCannotBeConverted_ends_data()
{
    QTest::addColumn<int>("mixerRate");
    QTest::addColumn<int>("sourceRate");
    QTest::newRow("no source rate") << 48000 << 0;
    QTest::newRow("no mixer rate") << 0 << 48000;
    QTest::newRow("neither") << 0 << 0;
    QTest::newRow("too far apart") << 10 << 48000;
}

void TestSourceWorker::run_atRatesThatCannotBeConverted_ends()
{
    QFETCH(int, mixerRate);
    QFETCH(int, sourceRate);
    ClockEngine engine(static_cast<unsigned>(mixerRate));
    RampSource source(&engine, sourceRate, 2, 5.0f);
    const SignalCount count(source);
    const LogCapture log;
    source.start();
    source.prime();
    QVERIFY(source.wait(patience));
    QCOMPARE(source.stopReason(), WorkerFailed);
    QCOMPARE(source.finishedWith, Reasons{WorkerFailed});
    QCOMPARE(count.finished.load(), 1);
    const QString told = QString("Cannot play 2 channels of %1 Hz at %2 Hz");
    QCOMPARE(linesWith(log, told.arg(sourceRate).arg(mixerRate)).size(), 1);
    QVERIFY(source.reads().empty());
}

void TestSourceWorker::run_atVeryLowRate_primes()
{
    ClockEngine engine(100);
    RampSource source(&engine, 100, 2, 5.0f);
    source.duration = 1000.0;
    source.start();
    source.prime();
    QVERIFY(readyFrames(source) >= 4096);
}

void TestSourceWorker::start_again_doesNothing()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 0.0;
    source.start();
    QVERIFY(source.wait(patience));
    source.start(QThread::HighPriority);
    QVERIFY(source.wait(patience));
    QCOMPARE(source.runStarts.size(), size_t{1});
}

void TestSourceWorker::noData_endsTheSource_data()
{
    QTest::addColumn<int>("answer");
    QTest::newRow("nothing") << 0;
    QTest::newRow("an error") << -1;
    QTest::newRow("far below zero") << std::numeric_limits<int>::min();
}

void TestSourceWorker::noData_endsTheSource()
{
    QFETCH(int, answer);
    for (const int rate : {48000, 44100}) {
        ClockEngine engine(48000);
        RampSource source(&engine, rate, 2, 5.0f);
        source.material = [answer](float *, int, int, double) { return answer; };
        const SignalCount count(source);
        source.start();
        source.prime();
        QVERIFY(source.wait(patience));
        QCOMPARE(source.stopReason(), AudioFinished);
        QCOMPARE(source.finishedWith, Reasons{AudioFinished});
        QCOMPARE(statesOf(source), (States{Playing, Stopped}));
        QCOMPARE(count.changed.load(), 2);
        QCOMPARE(count.finished.load(), 1);
        QVERIFY(!source.isRunning());
        QVERIFY(source.isFinished());
    }
}

void TestSourceWorker::tooMuchData_isCut()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.material = [&](float *buffer, int frames, int channels, double time) {
        const int written = source.ramp(buffer, frames, channels, time);
        return written > 0 ? written + 1000 : 0;
    };
    source.duration = 4096 * 3 / 48000.0;
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 0, 4096 * 3);
    QCOMPARE(takeAll(source), expected);
}

void TestSourceWorker::exception_endsTheMaterialAndIsLoggedOnce_data()
{
    QTest::addColumn<bool>("standard");
    QTest::addColumn<QString>("text");
    QTest::newRow("standard") << true << "(disk gone)";
    QTest::newRow("anything") << false << "(unknown)";
}

void TestSourceWorker::exception_endsTheMaterialAndIsLoggedOnce()
{
    QFETCH(bool, standard);
    QFETCH(QString, text);
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.material = [&, standard](float *buffer, int frames, int channels, double time) {
        if (time == 0.0)
            return source.ramp(buffer, frames, channels, time);
        if (standard)
            throw std::runtime_error("disk gone");
        throw 5;
    };
    const LogCapture log;
    source.start();
    QTRY_VERIFY_WITH_TIMEOUT(source.reads().size() >= 3, patience);
    QVERIFY(source.isRunning()); // a chunk is still to be played
    QCOMPARE(takeAll(source).size(), size_t{4096 * 2});
    QCOMPARE(source.finishedWith, Reasons{WorkerFailed});
    QCOMPARE(linesWith(log, "QTovelMixer::readSamples: Exception " + text + " in source (" +
                                address(&source) + ")!!")
                 .size(),
             1);
}

void TestSourceWorker::equalRates_everyFrameArrivesOnce()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 12.0; // longer than the ring
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 0, 12 * 48000);
    QVERIFY(takeAll(source) == expected);
    QCOMPARE(source.stopReason(), AudioFinished);
}

void TestSourceWorker::otherRate_everyFrameArrivesAligned_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("44100") << 44100;
    QTest::newRow("96000") << 96000;
    QTest::newRow("8000") << 8000;
}

void TestSourceWorker::otherRate_everyFrameArrivesAligned()
{
    QFETCH(int, rate);
    ClockEngine engine(48000);
    RampSource source(&engine, rate, 2, 5.0f);
    source.duration = 3.0;
    source.start();
    const std::vector<float> taken = takeAll(source);
    const qint64 frames = static_cast<qint64>(taken.size()) / 2;
    const double ratio = rate / 48000.0;
    QVERIFY(frames <= 3 * 48000);
    QVERIFY(static_cast<double>(frames) * ratio >= 3 * rate - 150); // what the filter withholds
    for (qint64 i = 0; i < frames; ++i) {
        const double at = static_cast<double>(i) * ratio;
        if (at < 150.0)
            continue; // the filter still sees the silence before the beginning
        for (int c = 0; c < 2; ++c)
            QVERIFY(std::abs(taken[static_cast<size_t>(2 * i + c)] - (2.0 * at + c)) < 0.5);
    }
}

void TestSourceWorker::range_isReadFromStartToEnd()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, Range{1.0, 1.5}, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    source.setTimeline(&timeline);
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 48000, 72000);
    QVERIFY(takeAll(source) == expected);
    QCOMPARE(source.reads().back().frames, 24000 - 5 * 4096);
    QCOMPARE(source.stopReason(), AudioFinished);
}

void TestSourceWorker::slices_areReadOneAfterAnother()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(1.0, 9.0);
    timeline.addSlice(2.0, 2.5);
    timeline.addSlice(4.0, 4.25);
    timeline.addSlice(8.5, 20.0);
    source.setTimeline(&timeline);
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 2 * 48000, 2 * 48000 + 24000);
    appendRamp(expected, 4 * 48000, 4 * 48000 + 12000);
    appendRamp(expected, 8 * 48000 + 24000, 9 * 48000);
    QVERIFY(takeAll(source) == expected);
    QCOMPARE(source.stopReason(), AudioFinished);
}

void TestSourceWorker::loop_repeatsTheSlices()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    timeline.addSlice(1.0, 1.5);
    timeline.addSlice(5.0, 5.75);
    timeline.addSlice(9.0, 9.1);
    timeline.setLooping(true);
    source.setTimeline(&timeline);
    source.start();
    std::vector<float> expected;
    for (int passes = 0; passes < 7; ++passes) {
        appendRamp(expected, 48000, 72000);
        appendRamp(expected, 5 * 48000, 5 * 48000 + 36000);
        appendRamp(expected, 9 * 48000, 9 * 48000 + 4800);
    }
    std::vector<float> taken = takeAll(source, expected.size());
    QVERIFY(taken.size() >= expected.size());
    taken.resize(expected.size());
    QVERIFY(taken == expected);
    QVERIFY(source.isRunning());
    source.stop(UserStopAction);
    QVERIFY(source.wait(patience));
}

void TestSourceWorker::withoutTimeline_readsOnFromSetTime()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 4.0;
    source.setTime(3.5);
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 3 * 48000 + 24000, 4 * 48000);
    QVERIFY(takeAll(source) == expected);
}

void TestSourceWorker::pausePosition_cutsTheChunkAndPausesTheEngine()
{
    ClockEngine engine(48000);
    int paused = 0;
    connect(&engine, &Engine::paused, this, [&paused] { ++paused; });
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    source.setTimeline(&timeline);
    source.pauseAt = 1.00001; // 48000.48 frames
    const SignalCount count(source);
    const LogCapture log;
    source.start();
    std::vector<float> expected;
    appendRamp(expected, 0, 48000);
    QVERIFY(takeAll(source) == expected);
    QCOMPARE(source.reads().back().frames, 48000 - 11 * 4096);
    QCOMPARE(source.stopReason(), PausePositionReached);
    QCOMPARE(source.finishedWith, Reasons{PausePositionReached});
    QCOMPARE(statesOf(source), (States{Playing, Stopped}));
    QCOMPARE(count.finished.load(), 1);
    QCOMPARE(linesWith(log, "stopReason=2 keepStateOnStop=false pausePositionReached=true").size(),
             1);
    QCOMPARE(paused, 0); // posted to the engine's thread
    QTRY_COMPARE_WITH_TIMEOUT(paused, 1, patience);
    QCOMPARE(EngineAccess::shipped(engine).holdCount.load(), 1);
    engine.setFrame(5 * 48000);
    QCOMPARE(source.time(false), 1.00001);
}

void TestSourceWorker::fill_pausePositionBeforeTheChunk_isIgnored()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.pauseAt = 1.0;
    std::vector<float> buffer(4096 * 2);
    QCOMPARE(source.fill_production_buffer(buffer.data(), 4096, 48000, 2, 1.1), 4096);
    QVERIFY(!source.record().pausePositionReached);
    // At its very end the chunk is not cut either, at its start nothing is read.
    QCOMPARE(source.fill_production_buffer(buffer.data(), 4096, 4096, 2, 0.0), 4096);
    QVERIFY(!source.record().pausePositionReached);
    const size_t reads = source.reads().size();
    QCOMPARE(source.fill_production_buffer(buffer.data(), 4096, 48000, 2, 1.0), 0);
    QVERIFY(source.record().pausePositionReached);
    QCOMPARE(source.reads().size(), reads);
}

void TestSourceWorker::fill_afterPausePosition_readsNothing()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.pauseAt = 1.0;
    std::vector<float> buffer(4096 * 2);
    QCOMPARE(source.fill_production_buffer(buffer.data(), 4096, 48000, 2, 0.95), 2400);
    QCOMPARE(source.record().pausePositionTime.load(), 1.0);
    QCOMPARE(source.fill_production_buffer(buffer.data(), 4096, 48000, 2, 0.0), 0);
    QCOMPARE(source.reads().size(), size_t{1});
}

void TestSourceWorker::stop_beforeStart_endsWithoutRunning()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    const SignalCount count(source);
    source.stop(UserStopAction);
    source.start();
    source.prime();
    QVERIFY(source.wait(patience));
    QCOMPARE(statesOf(source), (States{Playing, Stopped}));
    QVERIFY(source.runStarts.empty());
    QVERIFY(source.reads().empty());
    QCOMPARE(source.finishedWith, Reasons{UserStopAction});
    QCOMPARE(count.finished.load(), 1);
}

void TestSourceWorker::stop_fromReadSamples_keepsItsReason()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.material = [&](float *buffer, int frames, int channels, double time) {
        source.stop(DeviceListChanged);
        return source.ramp(buffer, frames, channels, time);
    };
    source.start();
    source.prime();
    QVERIFY(source.wait(patience));
    QCOMPARE(source.reads().size(), size_t{1});
    QCOMPARE(source.finishedWith, Reasons{DeviceListChanged});
}

void TestSourceWorker::stop_whileHostBlocks_returnsAndEndsLater()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    QSemaphore entered;
    QSemaphore gate;
    source.material = [&](float *, int, int, double) {
        entered.release();
        gate.acquire();
        return 0;
    };
    source.start();
    QVERIFY(entered.tryAcquire(1, patience));
    source.stop(DeviceFailed);
    QVERIFY(source.isRunning());
    gate.release();
    QVERIFY(source.wait(patience));
    QCOMPARE(source.finishedWith, Reasons{DeviceFailed});
}

void TestSourceWorker::stop_winsOverTheEndOfData()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    std::atomic<bool> dry{false};
    source.material = [&](float *buffer, int frames, int channels, double time) {
        return dry ? 0 : source.ramp(buffer, frames, channels, time);
    };
    source.start();
    source.prime();
    source.update_lock();
    dry = true;
    source.stop(DeviceFailed);
    source.setTime(0.0);
    source.update_unlock();
    QVERIFY(source.wait(patience));
    QCOMPARE(source.finishedWith, Reasons{DeviceFailed});
}

void TestSourceWorker::pause_keepState_endsQuietly()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    const SignalCount count(source);
    const LogCapture log;
    source.start();
    source.prime();
    source.pause(PauseKeepState);
    QVERIFY(source.wait(patience));
    QCOMPARE(source.stopReason(), UserPauseAction);
    QCOMPARE(statesOf(source), (States{Playing, Paused}));
    QVERIFY(source.finishedWith.empty());
    QCOMPARE(count.finished.load(), 1);
    QCOMPARE(count.changed.load(), 2);
    QCOMPARE(linesWith(log, "stopReason=4 keepStateOnStop=true pausePositionReached=false").size(),
             1);
}

void TestSourceWorker::pause_afterTheEnd_keepsTheEndsReason()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 0.0;
    source.start();
    QVERIFY(source.wait(patience));
    source.pause(PauseKeepState);
    QCOMPARE(source.stopReason(), AudioFinished);
    QVERIFY(!source.record().keepStateOnStop);
    QCOMPARE(statesOf(source), (States{Playing, Stopped, Paused}));
    source.stop(UserStopAction); // a caller's stop does relabel it
    QCOMPARE(source.stopReason(), UserStopAction);
}

void TestSourceWorker::pause_soft_letsTheWorkerGoOn()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.start();
    source.prime();
    Block block(2, 256);
    source.mixer_callback(block.buses(), 2, 0, nullptr);
    source.pause(PauseSoft);
    source.mixer_callback(block.buses(), 2, 256, nullptr);
    QVERIFY(block.isSilent());
    QTRY_COMPARE_WITH_TIMEOUT(readyFrames(source), qint64{58 * 4096 - 256}, patience);
    QVERIFY(source.isRunning());
    source.resume();
    source.mixer_callback(block.buses(), 2, 256, nullptr);
    QCOMPARE(block.at(0, 0), rampSample(256, 0));
    QCOMPARE(block.at(1, 255), rampSample(511, 1));
}

void TestSourceWorker::updateLock_holdsReadingOff()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 1000.0;
    source.start();
    for (int i = 0; i < 200; ++i) {
        source.update_lock();
        const size_t reads = source.reads().size();
        FrameRing *ring = source.record().ring;
        if (ring)
            ring->consume(ring->readSlice().frames);
        for (int spin = 0; spin < 50; ++spin)
            QThread::yieldCurrentThread();
        QCOMPARE(source.reads().size(), reads);
        source.update_unlock();
    }
    // No wake-up got lost: the worker fills the ring again.
    QTRY_VERIFY_WITH_TIMEOUT(readyFrames(source) >= 240000 - 2 * 4096, patience);
}

void TestSourceWorker::updateLock_manyTimes_letsReadingGoOn()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.duration = 1.0e6;
    source.start();
    source.prime();
    FrameRing &ring = *source.record().ring.load();
    for (int i = 0; i < 2000; ++i) {
        source.update_lock();
        ring.consume(ring.readSlice().frames);
        source.update_unlock();
    }
    for (int i = 0; i < 20; ++i) {
        ring.consume(ring.readSlice().frames);
        QTRY_VERIFY(ring.readSlice().frames > 0);
    }
    source.stop(UserStopAction);
    QVERIFY(source.wait(10000));
}

void TestSourceWorker::prime_returnsOnceAndForAll()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.start();
    source.prime();
    QVERIFY(readyFrames(source) > 9600 || source.isFinished());
    QVERIFY(source.record().primed);
    source.prime();
    source.stop(UserStopAction);
    QVERIFY(source.wait(patience));
    source.prime();
}

void TestSourceWorker::prime_neverStarted_waitsForStart()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    std::atomic<bool> primed{false};
    std::thread caller([&] {
        source.prime();
        primed = true;
    });
    for (int spin = 0; spin < 1000; ++spin)
        QThread::yieldCurrentThread();
    const bool early = primed;
    source.start();
    caller.join();
    QVERIFY(!early);
    QVERIFY(primed);
}

void TestSourceWorker::prime_whileHostBlocks_waits()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    QSemaphore entered;
    QSemaphore gate;
    source.material = [&](float *buffer, int frames, int channels, double time) {
        entered.release();
        gate.acquire();
        return source.ramp(buffer, frames, channels, time);
    };
    source.start();
    QVERIFY(entered.tryAcquire(1, patience));
    std::atomic<bool> primed{false};
    std::thread caller([&] {
        source.prime();
        primed = true;
    });
    for (int chunk = 0; chunk < 2; ++chunk) { // two chunks are less than 0.2 s
        gate.release();
        QVERIFY(entered.tryAcquire(1, patience));
    }
    const bool early = primed;
    gate.release(1000);
    caller.join();
    QVERIFY(!early);
}

void TestSourceWorker::destruction_withFullRing()
{
    ClockEngine engine(48000);
    auto source = std::make_unique<RampSource>(&engine, 48000, 2, 5.0f);
    source->leaveToBase = true;
    source->start();
    QTRY_COMPARE_WITH_TIMEOUT(readyFrames(*source), qint64{58 * 4096}, patience);
    const QPointer<Source> guard(source.get());
    source.reset();
    QVERIFY(!guard);
}

void TestSourceWorker::destruction_whileHostBlocks()
{
    ClockEngine engine(48000);
    auto source = std::make_unique<RampSource>(&engine, 48000, 2, 5.0f);
    QSemaphore entered;
    QSemaphore gate;
    source->material = [&](float *, int, int, double) {
        entered.release();
        gate.acquire();
        return -1;
    };
    source->start();
    QVERIFY(entered.tryAcquire(1, patience));
    std::thread opener([&, raw = source.get()] {
        while (!raw->wasStoped())
            std::this_thread::yield();
        gate.release();
    });
    SourceAccess::endAndWait(*source);
    opener.join();
    QVERIFY(static_cast<QThread &>(*source).isFinished());
    source.reset();
}

void TestSourceWorker::destruction_afterTheEnd()
{
    ClockEngine engine(48000);
    auto source = std::make_unique<RampSource>(&engine, 44100, 2, 5.0f);
    source->duration = 0.0;
    source->start();
    QVERIFY(source->wait(patience));
    source.reset();
    QVERIFY(!source);
}

QTEST_GUILESS_MAIN(TestSourceWorker)
#include "tst_source_worker.moc"
