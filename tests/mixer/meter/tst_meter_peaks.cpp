// SPDX-License-Identifier: MIT
// Peaks above full scale, the largest ones, and overs, block by block on an idle meter.
#include "meter_fixture.h"

#include <mixer/meter/peak_reading.h>
#include <support/log_capture.h>

#include <QtTest/QTest>

#include <cmath>
#include <limits>

using namespace QTovelMixer;

namespace {

constexpr int rate = 48000;

std::vector<float> silentBlock(int channels = 1, int frames = blockFrames)
{
    return std::vector<float>(size_t(channels) * size_t(frames), 0.0F);
}

void measureBlock(Meter &meter, const std::vector<float> &samples, int channels = 1)
{
    meter.updateStatistics(samples.data(), int(samples.size()) / channels);
}

PeakReading peaksOf(const Meter &meter)
{
    PeakReading peaks;
    meter.getPeaks(peaks);
    return peaks;
}

} // namespace

class tst_MeterPeaks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void decibels_haveNoUpperBound();
    void initial_isSilence();
    void levels_areNotClamped();
    void levels_followTheBallistics();
    void maximum_keepsTheFirstPlace();
    void maximum_staysUntilReset();
    void maximum_isByDeviceChannel();
    void maximum_survivesASwitch();
    void truePeak_isKept_whileMeasured();
    void overs_data();
    void overs();
    void overs_acrossBlocks();
    void overs_ofOtherLevels();
    void overRule_refusesNonsense();
    void notFinite_isNothing();
    void stopping_addsNothing();
    void getPeaks_answersChange();
    void manyChannels_areSilent();
};

void tst_MeterPeaks::decibels_haveNoUpperBound()
{
    QCOMPARE(PeakReading::decibels(0.0), -120.0);
    QCOMPARE(PeakReading::decibels(1e-30), -120.0);
    QCOMPARE(PeakReading::decibels(-1.0), -120.0);
    QCOMPARE(PeakReading::decibels(std::numeric_limits<double>::quiet_NaN()), -120.0);
    QCOMPARE(PeakReading::decibels(1.0), 0.0);
    QCOMPARE(PeakReading::decibels(10.0), 20.0);
    QCOMPARE(PeakReading::decibels(0.1), -20.0);
}

void tst_MeterPeaks::initial_isSilence()
{
    const MeterPointer<> meter = makeMeter(2);
    PeakReading peaks;
    QVERIFY(meter->getPeaks(peaks)); // the channels
    QCOMPARE(peaks.channels.size(), size_t(2));
    QCOMPARE(peaks.channels[1].channel, 1);
    QCOMPARE(peaks.channels[1].level, 0.0);
    QCOMPARE(peaks.channels[1].overs, 0);
    QCOMPARE(peaks.seconds, 0.0);
    QVERIFY(!peaks.hasTruePeak);
    QVERIFY(!meter->getPeaks(peaks));
}

void tst_MeterPeaks::levels_areNotClamped()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {-2.0F});
    QCOMPARE(valuesOf(*meter).level(0), 0.0);
    const ChannelPeaks peaks = peaksOf(*meter).channels.at(0);
    QCOMPARE(peaks.level, 2.0);
    QCOMPARE(peaks.holdLevel, 2.0);
    QCOMPARE(peaks.maxLevel, 2.0);
    QVERIFY(std::abs(PeakReading::decibels(peaks.level) - 6.0206) < 1e-4);
}

void tst_MeterPeaks::levels_followTheBallistics()
{
    const MeterPointer<> meter = makeMeter(1);
    float peak = 2.0F;
    for (const double expected : {2.0, 2.0, 1.5, 1.125}) {
        measure(*meter, {peak});
        peak = 0.0F;
        QCOMPARE(peaksOf(*meter).channels.at(0).level, expected);
        QCOMPARE(peaksOf(*meter).channels.at(0).holdLevel, 2.0);
    }
}

void tst_MeterPeaks::maximum_keepsTheFirstPlace()
{
    const MeterPointer<> meter = makeMeter(1);
    measureBlock(*meter, silentBlock());
    std::vector<float> block = silentBlock();
    block[480] = -0.5F;
    block[960] = 0.5F;
    measureBlock(*meter, block);
    measureBlock(*meter, block);
    const PeakReading peaks = peaksOf(*meter);
    QCOMPARE(peaks.channels.at(0).maxLevel, 0.5);
    QCOMPARE(peaks.channels.at(0).maxLevelTime, double(blockFrames + 480) / rate);
    QCOMPARE(peaks.seconds, 3.0 * blockFrames / rate);
}

void tst_MeterPeaks::maximum_staysUntilReset()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {1.5F});
    for (int block = 0; block < 200; ++block)
        measure(*meter, {0.0F});
    PeakReading peaks = peaksOf(*meter);
    QVERIFY(peaks.channels.at(0).holdLevel < 0.001); // fallen
    QCOMPARE(peaks.channels.at(0).maxLevel, 1.5);
    QCOMPARE(peaks.channels.at(0).overs, 1);
    meter->resetHolds();
    QVERIFY(meter->getPeaks(peaks));
    QCOMPARE(peaks.channels.at(0).maxLevel, 0.0);
    QCOMPARE(peaks.channels.at(0).overs, 0);
    QCOMPARE(peaks.seconds, 0.0);
    measure(*meter, {0.25F});
    QCOMPARE(peaksOf(*meter).channels.at(0).maxLevel, 0.25);
    QCOMPARE(peaksOf(*meter).channels.at(0).maxLevelTime, 0.0);
}

void tst_MeterPeaks::maximum_isByDeviceChannel()
{
    const MeterPointer<> meter = makeMeter(3);
    meter->setChannelEnabled(1, false);
    std::vector<float> block = silentBlock(3);
    block[3 * 100 + 0] = 0.25F;
    block[3 * 200 + 1] = 2.0F;
    block[3 * 300 + 2] = 1.0F;
    measureBlock(*meter, block, 3);
    const PeakReading peaks = peaksOf(*meter);
    QCOMPARE(peaks.channels.size(), size_t(2));
    QCOMPARE(peaks.channels[0].maxLevel, 0.25);
    QCOMPARE(peaks.channels[0].maxLevelTime, 100.0 / rate);
    QCOMPARE(peaks.channels[0].overs, 0);
    QCOMPARE(peaks.channels[1].channel, 2);
    QCOMPARE(peaks.channels[1].maxLevel, 1.0);
    QCOMPARE(peaks.channels[1].maxLevelTime, 300.0 / rate);
    QCOMPARE(peaks.channels[1].overs, 1);
}

void tst_MeterPeaks::maximum_survivesASwitch()
{
    const MeterPointer<> meter = makeMeter(2);
    measure(*meter, {1.25F, 0.5F});
    meter->setChannelEnabled(1, false);
    measure(*meter, {0.0F, 2.0F});
    QCOMPARE(peaksOf(*meter).channels.at(0).level, 0.0); // all readings start afresh
    QCOMPARE(peaksOf(*meter).channels.at(0).maxLevel, 1.25);
    meter->setChannelEnabled(1, true);
    measure(*meter, {0.0F, 0.0F});
    QCOMPARE(peaksOf(*meter).channels.at(1).maxLevel,
             0.5); // what it did while it was off is unknown
}

void tst_MeterPeaks::truePeak_isKept_whileMeasured()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {0.5F});
    QCOMPARE(peaksOf(*meter).channels.at(0).maxTruePeak, 0.0);
    meter->setTruePeakEnabled(true);
    measure(*meter, {0.0F});
    measure(*meter, {2.0F});
    measure(*meter, {2.0F});
    PeakReading peaks = peaksOf(*meter);
    QVERIFY(peaks.hasTruePeak);
    QVERIFY(peaks.channels.at(0).maxTruePeak >= 2.0);
    QVERIFY(peaks.channels.at(0).truePeakLevel >= 2.0);
    QCOMPARE(peaks.channels.at(0).maxTruePeakTime, 2.0 * blockFrames / rate);
    meter->setTruePeakEnabled(false);
    measure(*meter, {0.0F});
    peaks = peaksOf(*meter);
    QVERIFY(!peaks.hasTruePeak);
    QCOMPARE(peaks.channels.at(0).truePeakLevel, 0.0);
    QVERIFY(peaks.channels.at(0).maxTruePeak >= 2.0);
}

void tst_MeterPeaks::overs_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("expected");
    // Below there are runs of 1, 2, 3 and 7 samples.
    QTest::newRow("1") << 1 << 4;
    QTest::newRow("2") << 2 << 3;
    QTest::newRow("3") << 3 << 2;
    QTest::newRow("4") << 4 << 1;
    QTest::newRow("8") << 8 << 0;
}

void tst_MeterPeaks::overs()
{
    QFETCH(int, length);
    QFETCH(int, expected);
    const MeterPointer<> meter = makeMeter(1);
    QVERIFY(meter->setOverRule(length));
    QCOMPARE(meter->overLength(), length);
    std::vector<float> block = silentBlock();
    size_t place = 10;
    for (const size_t run : {1U, 2U, 3U, 7U}) {
        for (size_t i = 0; i < run; ++i)
            block[place + i] = i % 2 == 0 ? 1.0F : -1.5F;
        block[place + run] = 0.999F;
        place += run + 1;
    }
    measureBlock(*meter, block);
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, expected);
}

void tst_MeterPeaks::overs_acrossBlocks()
{
    const MeterPointer<> meter = makeMeter(1);
    meter->setOverRule(3);
    std::vector<float> ends = silentBlock();
    ends[blockFrames - 2] = ends[blockFrames - 1] = 1.0F;
    std::vector<float> begins = silentBlock();
    begins[0] = 1.0F;
    measureBlock(*meter, ends);
    measureBlock(*meter, begins);
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 1);
    measureBlock(*meter, ends);
    measureBlock(*meter, silentBlock());
    measureBlock(*meter, begins);
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 1);
    measureBlock(*meter, ends);
    meter->setOverRule(3); // starts afresh
    measureBlock(*meter, begins);
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 1);
    // A run over many blocks is one.
    for (int block = 0; block < 5; ++block)
        measure(*meter, {1.0F});
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 2);
}

void tst_MeterPeaks::overs_ofOtherLevels()
{
    const MeterPointer<> meter = makeMeter(1);
    constexpr double largest16Bit = 32767.0 / 32768.0;
    measure(*meter, {float(largest16Bit)});
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 0);
    QVERIFY(meter->setOverRule(1, largest16Bit));
    QCOMPARE(meter->overLevel(), largest16Bit);
    measure(*meter, {float(largest16Bit)});
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 1);
}

void tst_MeterPeaks::overRule_refusesNonsense()
{
    const MeterPointer<> meter = makeMeter(1);
    QCOMPARE(meter->overLength(), 1);
    QCOMPARE(meter->overLevel(), 1.0);
    QVERIFY(meter->setOverRule(3, 0.5));
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double level : {0.0, -1.0, infinity, std::numeric_limits<double>::quiet_NaN()})
        QVERIFY(!meter->setOverRule(1, level));
    LogCapture log;
    QVERIFY(!meter->setOverRule(0));
    QVERIFY(!meter->setOverRule(-1));
    QCOMPARE(log.countStarting("QTovelMixer::Meter::setOverRule: Invalid rule ("), 2);
    QCOMPARE(meter->overLength(), 3);
    QCOMPARE(meter->overLevel(), 0.5);
}

void tst_MeterPeaks::notFinite_isNothing()
{
    const MeterPointer<> meter = makeMeter(1);
    std::vector<float> block = silentBlock();
    block[1] = std::numeric_limits<float>::infinity();
    block[2] = std::numeric_limits<float>::quiet_NaN();
    block[3] = 0.5F;
    block[4] = -std::numeric_limits<float>::infinity();
    measureBlock(*meter, block);
    const ChannelPeaks peaks = peaksOf(*meter).channels.at(0);
    QCOMPARE(peaks.maxLevel, 0.5);
    QCOMPARE(peaks.maxLevelTime, 3.0 / rate);
    QCOMPARE(peaks.overs, 0);
}

void tst_MeterPeaks::stopping_addsNothing()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {0.5F});
    meter->stop(false);
    measure(*meter, {2.0F});
    QCOMPARE(peaksOf(*meter).channels.at(0).maxLevel, 0.5);
    QCOMPARE(peaksOf(*meter).channels.at(0).overs, 0);
    QCOMPARE(peaksOf(*meter).seconds, double(blockFrames) / rate);
}

void tst_MeterPeaks::getPeaks_answersChange()
{
    const MeterPointer<> meter = makeMeter(2);
    PeakReading peaks = peaksOf(*meter);
    measure(*meter, {0.3F, 0.0F});
    QVERIFY(meter->getPeaks(peaks));
    QVERIFY(!meter->getPeaks(peaks)); // doubles hold every reading
    meter->setChannelEnabled(0, false);
    measure(*meter, {0.0F, 0.0F});
    QVERIFY(meter->getPeaks(peaks));
    QCOMPARE(peaks.channels.size(), size_t(1));
    QVERIFY(!meter->getPeaks(peaks));
}

void tst_MeterPeaks::manyChannels_areSilent()
{
    const MeterPointer<> meter = makeMeter(200);
    measure(*meter, std::vector<float>(200, 2.0F));
    const PeakReading peaks = peaksOf(*meter);
    QCOMPARE(peaks.channels.size(), size_t(200));
    QCOMPARE(peaks.channels[199].maxLevel, 0.0);
    QCOMPARE(peaks.channels[199].overs, 0);
}

QTEST_GUILESS_MAIN(tst_MeterPeaks)
#include "tst_meter_peaks.moc"
