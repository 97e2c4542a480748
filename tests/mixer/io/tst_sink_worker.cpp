// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <base/trace_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/engine.h>
#include <mixer/io/sink_p.h>
#include <support/log_capture.h>
#include <support/ramp.h>

#include "recording_sink.h"

#include <QtTest/QTest>

#include <cmath>
#include <optional>
#include <random>
#include <thread>

using namespace QTovelMixer;

class tst_sink_worker : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_quiet.emplace(); }
    void cleanup() { m_quiet.reset(); }

    void wake_isTaken_byAWorkerWithoutFrames();
    void setTime_movesTheRecording();
    void setTime_beforeStart_placesTheTake();
    void setTime_takesZero_forTimesThatAreNotFinite();
    void setTime_waitsForTheHost();
    void shiftFrameBase_goesOnWithoutAGap();
    void conversion_givesTheSinksRate();
    void conversion_startsAfresh_afterSetTime();
    void conversion_handsOverBoundedChunks_data();
    void conversion_handsOverBoundedChunks();
    void blockingHost_neverHoldsTheMixUp();
    void throwingHost_endsTheRecording_data();
    void throwingHost_endsTheRecording();
    void audioThread_agreesWithTheHost_whileTheClockMoves();

private:
    std::optional<LogCapture> m_quiet; // the trace lines of the tests that do not look at them
};

// It sleeps then, instead of looking for frames without end.
void tst_sink_worker::wake_isTaken_byAWorkerWithoutFrames()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    SinkAccess::wake(sink);
    const auto isTaken = [&sink] {
        const QMutexLocker lock(&SinkAccess::data(sink).waitMutex);
        return !SinkAccess::data(sink).wakePending;
    };
    QTRY_VERIFY(isTaken());
}

void tst_sink_worker::setTime_movesTheRecording()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 100);
    QVERIFY(sink.waitUntilBlocked());
    deliver(sink, 1, 100, 400);
    sink.releaseHost();
    QVERIFY(drained(sink, 500));

    sink.setTime(2.0);
    QCOMPARE(SinkAccess::data(sink).frameBase.load(), qint64(96000));
    deliver(sink, 1, 95000, 100); // before the new place
    deliver(sink, 1, 96000, 100);
    QVERIFY(drained(sink, 600));
    QCOMPARE(sink.calls().last().time, 2.0);
    QCOMPARE(sink.sample(500, 0), Ramp::sample(96000, 0));
    QCOMPARE(sink.recordedTime(), 600.0 / 48000); // goes on counting
}

void tst_sink_worker::setTime_beforeStart_placesTheTake()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.setTime(100.0);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 4800000 - 512, 512);
    deliver(sink, 1, 4800000, 512);
    QVERIFY(drained(sink, 512));
    QCOMPARE(sink.calls().first().time, 100.0);
    QCOMPARE(sink.sample(0, 0), Ramp::sample(4800000, 0));
}

void tst_sink_worker::setTime_takesZero_forTimesThatAreNotFinite()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    for (double time : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300}) {
        sink.setTime(7.0);
        sink.setTime(time);
        QCOMPARE(SinkAccess::data(sink).frameBase.load(), 0);
        QCOMPARE(SinkAccess::data(sink).recordTime, 0.0);
    }
    sink.setTime(1.49999 / 48000);
    QCOMPARE(SinkAccess::data(sink).frameBase.load(), 1);
    sink.setTime(1.5 / 48000);
    QCOMPARE(SinkAccess::data(sink).frameBase.load(), 2);
}

void tst_sink_worker::setTime_waitsForTheHost()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 100);
    QVERIFY(sink.waitUntilBlocked());
    QVERIFY(sink.inHost);
    bool busy = true;
    std::thread mover([&] {
        sink.setTime(1.0);
        busy = sink.inHost;
    });
    sink.releaseHost();
    mover.join();
    QVERIFY(!busy);
    deliver(sink, 1, 48000, 10);
    QVERIFY(drained(sink, 110));
    QCOMPARE(sink.calls().last().time, 1.0);
}

void tst_sink_worker::shiftFrameBase_goesOnWithoutAGap()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 1000);
    const LogCapture log;
    SinkAccess::shiftFrameBase(sink, 192000);
    deliver(sink, 1, 193000, 1000);
    SinkAccess::shiftFrameBase(sink, -192000 - 2000);
    deliver(sink, 1, 0, 1000);
    QVERIFY(drained(sink, 3000));
    QCOMPARE(log.count(), 0);
    QCOMPARE(sink.sample(1000, 0), Ramp::sample(193000, 0));
    QCOMPARE(sink.sample(2000, 0), Ramp::sample(0, 0));
    QVERIFY(qAbs(sink.endTime() - 3000.0 / 48000) < 1e-9); // the take's time goes on
}

namespace {

constexpr double toneHz = 1000.0;

/// One second of a tone at the mixer's rate, from mixer frame `base` on.
void deliverTone(Sink &sink, qint64 base, double scale)
{
    std::vector<aligned_vector<float, 16>> inputs(2);
    for (int first = 0; first < second; first += 1000) {
        for (aligned_vector<float, 16> &input : inputs)
            input = aligned_vector<float, 16>(1000);
        for (int i = 0; i < 1000; ++i) {
            const double t = double(first + i) / second;
            inputs[0][i] = float(scale * std::sin(2 * M_PI * toneHz * t));
            inputs[1][i] = float(-0.5 * scale * std::sin(2 * M_PI * toneHz * t));
        }
        sink.mixer_callback(inputs.data(), 2, base + first);
    }
}

/// What a converter may hold back at the end, and where its filter still builds up, in frames.
constexpr int filterFrames = 256;

} // namespace

void tst_sink_worker::conversion_givesTheSinksRate()
{
    ClockEngine engine;
    for (int rate : {44100, 96000, 32000, 8000}) {
        RecordingSink sink(&engine, 2, rate);
        sink.start();
        QVERIFY(sink.waitForStart());
        deliverTone(sink, 0, 0.5);
        const qint64 least = rate - qint64(filterFrames) * std::max(rate, second) / second;
        QVERIFY(drained(sink, least));
        sink.stop(UserStopAction);
        QVERIFY(sink.wait(patience));
        QVERIFY(sink.takenFrames() <= rate);
        double worst = 0.0;
        for (qint64 i = filterFrames; i < least - filterFrames; ++i) {
            const double expected = 0.5 * std::sin(2 * M_PI * toneHz * double(i) / rate);
            worst = std::max(worst, std::abs(double(sink.sample(i, 0)) - expected));
            worst = std::max(worst, std::abs(double(sink.sample(i, 1)) + 0.5 * expected));
        }
        QVERIFY2(worst < 1e-3, qPrintable(QString::number(worst)));
        qint64 position = 0;
        for (const RecordingSink::Call &call : sink.calls()) {
            QVERIFY(qAbs(call.time - double(position) / rate) < 1e-9);
            QVERIFY(!call.straight);
            position += call.frames;
        }
        QCOMPARE(sink.recordedTime(), 1.0); // counted at the mixer's rate
    }
}

void tst_sink_worker::conversion_startsAfresh_afterSetTime()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 44100);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliverTone(sink, 0, 0.5);
    QVERIFY(drained(sink, 44100 - filterFrames));
    sink.setTime(30.0);
    const qint64 first = sink.takenFrames();
    deliverTone(sink, 30 * second, 0.25);
    QVERIFY(drained(sink, first + first));
    // The same frames come out of the same input: nothing of the first take is left inside.
    for (qint64 i = 0; i < first; ++i)
        QVERIFY(std::abs(2.0f * sink.sample(first + i, 0) - sink.sample(i, 0)) < 1e-5f);
    for (const RecordingSink::Call &call : sink.calls())
        QVERIFY(call.time < 1.0 || call.time >= 30.0);
}

void tst_sink_worker::conversion_handsOverBoundedChunks_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("most");
    QTest::newRow("44100") << 44100 << 5644; // (int)(44100 / 48000 × 4096 × 1.5)
    QTest::newRow("192000") << 192000 << 24576;
    QTest::newRow("8000") << 8000 << 1024;
}

void tst_sink_worker::conversion_handsOverBoundedChunks()
{
    QFETCH(int, rate);
    QFETCH(int, most);
    ClockEngine engine;
    RecordingSink sink(&engine, 2, rate);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliverTone(sink, 0, 0.5);
    QVERIFY(sink.waitUntilBlocked());
    deliverTone(sink, second, 0.5);
    sink.releaseHost();
    QVERIFY(drained(sink, 2 * rate - qint64(filterFrames) * std::max(rate, second) / second));
    for (const RecordingSink::Call &call : sink.calls())
        QVERIFY(call.frames > 0 && call.frames <= most);
}

void tst_sink_worker::blockingHost_neverHoldsTheMixUp()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 2, 0, 256);
    QVERIFY(sink.waitUntilBlocked());
    for (qint64 frame = 256; frame < 20 * second; frame += 256)
        deliver(sink, 2, frame, 256); // returns though the host does not
    QVERIFY(sink.inHost);
    sink.releaseHost();
    QVERIFY(drained(sink, 240000));
    QCOMPARE(sink.sample(200000, 1), Ramp::sample(200000, 1));
}

void tst_sink_worker::throwingHost_endsTheRecording_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QString>("what");
    QTest::newRow("standard") << 1 << "disk full";
    QTest::newRow("anything") << 2 << "unknown";
}

void tst_sink_worker::throwingHost_endsTheRecording()
{
    QFETCH(int, kind);
    QFETCH(QString, what);
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    SinkSignals heard(sink);
    const LogCapture log;
    sink.throwing = kind;
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 256);
    QVERIFY(sink.wait(patience));
    QTRY_COMPARE(heard.finished, 1);
    QCOMPARE(heard.states, 2);
    QVERIFY(!sink.isRunning());
    QCOMPARE(sink.stopReason(), WorkerFailed);
    QCOMPARE(sink.takenFrames(), 0);
    QCOMPARE(log.texts().filter("writeSamples"),
             QStringList{"QTovelMixer::writeSamples: Exception (" + what + ") in sink (" +
                         hex(&sink) + ")!!"});
}

void tst_sink_worker::audioThread_agreesWithTheHost_whileTheClockMoves()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    // Every frame must carry its own number, at the time that the host was told, or be silent.
    sink.checkAgainstTime = true;
    sink.start();
    QVERIFY(sink.waitForStart());
    QMutex updateLock;
    qint64 clock = 0;
    std::atomic<bool> done{false};
    std::thread audio([&] {
        const AudioThreadMark mark;
        std::mt19937 random(99);
        for (int block = 0; block < 4000; ++block) {
            const int length = 1 + int(random() % 1024);
            const QMutexLocker lock(&updateLock);
            deliver(sink, 2, clock, length);
            clock += length;
        }
        done = true;
    });
    std::mt19937 random(5);
    while (!done) {
        const QMutexLocker lock(&updateLock);
        if (random() % 2)
            clock += qint64(random() % 1000);
        else if (random() % 2)
            clock = qint64(random() % 1000000);
        sink.setTime(double(clock) / 48000);
    }
    audio.join();
    const qint64 before = sink.takenFrames();
    sink.setTime(double(clock) / 48000);
    deliver(sink, 2, clock, 500);
    QTRY_VERIFY(sink.takenFrames() >= before + 500);
    flushTrace();
    QCOMPARE(sink.mismatches, 0);
}

QTEST_GUILESS_MAIN(tst_sink_worker)
#include "tst_sink_worker.moc"
