// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <mixer/io/timeline_p.h>

#include "timeline_fixture.h"

#include <QtTest/QTest>

#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

using namespace QTovelMixer;

class tst_timeline_position : public QObject
{
    Q_OBJECT

private slots:
    void time_followsTheClock_withoutChunks();
    void time_skipsGaps_withChunks();
    void time_wraps_whenLooping();
    void time_wrapsToTheNearestTick();
    void time_staysAtTheStart_whenLoopingOverNothing();
    void time_clampsAtBothEnds();
    void time_pausePosition_data();
    void time_pausePosition();
    void time_negativeTimeInsideALaterChunk_isAPosition();
    void mixer_time_invertsTime();
    void mixer_time_isBounded();
    void nextChunk_readsUpToTheSpan();
    void nextChunk_crossesChunks();
    void nextChunk_givesNothing_outside();
    void nextChunk_refusesDepthsAboveTwo();
    void nextChunk_movesOneFrameOn_atTheEndOfAChunk();
    void nextChunk_givesUp_afterThreeBoundarySteps();
    void nextChunk_readsAtLeastOneFrame();
    void nextChunk_isStable_forDegenerateArguments();
    void currentChunkEnd_mixesFramesOfReference();
    void timeToLoop_withoutChunks();
    void timeToLoop_answersTheLastChunksLength_whileLaterChunksExist();
    void timeToLoop_isZero_afterTheLastChunk();
    void adjustLoopTime_keepsThePosition();
    void adjustLoopTime_isZero_atExactlyOnePassOrWithoutAPass();
    void maxBlockDuration_endsAtTheNextJump();
    void loopWithSlices_runsForEver();
    void removingTheCurrentChunk_jumpsToTheFirst();
    void anyDouble_isSafe();
    void rememberedPosition_isForgottenByEveryEdit();
};

void tst_timeline_position::time_followsTheClock_withoutChunks()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeOf(timeline, 0.0), 10.0);
    QCOMPARE(timeOf(timeline, 4.25), 14.25);
    QCOMPARE(timeOf(timeline, 10.0), 20.0); // the end itself still answers
    QCOMPARE(timeOf(timeline, 10.01), -1.0);
    QCOMPARE(timeOf(timeline, -0.01), -1.0);
}

void tst_timeline_position::time_skipsGaps_withChunks()
{
    Timeline timeline;
    fillTimeline(timeline, 2, 12, {{2, 3}, {5, 6}});
    QCOMPARE(textOf(chunksOf(timeline)), "[0,1][3,4]");
    QCOMPARE(timeOf(timeline, 0.0), 2.0);
    QCOMPARE(timeOf(timeline, 0.75), 2.75);
    QCOMPARE(timeOf(timeline, 1.0), 5.0);
    QCOMPARE(timeOf(timeline, 1.5), 5.5); // 3.5 from the start limit
    QCOMPARE(timeOf(timeline, 2.0), -1.0);
    QCOMPARE(timeOf(timeline, 50.0), -1.0);
}

void tst_timeline_position::time_wraps_whenLooping()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    timeline.setLooping(true);
    QCOMPARE(timeOf(timeline, 9.5), 19.5);
    QCOMPARE(timeOf(timeline, 10.0), 10.0);
    QCOMPARE(timeOf(timeline, 25.5), 15.5);
    QCOMPARE(timeOf(timeline, 1000003.25), 13.25);
    QCOMPARE(timeOf(timeline, -3.0), -1.0); // the remainder keeps the sign
    QCOMPARE(timeline.time(-3.0, true, 0.0, -1.0), 10.0);
}

void tst_timeline_position::time_wrapsToTheNearestTick()
{
    Timeline timeline;
    timeline.setLimits(0.0, 1.0);
    timeline.setLooping(true);
    QCOMPARE(timeOf(timeline, 1.0 - 0.6 * tick), 191999.0 / 192000.0);
    QCOMPARE(timeOf(timeline, 1.0 - 0.4 * tick), 0.0);
    QCOMPARE(timeOf(timeline, 5.0 + 2.4 * tick), 2.0 / 192000.0);
    timeline.setLimits(0.0, 0.4 * tick); // no whole tick to wrap around
    QCOMPARE(timeOf(timeline, 3.0), 0.0);
    timeline.setLimits(0.0, 0.6 * tick); // one tick
    QCOMPARE(timeOf(timeline, 3.0), 0.0);
}

void tst_timeline_position::time_staysAtTheStart_whenLoopingOverNothing()
{
    Timeline timeline;
    timeline.setLimits(4.0, 4.0);
    timeline.setLooping(true);
    for (double mixerTime : {0.0, 0.3, 17.0, -2.0})
        QCOMPARE(timeOf(timeline, mixerTime), 4.0);
}

void tst_timeline_position::time_clampsAtBothEnds()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.time(-1.0, true, 0.0, -1.0), 10.0);
    QCOMPARE(timeline.time(11.0, true, 0.0, -1.0), 20.0);
    timeline.addSlice(12.0, 13.0);
    QCOMPARE(timeline.time(1.5, true, 0.0, -1.0), 10.0); // the chunks have run out
}

void tst_timeline_position::time_pausePosition_data()
{
    QTest::addColumn<double>("playStart");
    QTest::addColumn<double>("pausePosition");
    QTest::addColumn<double>("expected");
    // Limits (0, 10), mixer time 6.
    QTest::newRow("none") << 0.0 << -1.0 << 6.0;
    QTest::newRow("just below zero is none") << 0.0 << -1e-9 << 6.0;
    QTest::newRow("reached") << 0.0 << 4.0 << 4.0;
    QTest::newRow("not reached") << 0.0 << 8.0 << 6.0;
    QTest::newRow("started exactly there") << 4.0 << 4.0 << 4.0;
    QTest::newRow("before the play start, start not beyond") << 5.0 << 4.0 << 6.0;
    QTest::newRow("before the play start, start at the time") << 6.0 << 4.0 << 6.0;
    QTest::newRow("before the play start, start beyond") << 7.0 << 4.0 << 4.0;
    QTest::newRow("at zero") << 0.0 << 0.0 << 0.0;
}

void tst_timeline_position::time_pausePosition()
{
    QFETCH(double, playStart);
    QFETCH(double, pausePosition);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QTEST(timeline.time(6.0, false, playStart, pausePosition), "expected");
    QTEST(timeline.time(6.0, true, playStart, pausePosition), "expected");
    // A position beyond the limits is bounded before it is compared with the limits.
    QCOMPARE(timeline.time(12.0, false, 0.0, 9.0), 9.0);
}

void tst_timeline_position::time_negativeTimeInsideALaterChunk_isAPosition()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{3, 4}});
    QCOMPARE(timeOf(timeline, -1.0), 2.0); // before the chunk, but not before the material
    QCOMPARE(timeOf(timeline, -3.0), 0.0);
    QCOMPARE(timeOf(timeline, -3.5), -1.0);
}

void tst_timeline_position::mixer_time_invertsTime()
{
    Timeline timeline;
    fillTimeline(timeline, 2, 12, {{3, 4}, {6, 8}, {9, 10}});
    QCOMPARE(timeline.mixer_time(3.0), 0.0);
    QCOMPARE(timeline.mixer_time(3.5), 0.5);
    QCOMPARE(timeline.mixer_time(6.0), 1.0);
    QCOMPARE(timeline.mixer_time(7.5), 2.5);
    QCOMPARE(timeline.mixer_time(9.25), 3.25);
    QCOMPARE(timeline.mixer_time(2.5), 0.0); // in no chunk
    QCOMPARE(timeline.mixer_time(4.0), 0.0); // ends are outside
    QCOMPARE(timeline.mixer_time(5.0), 0.0);
    QCOMPARE(timeline.mixer_time(10.0), 0.0);
}

void tst_timeline_position::mixer_time_isBounded()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.mixer_time(15.0), 5.0);
    QCOMPARE(timeline.mixer_time(5.0), 0.0);
    QCOMPARE(timeline.mixer_time(-1.0), 0.0);
    QCOMPARE(timeline.mixer_time(25.0), 10.0);
    timeline.setLimits(20.0, 10.0);
    QCOMPARE(timeline.mixer_time(15.0), 0.0);
}

void tst_timeline_position::nextChunk_readsUpToTheSpan()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.nextChunk(0.0, 0.5, 48000, 0), std::pair(10.0, 0.5));
    QCOMPARE(timeline.nextChunk(9.75, 0.5, 48000, 0), std::pair(19.75, 0.25));
    QCOMPARE(timeline.nextChunk(10.0, 0.5, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLooping(true);
    QCOMPARE(timeline.nextChunk(10.0, 0.5, 48000, 0), std::pair(10.0, 0.5));
    QCOMPARE(timeline.nextChunk(19.75, 0.5, 48000, 0), std::pair(19.75, 0.25));
}

void tst_timeline_position::nextChunk_crossesChunks()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    QCOMPARE(timeline.nextChunk(0.75, 0.5, 48000, 0), std::pair(1.75, 0.25));
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, 0), std::pair(5.0, 0.5));
    QCOMPARE(timeline.nextChunk(2.0, 0.5, 48000, 0), std::pair(0.0, 0.0));
}

void tst_timeline_position::nextChunk_givesNothing_outside()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QCOMPARE(timeline.nextChunk(10.5, 0.5, 48000, 0), std::pair(0.0, 0.0));
    QCOMPARE(timeline.nextChunk(-0.5, 0.5, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLimits(-2.0, 10.0);
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, 0), std::pair(0.0, 0.0)); // at −1
    QCOMPARE(timeline.nextChunk(2.5, 0.5, 48000, 0), std::pair(0.5, 0.5));
}

void tst_timeline_position::nextChunk_refusesDepthsAboveTwo()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    for (int depth : {0, 1, 2})
        QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, depth), std::pair(1.0, 0.5));
    for (int depth : {3, 4, 1000})
        QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, depth), std::pair(0.0, 0.0));
}

void tst_timeline_position::nextChunk_movesOneFrameOn_atTheEndOfAChunk()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    timeline.setLooping(true);
    // One tick, a quarter of a frame, is left of the first chunk: frame 48001 counts next.
    const auto [start, length] = timeline.nextChunk(1.0 - tick, 0.5, 48000, 0);
    QVERIFY(qAbs(start - (5.0 + 1.0 / 48000.0)) < rounding);
    QCOMPARE(length, 0.5);
    // Three ticks are read as they are.
    const auto [at, rest] = timeline.nextChunk(1.0 - 3 * tick, 0.5, 48000, 0);
    QVERIFY(qAbs(at - (2.0 - 3 * tick)) < rounding);
    QVERIFY(qAbs(rest - 3 * tick) < rounding);
    // At depth 2 no step is left.
    QCOMPARE(timeline.nextChunk(1.0 - tick, 0.5, 48000, 2), std::pair(0.0, 0.0));
    QVERIFY(timeline.nextChunk(1.0 - tick, 0.5, 48000, 1).second > 0.0);
}

void tst_timeline_position::nextChunk_givesUp_afterThreeBoundarySteps()
{
    Timeline timeline;
    timeline.setLooping(true);
    timeline.setLimits(0.0, tick); // a pass of a quarter of a frame
    QCOMPARE(timeline.nextChunk(0.0, 0.5, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLimits(0.0, 2 * tick); // half a frame rounds up to one
    QCOMPARE(timeline.nextChunk(0.0, 0.5, 48000, 0), std::pair(0.0, 2 * tick));
    // Without a span nothing is ever found, in any mode.
    timeline.setLimits(0.0, 10.0);
    QCOMPARE(timeline.nextChunk(1.0, 0.0, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLooping(false);
    QCOMPARE(timeline.nextChunk(1.0, 0.0, 48000, 0), std::pair(0.0, 0.0));
}

void tst_timeline_position::nextChunk_readsAtLeastOneFrame()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    const auto [start, length] = timeline.nextChunk(10.0 - tick, 0.5, 48000, 0);
    QVERIFY(qAbs(start - (10.0 - tick)) < rounding);
    QCOMPARE(length, 1.0 / 48000.0);
    QCOMPARE(timeline.nextChunk(1.0, tick, 8000, 0), std::pair(1.0, 1.0 / 8000.0));
    QCOMPARE(timeline.nextChunk(1.0, -0.5, 8000, 0), std::pair(1.0, -0.5)); // nothing to read
}

void tst_timeline_position::nextChunk_isStable_forDegenerateArguments()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 0, 0), std::pair(0.0, 0.0));
    QCOMPARE(timeline.nextChunk(1.0, 0.5, -1, 0), std::pair(0.0, 0.0));
    QCOMPARE(timeline.nextChunk(notANumber, 0.5, 48000, 0), std::pair(0.0, 0.5));
    QCOMPARE(timeline.nextChunk(infinite, 0.5, 48000, 0), std::pair(0.0, 0.5));
    QCOMPARE(timeline.nextChunk(1.0, notANumber, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLooping(true);
    QCOMPARE(timeline.nextChunk(1e300, 0.5, 48000, 0), std::pair(0.0, 0.5));
}

void tst_timeline_position::currentChunkEnd_mixesFramesOfReference()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.currentChunkEnd(0.0), 20.0);
    QCOMPARE(timeline.currentChunkEnd(100.0), 20.0);
    timeline.addSlice(11.0, 12.0);
    timeline.addSlice(15.0, 16.0);
    QCOMPARE(timeline.currentChunkEnd(1.5), 2.0);
    QCOMPARE(timeline.currentChunkEnd(5.0), 6.0);
    QCOMPARE(timeline.currentChunkEnd(2.0), 0.0);
    QCOMPARE(timeline.currentChunkEnd(0.5), 0.0);
    QCOMPARE(timeline.currentChunkEnd(11.5), 0.0); // a position of the material is in none
}

void tst_timeline_position::timeToLoop_withoutChunks()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.timeToLoop(0.0), 10.0);
    QCOMPARE(timeline.timeToLoop(7.5), 2.5);
    QCOMPARE(timeline.timeToLoop(12.0), -2.0);
    timeline.setLooping(true);
    QCOMPARE(timeline.timeToLoop(27.5), 2.5);
}

void tst_timeline_position::timeToLoop_answersTheLastChunksLength_whileLaterChunksExist()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 20, {{1, 4}, {6, 8}, {9, 9.5}});
    for (double mixerTime : {0.0, 2.9, 3.0, 4.5})
        QCOMPARE(timeline.timeToLoop(mixerTime), 0.5);
    QCOMPARE(timeline.timeToLoop(5.0), 0.5);
    QCOMPARE(timeline.timeToLoop(5.125), 0.375);
    QCOMPARE(timeline.timeToLoop(5.25), 0.25);
}

void tst_timeline_position::timeToLoop_isZero_afterTheLastChunk()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 20, {{1, 4}, {6, 8}});
    QCOMPARE(timeline.timeToLoop(5.0), 0.0);
    QCOMPARE(timeline.timeToLoop(500.0), 0.0);
    QCOMPARE(timeline.timeToLoop(-5.0), 0.0);
}

void tst_timeline_position::adjustLoopTime_keepsThePosition()
{
    Timeline timeline;
    fillTimeline(timeline, 2, 12, {{3, 4}, {6, 8}});
    timeline.setLooping(true);
    for (double mixerTime : {0.0, 0.5, 2.75, 7.25, 300.125}) {
        const double looped = timeOf(timeline, mixerTime);
        timeline.adjustLoopTime(mixerTime);
        timeline.setLooping(false);
        QVERIFY(qAbs(timeOf(timeline, mixerTime) - looped) < 1e-9);
        timeline.setLooping(true);
    }
    timeline.adjustLoopTime(7.25);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 6.0);
}

void tst_timeline_position::adjustLoopTime_isZero_atExactlyOnePassOrWithoutAPass()
{
    Timeline timeline;
    timeline.setLimits(0.0, 3.0);
    timeline.adjustLoopTime(6.0);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 6.0);
    timeline.adjustLoopTime(3.0);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 0.0);
    timeline.adjustLoopTime(6.5);
    timeline.setLimits(3.0, 3.0);
    timeline.adjustLoopTime(6.5);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 0.0);
    // Less than half a tick is no pass to take the remainder by: all of the time is offset.
    timeline.setLimits(0.0, 0.4 * tick);
    timeline.adjustLoopTime(2.5);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 2.5);
}

void tst_timeline_position::maxBlockDuration_endsAtTheNextJump()
{
    Timeline timeline;
    fillTimeline(timeline, 2, 12, {{3, 4}, {6, 8}});
    QCOMPARE(timeline.maxBlockDuration(0.25), 0.75);
    QCOMPARE(timeline.maxBlockDuration(1.0), 2.0);
    QCOMPARE(timeline.maxBlockDuration(3.0), 0.0);
    timeline.clearSlices();
    QCOMPARE(timeline.maxBlockDuration(4.0), 6.0);
    QCOMPARE(timeline.maxBlockDuration(11.0), 0.0);
    QCOMPARE(timeline.maxBlockDuration(-1.0), 0.0);
}

void tst_timeline_position::loopWithSlices_runsForEver()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    timeline.setLooping(true);
    QCOMPARE(passOf(timeline), 2.0);
    QCOMPARE(timeline.mixer_time(1.0), 0.0);
    QCOMPARE(timeline.mixer_time(3.0), 0.0); // in a gap: the first chunk
    const double span = 4096.0 / 48000.0;
    double readTime = 0.0;
    double played = 0.0;
    for (int read = 0; read < 10000; ++read) {
        const auto [start, length] = timeline.nextChunk(readTime, span, 48000, 0);
        QVERIFY(length > 0.0 && length <= span);
        const bool first = start >= 1.0 - rounding && start + length <= 2.0 + rounding;
        const bool second = start >= 5.0 - rounding && start + length <= 6.0 + rounding;
        QVERIFY(first || second);
        const qint64 frames = qint64(length * 48000 + 0.5);
        readTime = double(qint64(readTime * 48000 + 0.5) + frames) / 48000;
        played += length;
    }
    QVERIFY(qAbs(played - readTime) < 0.01);
    QCOMPARE(timeOf(timeline, 5.5), 5.5);
    QCOMPARE(timeline.timeToLoop(5.5), 0.5);
    QCOMPARE(timeline.timeToLoop(4.5), 1.0);
}

void tst_timeline_position::removingTheCurrentChunk_jumpsToTheFirst()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    const double position = timeOf(timeline, 1.5);
    QCOMPARE(position, 5.5);
    timeline.removeSlice(5.0, 6.0);
    QCOMPARE(timeline.mixer_time(position), 0.0);
    QCOMPARE(timeOf(timeline, 0.0), 1.0);
    timeline.removeSlice(1.0, 2.0);
    QCOMPARE(passOf(timeline), 10.0);
    QCOMPARE(timeOf(timeline, 0.0), 0.0);
}

void tst_timeline_position::anyDouble_isSafe()
{
    const double values[] = {
        0.0,        -0.0,     1.0,       -1.0,   0.5,
        1e-300,     1e18,     -1e18,     1e300,  -1e300,
        notANumber, infinite, -infinite, 5e-324, std::numeric_limits<double>::max()};
    for (double a : values) {
        for (double b : values) {
            for (bool looping : {false, true}) {
                Timeline timeline;
                timeline.setLooping(looping);
                timeline.setLimits(a, b);
                timeline.addSlice(b, a);
                timeline.addSlice(0.25, 0.75);
                timeline.removeSlice(a, 0.5);
                timeline.adjustLoopTime(b);
                for (double t : values) {
                    const double position = timeline.time(t, false, a, b);
                    QVERIFY(!qIsNaN(position));
                    QVERIFY(timeline.mixer_time(t) >= 0.0);
                    const auto [start, length] = timeline.nextChunk(t, b, 48000, 0);
                    QVERIFY(!qIsNaN(start) && !qIsNaN(length));
                    QVERIFY(!qIsNaN(timeline.currentChunkEnd(t)));
                    QVERIFY(!qIsNaN(timeline.timeToLoop(t)));
                    QVERIFY(timeline.maxBlockDuration(t) >= 0.0);
                }
            }
        }
    }
}

void tst_timeline_position::rememberedPosition_isForgottenByEveryEdit()
{
    Timeline timeline;
    fillTimeline(timeline, 2, 12, {{2, 3}, {5, 6}});
    const auto remembered = [&](double time) {
        return TimelineAccess::data(timeline).remembered.at(time);
    };
    const auto remember = [&](double time) {
        TimelineAccess::remember(timeline, time);
        return remembered(time);
    };
    QVERIFY(!remembered(1.5));
    QCOMPARE(remember(1.5), std::optional(3.5)); // from the start limit
    QCOMPARE(timeOf(timeline, 1.5), 5.5);
    QVERIFY(!remembered(1.25)); // the last one only
    QCOMPARE(timeOf(timeline, 1.25), 5.25);
    QVERIFY(std::isnan(remember(2.0).value()));
    QCOMPARE(timeOf(timeline, 2.0), -1.0);
    QCOMPARE(timeline.time(2.0, true, 0.0, -1.0), 2.0);

    const std::vector<std::function<void()>> edits{
        [&] { timeline.addSlice(8.0, 9.0); },   [&] { timeline.removeSlice(8.0, 9.0); },
        [&] { timeline.setLimits(2.0, 11.0); }, [&] { timeline.setLooping(true); },
        [&] { timeline.adjustLoopTime(2.5); },  [&] { timeline.update(); },
        [&] { timeline.clearSlices(); },
    };
    for (size_t i = 0; i < edits.size(); ++i) {
        QVERIFY2(remember(0.5), qPrintable(QString::number(i)));
        edits[i]();
        QVERIFY2(!remembered(0.5), qPrintable(QString::number(i)));
    }
    timeline.setLooping(false);
    TimelineAccess::remember(timeline, 0.5); // nothing to look up
    QVERIFY(!remembered(0.5));
}

QTEST_GUILESS_MAIN(tst_timeline_position)
#include "tst_timeline_position.moc"
