// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <base/trace_p.h>
#include <mixer/io/timeline_p.h>
#include <support/log_capture.h>

#include "timeline_fixture.h"

#include <QtTest/QTest>

#include <iostream>
#include <memory>
#include <sstream>
#include <type_traits>
#include <utility>

using namespace QTovelMixer;

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
    void emptySlice_inside_staysAndPlaysNothing();
    void limitsExpanded_comparesStrictly();
    void limitsCollapsed_comparesStrictly();
    void addSlice_data();
    void addSlice();
    void addSlice_takesMemoryByDoubling();
    void removeSlice_data();
    void removeSlice();
    void removeSlice_splitsIntoTouchingSlices_forAnEmptyStretch();
    void clearSlices_playsEverythingAgain();
    void debug_writesOneInformationMessage();
    void debug_waits_duringAChangeOfTheMix();
    void printTimeline_writesTheChunks();
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
    QCOMPARE(timeline.end(), infinite); // the one time that may be
    timeline.setLimits(infinite, -infinite);
    QCOMPARE(timeline.start(), 0.0);
    QCOMPARE(timeline.end(), 0.0);
    timeline.setLimits(0.0, 10.0);
    timeline.addSlice(notANumber, 1.0);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,1]");
    timeline.removeSlice(-infinite, notANumber);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,1]"); // an empty stretch at the slice's start
    timeline.addSlice(4.0, infinite);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,1][4,inf]");
    timeline.removeSlice(0.5, infinite);
    QCOMPARE(textOf(slicesOf(timeline)), "[0,0.5]");
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

void tst_timeline::emptySlice_inside_staysAndPlaysNothing()
{
    Timeline timeline;
    fillTimeline(timeline, 0, 10, {{0, 0}, {1, 2}, {5, 5}, {7, 8}, {10, 10}});
    QCOMPARE(textOf(chunksOf(timeline)), "[1,2][5,5][7,8]");
    QCOMPARE(passOf(timeline), 2.0);
    QCOMPARE(timeOf(timeline, 1.0), 7.0);
    QCOMPARE(timeline.mixer_time(7.5), 1.5);
    QCOMPARE(timeline.nextChunk(1.0, 0.5, 48000, 0), std::pair(7.0, 0.5));
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

void tst_timeline::addSlice_takesMemoryByDoubling()
{
    Timeline timeline;
    timeline.setLimits(0.0, 1000.0);
    int growths = 0;
    for (int i = 0; i < 1000; ++i) {
        const size_t slices = slicesOf(timeline).capacity();
        const size_t chunks = chunksOf(timeline).capacity();
        timeline.addSlice(i, i + 0.5);
        growths += slicesOf(timeline).capacity() != slices;
        growths += chunksOf(timeline).capacity() != chunks;
    }
    QCOMPARE(chunksOf(timeline).size(), size_t(1000));
    QVERIFY2(growths <= 24, qPrintable(QString::number(growths)));
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

void tst_timeline::debug_writesOneInformationMessage()
{
    Timeline timeline;
    fillTimeline(timeline, 1, 9.5, {{2, 3}, {5, 6}});
    timeline.setLooping(true);
    const LogCapture log;
    timeline.debug(QStringLiteral("seek"));
    timeline.setLooping(false);
    timeline.debug(QString());
    const QString state = QStringLiteral("Timeline {\n   start: 1\n   end: 9.5\n"
                                         "   duration: 8.5\n   looped_time: 2\n   loop: %1\n}");
    QCOMPARE(log.texts(QtInfoMsg), (QStringList{"seek " + state.arg("true"), state.arg("false")}));
    QCOMPARE(log.count(), 2);
}

// A message handler may take any time, and a block may be waiting for the change to end.
void tst_timeline::debug_waits_duringAChangeOfTheMix()
{
    static thread_local int written;
    written = 0;
    prepareTrace();
    const LogCapture log;
    static QtMessageHandler behind;
    behind = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            ++written;
            behind(type, context, text);
        });
    holdLines();
    Timeline().debug(QStringLiteral("held"));
    const int writtenHere = written;
    releaseLines();
    flushTrace();
    qInstallMessageHandler(behind);
    QCOMPARE(writtenHere, 0);
    QCOMPARE(log.count(), 1);
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

QTEST_GUILESS_MAIN(tst_timeline)
#include "tst_timeline.moc"
