// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <base/trace_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/engine.h>
#include <mixer/io/sink_p.h>
#include <support/log_capture.h>
#include <support/ramp.h>
#include <support/rtguard.h>

#include "recording_sink.h"

#include <QtTest/QTest>

#include <cmath>
#include <optional>

using namespace QTovelMixer;

class tst_sink_block : public QObject
{
    Q_OBJECT

private slots:
    void init() { m_quiet.emplace(); }
    void cleanup() { m_quiet.reset(); }

    void block_isIgnored_withoutChannels();
    void block_writesATraceLine_whenNotRunning();
    void block_isDropped_whenItsWidthIsNotTheSinks();
    void block_arrivesInterleaved_withItsTime();
    void block_isHandedOverStraightFromTheRing();
    void lateBlock_isPrecededBySilence();
    void earlyBlock_isDropped();
    void gapBeyondTheRoom_fillsItAndLosesTheBlock();
    void fullRing_takesWhatFits();
    void frameOffset_writesTwoLines_data();
    void frameOffset_writesTwoLines();
    void block_keepsRealTime_onEveryWay();
    void skipTime_dropsTheLeadIn_midBlock();
    void skipTime_dropsWholeBlocksExactly();
    void skipTime_isTruncated_andNeverNegative_data();
    void skipTime_isTruncated_andNeverNegative();

private:
    std::optional<LogCapture> m_quiet; // the trace lines of the tests that do not look at them
};

void tst_sink_block::block_isIgnored_withoutChannels()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    const LogCapture log;
    sink.mixer_callback(nullptr, 0, 0);
    sink.mixer_callback(nullptr, -1, 0);
    QCOMPARE(log.count(), 0);
}

void tst_sink_block::block_writesATraceLine_whenNotRunning()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    const LogCapture log;
    deliver(sink, 2, 4096, 256);
    QCOMPARE(log.count(), 1);
    QCOMPARE(log.lines().at(0).text,
             prefix + "Sink::mixer_callback early-return not-running sink=" + hex(&sink) +
                 " mixerFrame=4096");
    QCOMPARE(log.lines().at(0).type, QtInfoMsg);
    QCOMPARE(sink.recordedTime(), 0.0);
}

void tst_sink_block::block_isDropped_whenItsWidthIsNotTheSinks()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 3, 0, 256);
    deliver(sink, 1, 0, 256);
    QCOMPARE(sink.recordedTime(), 0.0);
    deliver(sink, 2, 0, 256);
    QVERIFY(drained(sink, 256));
}

void tst_sink_block::block_arrivesInterleaved_withItsTime()
{
    ClockEngine engine;
    for (int channels : {1, 2, 5, 64}) {
        RecordingSink sink(&engine, channels, 48000);
        sink.start();
        QVERIFY(sink.waitForStart());
        qint64 frame = 0;
        for (int length : {1, 255, 256, 1024, 4096, 7, 10000}) {
            deliver(sink, channels, frame, length);
            frame += length;
        }
        QVERIFY(drained(sink, frame));
        QCOMPARE(sink.recordedTime(), double(frame) / 48000);
        for (qint64 i = 0; i < frame; ++i)
            for (int c = 0; c < channels; ++c)
                if (sink.sample(i, c) != Ramp::sample(i, c))
                    QFAIL(qPrintable(QStringLiteral("frame %1 channel %2").arg(i).arg(c)));
        qint64 position = 0;
        for (const RecordingSink::Call &call : sink.calls()) {
            QCOMPARE(call.channels, channels);
            QVERIFY(qAbs(call.time - double(position) / 48000) < 1e-9);
            QVERIFY(call.thread != QThread::currentThreadId());
            position += call.frames;
        }
    }
}

void tst_sink_block::block_isHandedOverStraightFromTheRing()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 2, 0, 100);
    QVERIFY(sink.waitUntilBlocked());
    deliver(sink, 2, 100, 10000);
    sink.releaseHost();
    QVERIFY(drained(sink, 10100));
    QList<int> frames;
    for (const RecordingSink::Call &call : sink.calls()) {
        frames << call.frames;
        QVERIFY(call.straight);
    }
    QCOMPARE(frames, (QList<int>{100, 4096, 4096, 1808}));
}

void tst_sink_block::lateBlock_isPrecededBySilence()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 2, 0, 256);
    deliver(sink, 2, 1256, 256);
    QVERIFY(drained(sink, 1512));
    QCOMPARE(sink.sample(255, 1), Ramp::sample(255, 1));
    for (qint64 i = 256; i < 1256; ++i)
        QCOMPARE(sink.sample(i, 0), 0.0f);
    QCOMPARE(sink.sample(1256, 0), Ramp::sample(1256, 0));
    QCOMPARE(sink.recordedTime(), 1512.0 / 48000);
}

void tst_sink_block::earlyBlock_isDropped()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 512);
    deliver(sink, 1, 511, 512); // overlaps by one frame: dropped whole
    deliver(sink, 1, 0, 512);
    deliver(sink, 1, 512, 8);
    QVERIFY(drained(sink, 520));
    QCOMPARE(sink.sample(519, 0), Ramp::sample(519, 0));
    QCOMPARE(sink.recordedTime(), 520.0 / 48000);
}

void tst_sink_block::gapBeyondTheRoom_fillsItAndLosesTheBlock()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 1000);
    QVERIFY(drained(sink, 1000));
    deliver(sink, 1, 1000 + 240001, 256); // one frame more than the ring holds
    QVERIFY(drained(sink, 241000));
    QCOMPARE(sink.recordedTime(), 1000.0 / 48000);
    for (qint64 i = 1000; i < 241000; ++i)
        if (sink.sample(i, 0) != 0.0f)
            QFAIL("not silent");
    deliver(sink, 1, 241257, 256); // the lost block is silence too
    QVERIFY(drained(sink, 241513));
    QCOMPARE(sink.sample(241256, 0), 0.0f);
    QCOMPARE(sink.sample(241257, 0), Ramp::sample(241257, 0));
    QCOMPARE(sink.recordedTime(), 1513.0 / 48000);
}

void tst_sink_block::fullRing_takesWhatFits()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 100);
    QVERIFY(sink.waitUntilBlocked());
    deliver(sink, 1, 100, 239000);
    deliver(sink, 1, 239100, 1000); // 900 fit
    deliver(sink, 1, 240100, 1000); // none
    QCOMPARE(sink.recordedTime(), 5.0);
    sink.releaseHost();
    QVERIFY(drained(sink, 240000));
    deliver(sink, 1, 241100, 10);
    QVERIFY(drained(sink, 241110));
    QCOMPARE(sink.sample(239999, 0), Ramp::sample(239999, 0));
    for (qint64 i = 240000; i < 241100; ++i)
        QCOMPARE(sink.sample(i, 0), 0.0f);
    QCOMPARE(sink.sample(241100, 0), Ramp::sample(241100, 0));
}

void tst_sink_block::frameOffset_writesTwoLines_data()
{
    QTest::addColumn<bool>("audio");
    QTest::addColumn<qint64>("frame");
    QTest::addColumn<QString>("trace");
    QTest::addColumn<QString>("message");
    for (bool audio : {false, true}) {
        const char *where = audio ? "on the audio thread" : "elsewhere";
        QTest::addRow("late, %s", where)
            << audio << qint64(1250)
            << "frame_offset=250 mixer_frame=1250 buffer_frame=1000 frames_in_slice=240000"
            << "Frame Offset = 250 (mixer = 1250, buffer_frame = 1000)";
        QTest::addRow("early, %s", where)
            << audio << qint64(990)
            << "frame_offset=-10 mixer_frame=990 buffer_frame=1000 frames_in_slice=240000"
            << "Frame Offset = -10 (mixer = 990, buffer_frame = 1000)";
    }
}

void tst_sink_block::frameOffset_writesTwoLines()
{
    QFETCH(bool, audio);
    QFETCH(qint64, frame);
    QFETCH(QString, trace);
    QFETCH(QString, message);
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    const LogCapture log;
    deliver(sink, 1, 0, 1000);
    QVERIFY(drained(sink, 1000));
    QCOMPARE(log.count(), 0);
    prepareTrace();
    {
        std::optional<AudioThreadMark> mark;
        if (audio)
            mark.emplace();
        deliver(sink, 1, frame, 100);
    }
    flushTrace();
    QCOMPARE(log.count(), 2);
    QCOMPARE(log.lines().at(0).text,
             prefix + "Sink::mixer_callback frame-offset sink=" + hex(&sink) + ' ' + trace);
    QCOMPARE(log.lines().at(0).type, QtInfoMsg);
    QCOMPARE(log.lines().at(1).text, message);
    QCOMPARE(log.lines().at(1).type, QtDebugMsg);
}

void tst_sink_block::block_keepsRealTime_onEveryWay()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 2, 48000);
    prepareTrace();
    const auto violations = [&sink](qint64 mixerFrame, int frames) {
        std::vector<aligned_vector<float, 16>> inputs = rampBlock(2, mixerFrame, frames);
        const AudioThreadMark mark;
        RealtimeGuard guard;
        sink.mixer_callback(inputs.data(), 2, mixerFrame);
        guard.end();
        return guard.violations();
    };
    RealtimeGuard::resetTotal();
    QVERIFY2(violations(0, 512) == 0, qPrintable(RealtimeGuard::first())); // not running
    sink.setSkipTime(600.0 / 48000);
    sink.blockHost();
    sink.start();
    QVERIFY(sink.waitForStart());
    for (qint64 frame : {0, 512, 1024, 1536, 2048, 5000, 0, 230000, 239500, 240000, 900000})
        QVERIFY2(violations(frame, 512) == 0, qPrintable(RealtimeGuard::first()));
    sink.releaseHost();
    QVERIFY(drained(sink, 240000));
    flushTrace();
}

void tst_sink_block::skipTime_dropsTheLeadIn_midBlock()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.setSkipTime(0.5);
    QCOMPARE(sink.skipTime(), 0.5);
    sink.start();
    QVERIFY(sink.waitForStart());
    for (qint64 frame = 0; frame < 26 * 1024; frame += 1024)
        deliver(sink, 1, frame, 1024);
    QVERIFY(drained(sink, 26 * 1024));
    // The dropped blocks' time, what is left of the block, its beginning's time, then the rest.
    for (qint64 i = 0; i < 23552; ++i)
        QCOMPARE(sink.sample(i, 0), 0.0f);
    for (qint64 i = 0; i < 576; ++i)
        QCOMPARE(sink.sample(23552 + i, 0), Ramp::sample(24000 + i, 0));
    for (qint64 i = 24128; i < 24576; ++i)
        QCOMPARE(sink.sample(i, 0), 0.0f);
    for (qint64 i = 24576; i < 26 * 1024; ++i)
        QCOMPARE(sink.sample(i, 0), Ramp::sample(i, 0));
}

void tst_sink_block::skipTime_dropsWholeBlocksExactly()
{
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.setSkipTime(2000.0 / 48000);
    sink.start();
    QVERIFY(sink.waitForStart());
    deliver(sink, 1, 0, 1000);
    deliver(sink, 1, 1000, 1000);
    QCOMPARE(SinkAccess::data(sink).skipFrames.load(), 0);
    QCOMPARE(sink.recordedTime(), 0.0);
    deliver(sink, 1, 2000, 1000);
    QVERIFY(drained(sink, 3000));
    QCOMPARE(sink.sample(1999, 0), 0.0f);
    QCOMPARE(sink.sample(2000, 0), Ramp::sample(2000, 0));
}

void tst_sink_block::skipTime_isTruncated_andNeverNegative_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<qint64>("frames");
    QTest::newRow("truncated") << 1.99999 / 48000 << qint64(1);
    QTest::newRow("half a second") << 0.5 << qint64(24000);
    QTest::newRow("negative") << -2.0 << qint64(0);
    QTest::newRow("not a number") << std::nan("") << qint64(0);
    QTest::newRow("infinite") << HUGE_VAL << qint64(0);
}

void tst_sink_block::skipTime_isTruncated_andNeverNegative()
{
    QFETCH(double, seconds);
    ClockEngine engine;
    RecordingSink sink(&engine, 1, 48000);
    sink.setSkipTime(seconds);
    sink.start();
    QTEST(SinkAccess::data(sink).skipFrames.load(), "frames");
}

QTEST_GUILESS_MAIN(tst_sink_block)
#include "tst_sink_block.moc"
