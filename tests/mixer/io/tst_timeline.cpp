// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <mixer/io/timeline_p.h>

#include "timeline_model.h"

#include <QtTest/QTest>

#include <iostream>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

using namespace QTovelMixer;

namespace {

using Ranges = std::vector<Range>;

constexpr double tick = 1.0 / 192000.0;
constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();

/// Sums of a few doubles of this size are off by less.
constexpr double rounding = 1e-12;

const Ranges &slicesOf(const Timeline &timeline)
{
    return TimelineAccess::data(timeline).slices;
}

const Ranges &chunksOf(const Timeline &timeline)
{
    return TimelineAccess::data(timeline).chunks;
}

double passOf(const Timeline &timeline)
{
    return TimelineAccess::data(timeline).playDuration;
}

void fillTimeline(Timeline &timeline, double start, double end, const Ranges &slices)
{
    timeline.setLimits(start, end);
    for (const Range &slice : slices)
        timeline.addSlice(slice.start, slice.end);
}

double timeOf(const Timeline &timeline, double mixerTime)
{
    return timeline.time(mixerTime, false, 0.0, -1.0);
}

QString textOf(const Ranges &ranges)
{
    QString text;
    for (const Range &range : ranges)
        text += QStringLiteral("[%1,%2]").arg(range.start).arg(range.end);
    return text;
}

Ranges rangesOf(const std::vector<TimelineModel::Stretch> &stretches)
{
    Ranges result;
    for (const TimelineModel::Stretch &stretch : stretches)
        result.push_back(
            {stretch.start * TimelineModel::cellSeconds, stretch.end * TimelineModel::cellSeconds});
    return result;
}

QString lastMessage;
QtMsgType lastType;

void keepMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    lastType = type;
    lastMessage = text;
}

} // namespace

class tst_timeline : public QObject
{
    Q_OBJECT

private slots:
    void fresh_isUnsetAndEmpty();
    void fresh_answersMinusOne_forEveryTime();
    void destructor_isVirtual();
    void reset_clearsAllButLooping();
    void setLimits_setsStartEndDuration();
    void setLimits_keepsReversedLimits();
    void setLimits_takesZero_forTimesThatAreNotFinite();
    void update_clipsSlicesToTheLimits_data();
    void update_clipsSlicesToTheLimits();
    void slicesBeforeLimits_giveNoChunks_untilLimitsAreSet();
    void limitsExpanded_comparesStrictly();
    void limitsCollapsed_comparesStrictly();

    void addSlice_data();
    void addSlice();
    void removeSlice_data();
    void removeSlice();
    void removeSlice_splitsIntoTouchingSlices_forAnEmptyStretch();
    void clearSlices_playsEverythingAgain();

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

    void debug_writesOneInformationMessage();
    void printTimeline_writesTheChunks();

    void model_agreesOnRandomEdits();
    void model_agreesOnRandomQueries();
    void model_agreesBetweenCells();
    void anyDouble_isSafe();
};

void tst_timeline::fresh_isUnsetAndEmpty()
{
    const Timeline timeline;
    QCOMPARE(timeline.start(), -1.0);
    QCOMPARE(timeline.end(), -1.0);
    QCOMPARE(timeline.duration(), 0.0);
    QVERIFY(!timeline.isLooping());
    QVERIFY(!timeline.hasSlices());
    QCOMPARE(passOf(timeline), 0.0);
    QVERIFY(timeline.limitsExpanded(5.0, 6.0));
    QVERIFY(timeline.limitsCollapsed(-5.0, 600.0));
}

void tst_timeline::fresh_answersMinusOne_forEveryTime()
{
    const Timeline timeline;
    for (double mixerTime : {0.0, 0.5, 1.0, 3.0, 1e6, -2.0}) {
        QCOMPARE(timeline.time(mixerTime, true, 0.0, -1.0), -1.0);
        QCOMPARE(timeline.time(mixerTime, false, 0.0, -1.0), -1.0);
        QCOMPARE(timeline.mixer_time(mixerTime), 0.0);
        QCOMPARE(timeline.nextChunk(mixerTime, 0.1, 48000, 0), std::pair(0.0, 0.0));
    }
    QCOMPARE(timeline.timeToLoop(3.0), -3.0);
    QCOMPARE(timeline.currentChunkEnd(0.0), -1.0);
}

void tst_timeline::destructor_isVirtual()
{
    static_assert(std::has_virtual_destructor_v<Timeline>);
    struct Watched : Timeline
    {
        explicit Watched(bool *flag) : gone(flag) {}
        ~Watched() override { *gone = true; }
        bool *gone;
    };
    bool gone = false;
    std::unique_ptr<Timeline> timeline = std::make_unique<Watched>(&gone);
    timeline.reset();
    QVERIFY(gone);
}

void tst_timeline::reset_clearsAllButLooping()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    timeline.setLooping(true);
    timeline.adjustLoopTime(5.0);
    timeline.reset();
    QCOMPARE(timeline.start(), -1.0);
    QCOMPARE(timeline.end(), -1.0);
    QVERIFY(slicesOf(timeline).empty());
    QVERIFY(!timeline.hasSlices());
    QVERIFY(timeline.isLooping());
    QCOMPARE(passOf(timeline), 0.0);
    QCOMPARE(TimelineAccess::data(timeline).timeOffset, 0.0);
}

void tst_timeline::setLimits_setsStartEndDuration()
{
    Timeline timeline;
    timeline.setLimits(2.0, 12.5);
    QCOMPARE(timeline.start(), 2.0);
    QCOMPARE(timeline.end(), 12.5);
    QCOMPARE(timeline.duration(), 10.5);
    QCOMPARE(passOf(timeline), 10.5);
}

void tst_timeline::setLimits_keepsReversedLimits()
{
    Timeline timeline;
    fillTimeline(timeline, 8, 2, {{1, 3}, {4, 5}, {7, 9}});
    QCOMPARE(timeline.start(), 8.0);
    QCOMPARE(timeline.end(), 2.0);
    QCOMPARE(timeline.duration(), 0.0);
    // Clipped to [2, 8], then counted from 8.
    QCOMPARE(textOf(chunksOf(timeline)), "[-6,-5][-4,-3][-1,0]");
    QCOMPARE(passOf(timeline), 3.0);
    timeline.clearSlices();
    QCOMPARE(passOf(timeline), 0.0);
}

void tst_timeline::setLimits_takesZero_forTimesThatAreNotFinite()
{
    Timeline timeline;
    timeline.setLimits(notANumber, 4.0);
    QCOMPARE(timeline.start(), 0.0);
    timeline.setLimits(-infinite, infinite);
    QCOMPARE(timeline.start(), 0.0);
    QCOMPARE(timeline.end(), 0.0);
    timeline.setLimits(0.0, 10.0);
    timeline.addSlice(notANumber, 1.0);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,1]");
    timeline.removeSlice(-infinite, infinite);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,1]"); // an empty stretch at the slice's start
}

void tst_timeline::update_clipsSlicesToTheLimits_data()
{
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("end");
    QTest::addColumn<QString>("chunks");
    QTest::addColumn<double>("pass");
    // Slices [1,2] [4,6] [8,9].
    QTest::newRow("all inside") << 0.0 << 10.0 << "[1,2][4,6][8,9]" << 4.0;
    QTest::newRow("shifted by the start") << 0.5 << 10.0 << "[0.5,1.5][3.5,5.5][7.5,8.5]" << 4.0;
    QTest::newRow("first and last cut") << 1.5 << 8.5 << "[0,0.5][2.5,4.5][6.5,7]" << 3.0;
    QTest::newRow("one cut at both ends") << 4.5 << 5.0 << "[0,0.5]" << 0.5;
    QTest::newRow("exactly one slice") << 4.0 << 6.0 << "[0,2]" << 2.0;
    QTest::newRow("touched limits give no empty chunk") << 2.0 << 8.0 << "[2,4]" << 2.0;
    QTest::newRow("none inside") << 2.0 << 4.0 << "" << 2.0;
    QTest::newRow("limits without length") << 5.0 << 5.0 << "" << 0.0;
    QTest::newRow("unset limits") << -1.0 << -1.0 << "" << 0.0;
}

void tst_timeline::update_clipsSlicesToTheLimits()
{
    QFETCH(double, start);
    QFETCH(double, end);
    Timeline timeline;
    fillTimeline(timeline, start, end, {{1, 2}, {4, 6}, {8, 9}});
    QTEST(textOf(chunksOf(timeline)), "chunks");
    QTEST(passOf(timeline), "pass");
    QCOMPARE(timeline.hasSlices(), !chunksOf(timeline).empty());
    QCOMPARE(textOf(slicesOf(timeline)), "[1,2][4,6][8,9]");
}

void tst_timeline::slicesBeforeLimits_giveNoChunks_untilLimitsAreSet()
{
    Timeline timeline;
    timeline.addSlice(1.0, 2.0);
    QVERIFY(!timeline.hasSlices());
    timeline.setLimits(0.0, 10.0);
    QVERIFY(timeline.hasSlices());
    QCOMPARE(timeOf(timeline, 0.0), 1.0);
}

void tst_timeline::limitsExpanded_comparesStrictly()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QVERIFY(!timeline.limitsExpanded(0.0, 10.0));
    QVERIFY(!timeline.limitsExpanded(1.0, 9.0));
    QVERIFY(timeline.limitsExpanded(-0.1, 9.0));
    QVERIFY(timeline.limitsExpanded(1.0, 10.1));
    timeline.setLimits(-1.0, 10.0);
    QVERIFY(timeline.limitsExpanded(1.0, 2.0));
    timeline.setLimits(10.0, -1.0);
    QVERIFY(timeline.limitsExpanded(20.0, -2.0));
}

void tst_timeline::limitsCollapsed_comparesStrictly()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QVERIFY(!timeline.limitsCollapsed(0.0, 10.0));
    QVERIFY(!timeline.limitsCollapsed(-1.0, 11.0));
    QVERIFY(timeline.limitsCollapsed(0.1, 11.0));
    QVERIFY(timeline.limitsCollapsed(-1.0, 9.9));
    timeline.setLimits(-1.0, 10.0);
    QVERIFY(timeline.limitsCollapsed(-5.0, 20.0));
    timeline.setLimits(0.0, -1.0);
    QVERIFY(timeline.limitsCollapsed(-5.0, 20.0));
}

void tst_timeline::addSlice_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("end");
    QTest::addColumn<QString>("after");
    QTest::newRow("first") << "" << 2.0 << 6.0 << "[2,6]";
    QTest::newRow("reversed bounds") << "" << 6.0 << 2.0 << "[2,6]";
    QTest::newRow("touching at the end") << "a" << 6.0 << 8.0 << "[2,8]";
    QTest::newRow("touching at the start") << "a" << 1.0 << 2.0 << "[1,6]";
    QTest::newRow("inside") << "a" << 3.0 << 4.0 << "[2,6]";
    QTest::newRow("around") << "a" << 1.0 << 8.0 << "[1,8]";
    QTest::newRow("before") << "a" << 0.0 << 1.0 << "[0,1][2,6]";
    QTest::newRow("after") << "a" << 7.0 << 8.0 << "[2,6][7,8]";
    QTest::newRow("in the gap") << "b" << 1.5 << 2.5 << "[0,1][1.5,2.5][3,4]";
    QTest::newRow("after both") << "b" << 5.0 << 6.0 << "[0,1][3,4][5,6]";
    QTest::newRow("over both") << "b" << 0.5 << 3.5 << "[0,4]";
    QTest::newRow("beyond both") << "b" << 0.5 << 7.0 << "[0,7]";
    QTest::newRow("filling the gap") << "b" << 1.0 << 3.0 << "[0,4]";
    QTest::newRow("from the gap, joined across it") << "b" << 2.0 << 3.5 << "[0,4]";
    QTest::newRow("from the gap to the next start") << "b" << 2.0 << 3.0 << "[0,4]";
    QTest::newRow("before all into the last") << "b" << -1.0 << 3.5 << "[-1,4]";
}

static Ranges rangesNamed(const QString &name)
{
    if (name == QLatin1String("a"))
        return {{2, 6}};
    if (name == QLatin1String("b"))
        return {{0, 1}, {3, 4}};
    if (name == QLatin1String("c"))
        return {{0, 1}, {3, 4}, {6, 8}};
    return {};
}

void tst_timeline::addSlice()
{
    QFETCH(QString, before);
    QFETCH(double, start);
    QFETCH(double, end);
    Timeline timeline;
    fillTimeline(timeline, 0, 10, rangesNamed(before));
    timeline.addSlice(start, end);
    QTEST(textOf(slicesOf(timeline)), "after");
}

void tst_timeline::removeSlice_data()
{
    QTest::addColumn<QString>("before");
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("end");
    QTest::addColumn<QString>("after");
    QTest::newRow("of nothing") << "" << 2.0 << 6.0 << "";
    QTest::newRow("middle") << "a" << 3.0 << 5.0 << "[2,3][5,6]";
    QTest::newRow("reversed bounds") << "a" << 5.0 << 3.0 << "[2,3][5,6]";
    QTest::newRow("over the start") << "a" << 1.0 << 4.0 << "[4,6]";
    QTest::newRow("over the end") << "a" << 4.0 << 8.0 << "[2,4]";
    QTest::newRow("sharing the start") << "a" << 2.0 << 4.0 << "[2,6]";
    QTest::newRow("sharing the end") << "a" << 4.0 << 6.0 << "[2,6]";
    QTest::newRow("exactly") << "a" << 2.0 << 6.0 << "";
    QTest::newRow("around") << "a" << 1.0 << 7.0 << "";
    QTest::newRow("start shared, beyond the end") << "a" << 2.0 << 7.0 << "";
    QTest::newRow("end shared, before the start") << "a" << 1.0 << 6.0 << "";
    QTest::newRow("before") << "a" << 0.0 << 1.0 << "[2,6]";
    QTest::newRow("after") << "a" << 7.0 << 8.0 << "[2,6]";
    QTest::newRow("touching at the start") << "a" << 1.0 << 2.0 << "[2,6]";
    QTest::newRow("touching at the end") << "a" << 6.0 << 8.0 << "[2,6]";
    QTest::newRow("within the gap") << "b" << 1.5 << 2.5 << "[0,1][3,4]";
    QTest::newRow("across two") << "b" << 0.5 << 3.5 << "[0,0.5][3.5,4]";
    QTest::newRow("from the gap, the first grows") << "b" << 2.0 << 3.5 << "[0,2][3.5,4]";
    QTest::newRow("from the gap, all of the next") << "b" << 2.0 << 5.0 << "[0,2]";
    QTest::newRow("both") << "b" << 0.0 << 4.0 << "";
    QTest::newRow("both, from before") << "b" << -1.0 << 9.0 << "";
    QTest::newRow("three, keeping both ends") << "c" << 0.5 << 7.0 << "[0,0.5][7,8]";
    QTest::newRow("three, keeping the tail") << "c" << 0.0 << 7.0 << "[7,8]";
    QTest::newRow("three, keeping the head") << "c" << 0.5 << 8.0 << "[0,0.5]";
    QTest::newRow("first two of three") << "c" << 0.0 << 4.0 << "[6,8]";
    QTest::newRow("ending in a gap") << "c" << 0.5 << 5.0 << "[0,0.5][6,8]";
}

void tst_timeline::removeSlice()
{
    QFETCH(QString, before);
    QFETCH(double, start);
    QFETCH(double, end);
    Timeline timeline;
    fillTimeline(timeline, 0, 10, rangesNamed(before));
    timeline.removeSlice(start, end);
    QTEST(textOf(slicesOf(timeline)), "after");
}

void tst_timeline::removeSlice_splitsIntoTouchingSlices_forAnEmptyStretch()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{2, 6}});
    timeline.removeSlice(3.0, 3.0);
    QCOMPARE(textOf(slicesOf(timeline)), "[2,3][3,6]");
    QCOMPARE(timeOf(timeline, 0.5), 2.5);
    QCOMPARE(timeOf(timeline, 1.0), 3.0);
    QCOMPARE(timeOf(timeline, 3.5), 5.5);
    timeline.addSlice(2.5, 4.0);
    QCOMPARE(textOf(slicesOf(timeline)), "[2,6]");
}

void tst_timeline::clearSlices_playsEverythingAgain()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    QCOMPARE(passOf(timeline), 2.0);
    timeline.clearSlices();
    QVERIFY(!timeline.hasSlices());
    QVERIFY(slicesOf(timeline).empty());
    QCOMPARE(passOf(timeline), 10.0);
    QCOMPARE(timeOf(timeline, 7.0), 7.0);
}

void tst_timeline::time_followsTheClock_withoutChunks()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeOf(timeline, 0.0), 10.0);
    QCOMPARE(timeOf(timeline, 4.25), 14.25);
    QCOMPARE(timeOf(timeline, 10.0), 20.0); // the end itself still answers
    QCOMPARE(timeOf(timeline, 10.01), -1.0);
    QCOMPARE(timeOf(timeline, -0.01), -1.0);
}

void tst_timeline::time_skipsGaps_withChunks()
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

void tst_timeline::time_wraps_whenLooping()
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

void tst_timeline::time_wrapsToTheNearestTick()
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

void tst_timeline::time_staysAtTheStart_whenLoopingOverNothing()
{
    Timeline timeline;
    timeline.setLimits(4.0, 4.0);
    timeline.setLooping(true);
    for (double mixerTime : {0.0, 0.3, 17.0, -2.0})
        QCOMPARE(timeOf(timeline, mixerTime), 4.0);
}

void tst_timeline::time_clampsAtBothEnds()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.time(-1.0, true, 0.0, -1.0), 10.0);
    QCOMPARE(timeline.time(11.0, true, 0.0, -1.0), 20.0);
    timeline.addSlice(12.0, 13.0);
    QCOMPARE(timeline.time(1.5, true, 0.0, -1.0), 10.0); // the chunks have run out
}

void tst_timeline::time_pausePosition_data()
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

void tst_timeline::time_pausePosition()
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

void tst_timeline::time_negativeTimeInsideALaterChunk_isAPosition()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{3, 4}});
    QCOMPARE(timeOf(timeline, -1.0), 2.0); // before the chunk, but not before the material
    QCOMPARE(timeOf(timeline, -3.0), 0.0);
    QCOMPARE(timeOf(timeline, -3.5), -1.0);
}

void tst_timeline::mixer_time_invertsTime()
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

void tst_timeline::mixer_time_isBounded()
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

void tst_timeline::nextChunk_readsUpToTheSpan()
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

void tst_timeline::nextChunk_crossesChunks()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{1, 2}, {5, 6}});
    QCOMPARE(timeline.nextChunk(0.75, 0.5, 48000, 0), std::pair(1.75, 0.25));
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, 0), std::pair(5.0, 0.5));
    QCOMPARE(timeline.nextChunk(2.0, 0.5, 48000, 0), std::pair(0.0, 0.0));
}

void tst_timeline::nextChunk_givesNothing_outside()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    QCOMPARE(timeline.nextChunk(10.5, 0.5, 48000, 0), std::pair(0.0, 0.0));
    QCOMPARE(timeline.nextChunk(-0.5, 0.5, 48000, 0), std::pair(0.0, 0.0));
    timeline.setLimits(-2.0, 10.0);
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, 0), std::pair(0.0, 0.0)); // at −1
    QCOMPARE(timeline.nextChunk(2.5, 0.5, 48000, 0), std::pair(0.5, 0.5));
}

void tst_timeline::nextChunk_refusesDepthsAboveTwo()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    for (int depth : {0, 1, 2})
        QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, depth), std::pair(1.0, 0.5));
    for (int depth : {3, 4, 1000})
        QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, depth), std::pair(0.0, 0.0));
}

void tst_timeline::nextChunk_movesOneFrameOn_atTheEndOfAChunk()
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

void tst_timeline::nextChunk_givesUp_afterThreeBoundarySteps()
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

void tst_timeline::nextChunk_readsAtLeastOneFrame()
{
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    const auto [start, length] = timeline.nextChunk(10.0 - tick, 0.5, 48000, 0);
    QVERIFY(qAbs(start - (10.0 - tick)) < rounding);
    QCOMPARE(length, 1.0 / 48000.0);
    QCOMPARE(timeline.nextChunk(1.0, tick, 8000, 0), std::pair(1.0, 1.0 / 8000.0));
    QCOMPARE(timeline.nextChunk(1.0, -0.5, 8000, 0), std::pair(1.0, -0.5)); // nothing to read
}

void tst_timeline::nextChunk_isStable_forDegenerateArguments()
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

void tst_timeline::currentChunkEnd_mixesFramesOfReference()
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

void tst_timeline::timeToLoop_withoutChunks()
{
    Timeline timeline;
    timeline.setLimits(10.0, 20.0);
    QCOMPARE(timeline.timeToLoop(0.0), 10.0);
    QCOMPARE(timeline.timeToLoop(7.5), 2.5);
    QCOMPARE(timeline.timeToLoop(12.0), -2.0);
    timeline.setLooping(true);
    QCOMPARE(timeline.timeToLoop(27.5), 2.5);
}

void tst_timeline::timeToLoop_answersTheLastChunksLength_whileLaterChunksExist()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 20, {{1, 4}, {6, 8}, {9, 9.5}});
    for (double mixerTime : {0.0, 2.9, 3.0, 4.5})
        QCOMPARE(timeline.timeToLoop(mixerTime), 0.5);
    QCOMPARE(timeline.timeToLoop(5.0), 0.5);
    QCOMPARE(timeline.timeToLoop(5.125), 0.375);
    QCOMPARE(timeline.timeToLoop(5.25), 0.25);
}

void tst_timeline::timeToLoop_isZero_afterTheLastChunk()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 20, {{1, 4}, {6, 8}});
    QCOMPARE(timeline.timeToLoop(5.0), 0.0);
    QCOMPARE(timeline.timeToLoop(500.0), 0.0);
    QCOMPARE(timeline.timeToLoop(-5.0), 0.0);
}

void tst_timeline::adjustLoopTime_keepsThePosition()
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

void tst_timeline::adjustLoopTime_isZero_atExactlyOnePassOrWithoutAPass()
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

void tst_timeline::maxBlockDuration_endsAtTheNextJump()
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

void tst_timeline::loopWithSlices_runsForEver()
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

void tst_timeline::removingTheCurrentChunk_jumpsToTheFirst()
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

void tst_timeline::debug_writesOneInformationMessage()
{
    Timeline timeline;
    fillTimeline(timeline, 1, 9.5, {{2, 3}, {5, 6}});
    timeline.setLooping(true);
    const QtMessageHandler previous = qInstallMessageHandler(keepMessage);
    timeline.debug(QStringLiteral("seek"));
    qInstallMessageHandler(previous);
    QCOMPARE(lastType, QtInfoMsg);
    QCOMPARE(lastMessage, QStringLiteral("seek Timeline {\n   start: 1\n   end: 9.5\n"
                                         "   duration: 8.5\n   looped_time: 2\n"
                                         "   loop: true\n}"));
}

void tst_timeline::printTimeline_writesTheChunks()
{
    Timeline timeline;
    std::ostringstream text;
    std::streambuf *const previous = std::cerr.rdbuf(text.rdbuf());
    timeline.printTimeline();
    fillTimeline(timeline, 1, 10, {{2, 3}, {5, 6.5}});
    timeline.printTimeline();
    std::cerr.rdbuf(previous);
    QCOMPARE(text.str(), std::string("[]\n[ [1,2][4,5.5]\n"));
}

void tst_timeline::model_agreesOnRandomEdits()
{
    std::mt19937 random(20240611);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    for (int sequence = 0; sequence < 10000; ++sequence) {
        Timeline timeline;
        TimelineModel model;
        timeline.setLimits(0.0, 1000.0);
        const int size = 8 + below(TimelineModel::cells - 8);
        QString history = QStringLiteral("sequence %1:").arg(sequence);
        for (int edit = 0; edit < 12; ++edit) {
            int s = below(size);
            int e = below(size + 1);
            if (s == e)
                ++e;
            const bool add = below(3) != 0;
            history += QStringLiteral(" %1(%2,%3)").arg(add ? "add" : "remove").arg(s).arg(e);
            const double from = s * TimelineModel::cellSeconds;
            const double to = e * TimelineModel::cellSeconds;
            if (add) {
                timeline.addSlice(from, to);
                model.add(std::min(s, e), std::max(s, e));
            } else {
                timeline.removeSlice(from, to);
                model.remove(std::min(s, e), std::max(s, e));
            }
            const Ranges expected = rangesOf(model.stretches());
            if (slicesOf(timeline) != expected)
                QFAIL(qPrintable(history + " gives " + textOf(slicesOf(timeline)) + " not " +
                                 textOf(expected)));
        }
    }
}

namespace {

/// The same random timeline twice.
struct Pair
{
    Timeline timeline;
    TimelineModel model;

    explicit Pair(std::mt19937 &random)
    {
        const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
        model.limitStart = below(24);
        model.limitEnd = model.limitStart + 1 + below(TimelineModel::cells - 24);
        model.looping = below(2) == 0;
        timeline.setLooping(model.looping);
        timeline.setLimits(seconds(model.limitStart), seconds(model.limitEnd));
        for (int edits = below(6); edits > 0; --edits) {
            const int s = below(TimelineModel::cells - 8);
            const int e = s + 1 + below(7);
            timeline.addSlice(seconds(s), seconds(e));
            model.add(s, e);
        }
    }

    static double seconds(int cell) { return cell * TimelineModel::cellSeconds; }
};

} // namespace

void tst_timeline::model_agreesOnRandomQueries()
{
    std::mt19937 random(777);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    for (int round = 0; round < 2000; ++round) {
        const Pair pair(random);
        const TimelineModel &model = pair.model;
        const int pass = int(model.pass().size());
        QCOMPARE(passOf(pair.timeline), Pair::seconds(pass));
        QCOMPARE(pair.timeline.hasSlices(), model.sliced());
        for (int query = 0; query < 50; ++query) {
            const int mixerCell = below(2 * pass + 3);
            const double mixerTime = Pair::seconds(mixerCell);
            const std::optional<int> cell = model.cellAt(mixerCell);
            // Without slices the end limit itself is a position, though it plays nothing.
            const bool atEnd = !model.sliced() && !model.looping && mixerCell == pass;
            const double position = cell    ? Pair::seconds(*cell)
                                    : atEnd ? Pair::seconds(model.limitEnd)
                                            : -1.0;
            QCOMPARE(timeOf(pair.timeline, mixerTime), position);
            const double bound = Pair::seconds(model.sliced() ? model.limitStart : model.limitEnd);
            QCOMPARE(pair.timeline.time(mixerTime, true, 0.0, -1.0), cell ? position : bound);

            const int asked = below(TimelineModel::cells + 8);
            QCOMPARE(pair.timeline.mixer_time(Pair::seconds(asked)),
                     model.sliced() || asked < model.limitEnd
                         ? Pair::seconds(model.mixerCellOf(asked))
                         : pair.timeline.duration());

            const int span = 1 + below(6);
            const auto [start, length] =
                pair.timeline.nextChunk(mixerTime, Pair::seconds(span), 44100, 0);
            QCOMPARE(start, cell ? position : 0.0);
            QCOMPARE(length, cell ? Pair::seconds(std::min(span, model.run(*cell))) : 0.0);
            if (cell)
                QCOMPARE(pair.timeline.maxBlockDuration(mixerTime),
                         Pair::seconds(model.run(*cell)));

            const int relative = below(TimelineModel::cells);
            const int there = model.run(relative + model.limitStart);
            const double stored = there > 0 ? Pair::seconds(relative + there) : 0.0;
            QCOMPARE(pair.timeline.currentChunkEnd(Pair::seconds(relative)),
                     model.sliced() ? stored : Pair::seconds(model.limitEnd));

            if (cell) {
                int lastLength = 0;
                const std::vector<int> played = model.pass();
                for (int c = played.back(); model.run(c) > 0; --c)
                    lastLength = model.run(c);
                const bool inLast = *cell + model.run(*cell) == played.back() + 1;
                QCOMPARE(pair.timeline.timeToLoop(mixerTime),
                         Pair::seconds(inLast ? model.run(*cell) : lastLength));
            }
        }
    }
}

void tst_timeline::model_agreesBetweenCells()
{
    std::mt19937 random(4711);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    const int ticksPerCell = 24000;
    for (int round = 0; round < 1000; ++round) {
        Pair pair(random);
        const int pass = int(pair.model.pass().size());
        for (int query = 0; query < 50; ++query) {
            const int mixerCell = below(2 * pass + 2);
            const double into = (1 + below(ticksPerCell - 1)) * tick;
            const double mixerTime = Pair::seconds(mixerCell) + into;
            const std::optional<int> cell = pair.model.cellAt(mixerCell);
            const double expected = cell ? Pair::seconds(*cell) + into : -1.0;
            const double found = timeOf(pair.timeline, mixerTime);
            QVERIFY(qAbs(found - expected) < 1e-9);
            if (!cell)
                continue;
            QVERIFY(qAbs(pair.timeline.mixer_time(found) -
                         (Pair::seconds(pair.model.mixerCellOf(*cell)) + into)) < 1e-9);
            pair.timeline.adjustLoopTime(mixerTime);
            pair.timeline.setLooping(false);
            QVERIFY(qAbs(timeOf(pair.timeline, mixerTime) - expected) < 1e-9);
            pair.timeline.setLooping(pair.model.looping);
            pair.timeline.adjustLoopTime(0.0);
        }
    }
}

void tst_timeline::anyDouble_isSafe()
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

QTEST_GUILESS_MAIN(tst_timeline)
#include "tst_timeline.moc"
