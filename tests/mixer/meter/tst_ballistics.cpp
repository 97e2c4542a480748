// SPDX-License-Identifier: MIT
#include <mixer/meter/ballistics_p.h>

#include <QtTest/QTest>

#include <limits>
#include <vector>

using namespace QTovelMixer;

class tst_Ballistics : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void holdBlocks_roundsDown_data();
    void holdBlocks_roundsDown();
    void followPeak_fallsAfterHold();
    void followPeak_equalPeak_countsDown();
    void followPeak_decaysBeforeComparing();
    void followPeak_withoutHold_fallsAtOnce();
};

void tst_Ballistics::holdBlocks_roundsDown_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<int>("sampleRate");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("blocks");
    QTest::newRow("level at 48000") << 0.05 << 48000 << 2016 << 1;
    QTest::newRow("hold at 48000") << 2.0 << 48000 << 2016 << 47;
    QTest::newRow("level at 44100") << 0.05 << 44100 << 1852 << 1;
    QTest::newRow("hold at 44100") << 2.0 << 44100 << 1852 << 47;
    QTest::newRow("hold at 192000") << 2.0 << 192000 << 8064 << 47;
    QTest::newRow("block longer than the hold") << 0.05 << 48000 << 4800 << 0;
    QTest::newRow("more than an int")
        << 2.0 << std::numeric_limits<int>::max() << 1 << std::numeric_limits<int>::max();
}

void tst_Ballistics::holdBlocks_roundsDown()
{
    QFETCH(double, seconds);
    QFETCH(int, sampleRate);
    QFETCH(int, frames);
    QTEST(holdBlocks(seconds, sampleRate, frames), "blocks");
}

void tst_Ballistics::followPeak_fallsAfterHold()
{
    double level = 0.0;
    int hold = 0;
    std::vector<double> levels;
    for (const double peak : {0.5, 0.0, 0.0, 0.0}) {
        followPeak(level, hold, peak, 1);
        levels.push_back(level);
    }
    QCOMPARE(levels, (std::vector<double>{0.5, 0.5, 0.375, 0.28125}));
    QCOMPARE(hold, 0);
}

void tst_Ballistics::followPeak_equalPeak_countsDown()
{
    double level = 0.5;
    int hold = 3;
    followPeak(level, hold, 0.5, 3);
    QCOMPARE(level, 0.5);
    QCOMPARE(hold, 2);
}

void tst_Ballistics::followPeak_decaysBeforeComparing()
{
    double level = 1.0;
    int hold = 0;
    followPeak(level, hold, 0.8, 5);
    QCOMPARE(level, 0.8); // above the 0.75 that is left of 1.0
    QCOMPARE(hold, 5);
    followPeak(level, hold, 0.9, 5);
    QCOMPARE(level, 0.9); // within the hold
    QCOMPARE(hold, 5);
}

void tst_Ballistics::followPeak_withoutHold_fallsAtOnce()
{
    double level = 0.0;
    int hold = 0;
    followPeak(level, hold, 1.0, 0);
    QCOMPARE(hold, 0);
    followPeak(level, hold, 0.0, 0);
    QCOMPARE(level, 0.75);
}

QTEST_GUILESS_MAIN(tst_Ballistics)
#include "tst_ballistics.moc"
