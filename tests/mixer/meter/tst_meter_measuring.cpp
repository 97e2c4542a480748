// SPDX-License-Identifier: MIT
// What a meter measures and publishes, block by block on an idle meter.
#include "meter_fixture.h"

#include <QtTest/QTest>

#include <cmath>
#include <numbers>

using namespace QTovelMixer;

namespace {

constexpr double rounding = 1e-6; // of a float and a way through decibels

#define COMPARE_LEVEL(decibels, expected) \
    QVERIFY2(std::abs(linear(decibels) - (expected)) <= rounding, \
             qPrintable(QString::number(linear(decibels))))

std::vector<float> sine(double frequency, double phase, int channels, int rate, int first,
                        int frames)
{
    std::vector<float> samples;
    for (int frame = first; frame < first + frames; ++frame) {
        const double angle = 2.0 * std::numbers::pi * frequency * frame / rate + phase;
        samples.insert(samples.end(), size_t(channels), float(std::sin(angle)));
    }
    return samples;
}

} // namespace

class tst_MeterMeasuring : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initial_isSilence();
    void level_followsTable_data();
    void level_followsTable();
    void channels_areIndependent();
    void loudness_ofASine();
    void truePeak_measuredWhenEnabled();
    void truePeak_off_leavesSlotsAlone();
    void truePeak_change_restartsReadings();
    void setChannelEnabled_answersChange();
    void setChannelEnabled_restartsReadings();
    void disabledChannel_isLeftOut();
    void allDisabled_measureNothing();
    void noChannels_measureNothing();
    void noChannels_negativeCount();
    void manyChannels_reportTheFirst128();
    void manyChannels_fewEnabled_areMeasured();
    void config_shorterThanChannels();
    void config_longerThanChannels();
    void config_isTakenAtConstruction();
    void valuesChanged_whenAudible();
    void getValues_silence_changesOnce();
    void getValues_inexactReading_changesEachTime();
    void getValues_noTick_isUnchanged();
    void updateStatistics_withoutFrames_measuresNothing();
    void oddRates_areHarmless_data();
    void oddRates_areHarmless();
    void scale_isKept();
    void reset_doesNothing();
};

void tst_MeterMeasuring::initial_isSilence()
{
    const MeterPointer<> meter = makeMeter(2);
    QVERIFY(!meter->isTruePeakEnabled());
    QCOMPARE(meter->numMeterChannels(), 2);
    MeterValues values;
    QVERIFY(meter->getValues(values)); // the count
    QCOMPARE(values.numChannels(), 2);
    QCOMPARE(values.momentaryLoudness(), -120.0);
    QCOMPARE(values.shortTermLoudness(), -120.0);
    QCOMPARE(values.level(0), -120.0);
    QCOMPARE(values.channelIndex(1), 1);
    QVERIFY(!meter->getValues(values));
}

void tst_MeterMeasuring::level_followsTable_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("frames");
    QTest::newRow("48000") << 48000 << 2016;
    QTest::newRow("44100") << 44100 << 1852;
}

void tst_MeterMeasuring::level_followsTable()
{
    QFETCH(int, rate);
    QFETCH(int, frames);
    const MeterPointer<> meter = makeMeter(1, rate);
    const std::vector<double> expected{0.5, 0.5, 0.375, 0.28125};
    for (int block = 1; block <= 50; ++block) {
        measure(*meter, {block == 1 ? -0.5f : 0.0f}, frames);
        const MeterValues values = valuesOf(*meter);
        if (block <= 4)
            COMPARE_LEVEL(values.level(0), expected[size_t(block - 1)]);
        COMPARE_LEVEL(values.hold_level(0), block <= 48 ? 0.5 : block == 49 ? 0.375 : 0.28125);
    }
}

void tst_MeterMeasuring::channels_areIndependent()
{
    const MeterPointer<> meter = makeMeter(3);
    measure(*meter, {0.25f, 0.0f, 1.0f});
    measure(*meter, {0.5f, 0.125f, 0.0f});
    measure(*meter, {0.0f, 0.0f, 0.0f});
    const MeterValues values = valuesOf(*meter);
    COMPARE_LEVEL(values.level(0), 0.5);
    COMPARE_LEVEL(values.level(1), 0.125);
    COMPARE_LEVEL(values.level(2), 0.75);
    COMPARE_LEVEL(values.hold_level(2), 1.0);
}

void tst_MeterMeasuring::loudness_ofASine()
{
    // BS.1770: 997 Hz at full scale in one channel is -3.01 LUFS, in two channels 0.0.
    const MeterPointer<> meter = makeMeter(2);
    for (int block = 0; block < 10; ++block)
        meter->updateStatistics(sine(997.0, 0.0, 2, 48000, block * 2016, 2016).data(), 2016);
    MeterValues values = valuesOf(*meter);
    constexpr double tolerance = 0.1; // LU, of the standard's own compliance tests
    QVERIFY(std::abs(values.momentaryLoudness()) < tolerance);
    const double share = 10.0 * std::log10(0.42 / 3.0); // of the 3 s, the rest is silence
    QVERIFY(std::abs(values.shortTermLoudness() - share) < tolerance);

    meter->setChannelEnabled(1, false);
    for (int block = 0; block < 10; ++block)
        meter->updateStatistics(sine(997.0, 0.0, 2, 48000, block * 2016, 2016).data(), 2016);
    meter->getValues(values);
    QVERIFY(std::abs(values.momentaryLoudness() + 3.01) < tolerance);
}

void tst_MeterMeasuring::truePeak_measuredWhenEnabled()
{
    // A quarter of the rate, sampled beside its crests only.
    const std::vector<float> frames = sine(12000.0, std::numbers::pi / 4, 2, 48000, 0, 2016);
    const MeterPointer<> meter = makeMeter(2);
    meter->setTruePeakEnabled(true);
    QVERIFY(meter->isTruePeakEnabled());
    for (int block = 0; block < 2; ++block)
        meter->updateStatistics(frames.data(), 2016);
    const MeterValues values = valuesOf(*meter);
    COMPARE_LEVEL(values.level(1), std::sqrt(0.5));
    constexpr double ripple = 0.2; // dB, that four-fold oversampling may be off here
    QVERIFY(std::abs(values.true_peak_level(1)) < ripple);
    QVERIFY(std::abs(values.true_peak_hold_level(1)) < ripple);
    // The levels hold one block and the held ones 47.
    for (int block = 0; block < 4; ++block)
        measure(*meter, {0.0f, 0.0f});
    const MeterValues later = valuesOf(*meter);
    QVERIFY(later.true_peak_level(1) < -2.0);
    QCOMPARE(later.true_peak_hold_level(1), values.true_peak_hold_level(1));
}

void tst_MeterMeasuring::truePeak_off_leavesSlotsAlone()
{
    const MeterPointer<> meter = makeMeter(1);
    meter->setTruePeakEnabled(true);
    measure(*meter, {0.5f});
    MeterValues values = valuesOf(*meter);
    const double held = values.true_peak_hold_level(0);
    QVERIFY(held > -7.0);
    meter->setTruePeakEnabled(false);
    QVERIFY(!meter->isTruePeakEnabled());
    measure(*meter, {0.0f});
    QVERIFY(meter->getValues(values));
    QCOMPARE(values.level(0), -120.0);
    QCOMPARE(values.true_peak_hold_level(0), held);
    MeterValues fresh = valuesOf(*meter);
    QCOMPARE(fresh.true_peak_level(0), -120.0);
}

void tst_MeterMeasuring::truePeak_change_restartsReadings()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {0.5f});
    meter->setTruePeakEnabled(false);
    measure(*meter, {0.0f});
    COMPARE_LEVEL(valuesOf(*meter).level(0), 0.5); // nothing was switched
    meter->setTruePeakEnabled(true);
    COMPARE_LEVEL(valuesOf(*meter).level(0), 0.5); // not measured again yet
    measure(*meter, {0.0f});
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.level(0), -120.0);
    QCOMPARE(values.hold_level(0), -120.0);
    QCOMPARE(values.momentaryLoudness(), -120.0);
    QCOMPARE(values.shortTermLoudness(), -120.0);
}

void tst_MeterMeasuring::setChannelEnabled_answersChange()
{
    const MeterPointer<> meter = makeMeter(2);
    QVERIFY(!meter->setChannelEnabled(0, true));
    QVERIFY(meter->setChannelEnabled(0, false));
    QVERIFY(!meter->setChannelEnabled(0, false));
    QVERIFY(!meter->channelEnabled(0));
    QVERIFY(meter->channelEnabled(1));
    QCOMPARE(meter->numMeterChannels(), 1);
    for (const int channel : {-1, 2, 1000}) {
        QVERIFY(!meter->channelEnabled(channel));
        QVERIFY(!meter->setChannelEnabled(channel, true));
        QVERIFY(!meter->setChannelEnabled(channel, false));
    }
}

void tst_MeterMeasuring::setChannelEnabled_restartsReadings()
{
    const MeterPointer<> meter = makeMeter(2);
    measure(*meter, {0.5f, 0.5f});
    QVERIFY(meter->setChannelEnabled(1, false));
    QCOMPARE(valuesOf(*meter).numChannels(), 2); // as published
    measure(*meter, {0.0f, 1.0f});
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 1);
    QCOMPARE(values.hold_level(0), -120.0);
    QCOMPARE(values.momentaryLoudness(), -120.0);
}

void tst_MeterMeasuring::disabledChannel_isLeftOut()
{
    const MeterPointer<> meter = makeMeter(4);
    QVERIFY(meter->setChannelEnabled(1, false));
    meter->setTruePeakEnabled(true);
    measure(*meter, {0.125f, 1.0f, 0.25f, 0.5f});
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 3);
    const int channels[] = {0, 2, 3};
    const double levels[] = {0.125, 0.25, 0.5};
    for (int slot = 0; slot < 3; ++slot) {
        QCOMPARE(values.channelIndex(slot), channels[slot]);
        COMPARE_LEVEL(values.level(slot), levels[slot]);
        QVERIFY(linear(values.true_peak_level(slot)) >= levels[slot] - rounding);
        QVERIFY(linear(values.true_peak_level(slot)) < levels[slot] * 1.5);
    }
}

void tst_MeterMeasuring::allDisabled_measureNothing()
{
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    meter->setChannelEnabled(0, false);
    meter->setChannelEnabled(1, false);
    QCOMPARE(meter->numMeterChannels(), 0);
    measure(*meter, {1.0f, 1.0f});
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 0);
    QVERIFY(!values.isValid());
    QCOMPARE(emitted.changed, 0);
    // Enabled again, they are measured again.
    meter->setChannelEnabled(1, true);
    measure(*meter, {1.0f, 0.5f});
    COMPARE_LEVEL(valuesOf(*meter).level(0), 0.5);
    QCOMPARE(valuesOf(*meter).channelIndex(0), 1);
    QCOMPARE(emitted.changed, 1);
}

void tst_MeterMeasuring::noChannels_measureNothing()
{
    const MeterPointer<> meter = makeMeter(0);
    MeterSignals emitted(meter.get());
    QCOMPARE(meter->numMeterChannels(), 0);
    QVERIFY(!meter->channelEnabled(0));
    meter->setTruePeakEnabled(true);
    const float none = 0.0f;
    meter->updateStatistics(&none, 2016);
    MeterValues values;
    QVERIFY(!meter->getValues(values));
    QCOMPARE(values.numChannels(), 0);
    QCOMPARE(emitted.changed, 0);
}

void tst_MeterMeasuring::noChannels_negativeCount()
{
    const MeterPointer<> meter = makeMeter(-3);
    QCOMPARE(meter->numMeterChannels(), 0);
    const float none = 0.0f;
    meter->updateStatistics(&none, 2016);
    QCOMPARE(valuesOf(*meter).numChannels(), 0);
}

void tst_MeterMeasuring::manyChannels_reportTheFirst128()
{
    const MeterPointer<> meter = makeMeter(200);
    QCOMPARE(meter->numMeterChannels(), 200);
    measure(*meter, std::vector<float>(200, 1.0f));
    MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 128);
    QCOMPARE(values.channelIndex(127), 127);
    QCOMPARE(values.level(0), -120.0); // more than can be measured together
    for (int channel = 128; channel < 200; ++channel)
        QVERIFY(meter->setChannelEnabled(channel, false));
    measure(*meter, std::vector<float>(200, 1.0f));
    meter->getValues(values);
    QCOMPARE(values.numChannels(), 128);
    QCOMPARE(values.level(127), 0.0);
}

void tst_MeterMeasuring::manyChannels_fewEnabled_areMeasured()
{
    std::vector<bool> flags(200, false);
    flags[3] = flags[130] = flags[199] = true;
    const MeterPointer<> meter = makeMeter(200, 48000, configOf(flags));
    std::vector<float> peaks(200, 1.0f);
    peaks[3] = 0.125f;
    peaks[130] = 0.25f;
    peaks[199] = 0.5f;
    measure(*meter, peaks);
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 3);
    QCOMPARE(values.channelIndex(1), 130);
    QCOMPARE(values.channelIndex(2), 199);
    COMPARE_LEVEL(values.level(0), 0.125);
    COMPARE_LEVEL(values.level(1), 0.25);
    COMPARE_LEVEL(values.level(2), 0.5);
}

void tst_MeterMeasuring::config_shorterThanChannels()
{
    const MeterPointer<> meter = makeMeter(40, 48000, configOf(std::vector<bool>(32, true)));
    QCOMPARE(meter->numMeterChannels(), 32);
    QVERIFY(meter->channelEnabled(31));
    QVERIFY(!meter->channelEnabled(32));
    QVERIFY(!meter->setChannelEnabled(32, true));
    QVERIFY(!meter->setChannelEnabled(39, false));
    std::vector<float> peaks(40, 1.0f);
    peaks[31] = 0.5f;
    measure(*meter, peaks);
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 32);
    QCOMPARE(values.channelIndex(31), 31);
    COMPARE_LEVEL(values.level(31), 0.5);
}

void tst_MeterMeasuring::config_longerThanChannels()
{
    const MeterPointer<> meter = makeMeter(2, 48000, configOf({false, true, true, true}));
    QCOMPARE(meter->numMeterChannels(), 1);
    QVERIFY(!meter->channelEnabled(2));
    QVERIFY(!meter->setChannelEnabled(2, false));
    measure(*meter, {1.0f, 0.5f});
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 1);
    QCOMPARE(values.channelIndex(0), 1);
    COMPARE_LEVEL(values.level(0), 0.5);
}

void tst_MeterMeasuring::config_isTakenAtConstruction()
{
    MeterConfig config = configOf({true, false});
    const MeterPointer<> meter = makeMeter(2, 48000, config);
    config.setMeterEnabled(1, true);
    QVERIFY(!meter->channelEnabled(1));
    meter->setChannelEnabled(0, false);
    QVERIFY(config.meterEnabled(0));
    const MeterPointer<> all = makeMeter(2, 48000, configOf({}));
    QCOMPARE(all->numMeterChannels(), 2);
}

void tst_MeterMeasuring::valuesChanged_whenAudible()
{
    const MeterPointer<> meter = makeMeter(2);
    MeterSignals emitted(meter.get());
    measure(*meter, {0.0f, 0.0f});
    QCOMPARE(emitted.changed, 0);
    measure(*meter, {0.00004f, 0.00005f}); // 0.00009 together
    QCOMPARE(emitted.changed, 0);
    measure(*meter, {0.00006f, 0.00005f}); // 0.00011 together
    QCOMPARE(emitted.changed, 1);
    measure(*meter, {0.0f, 0.0f}); // still held
    QCOMPARE(emitted.changed, 2);
    QCOMPARE(emitted.started, 0);
    QCOMPARE(emitted.stopped, 0);
}

void tst_MeterMeasuring::getValues_silence_changesOnce()
{
    const MeterPointer<> meter = makeMeter(2);
    MeterValues values = valuesOf(*meter);
    measure(*meter, {0.0f, 0.0f});
    QVERIFY(!meter->getValues(values));
    measure(*meter, {0.5f, 0.0f});
    QVERIFY(meter->getValues(values));
    QVERIFY(!meter->getValues(values));
}

void tst_MeterMeasuring::getValues_inexactReading_changesEachTime()
{
    const MeterPointer<> meter = makeMeter(1);
    MeterValues values = valuesOf(*meter);
    for (const float peak : {0.7f, 0.0f}) {
        measure(*meter, {peak});
        QVERIFY(meter->getValues(values));  // the loudness moves
        QVERIFY(!meter->getValues(values)); // 0.7f as it stands
    }
    measure(*meter, {0.0f}); // three quarters of it have two binary digits more
    for (int call = 0; call < 3; ++call)
        QVERIFY(meter->getValues(values));
    COMPARE_LEVEL(values.level(0), 0.525);
}

void tst_MeterMeasuring::getValues_noTick_isUnchanged()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {0.5f});
    measure(*meter, {0.0f});
    measure(*meter, {0.0f}); // 0.375, which a float holds
    MeterValues values = valuesOf(*meter);
    QVERIFY(!meter->getValues(values));
    MeterValues other(5);
    QVERIFY(meter->getValues(other));
    QCOMPARE(other.numChannels(), 1);
    QVERIFY(!meter->getValues(other));
}

void tst_MeterMeasuring::updateStatistics_withoutFrames_measuresNothing()
{
    const MeterPointer<> meter = makeMeter(1);
    MeterSignals emitted(meter.get());
    measure(*meter, {0.5f});
    for (const int frames : {0, -1, -2016})
        meter->updateStatistics(nullptr, frames);
    COMPARE_LEVEL(valuesOf(*meter).level(0), 0.5);
    QCOMPARE(emitted.changed, 1);
}

void tst_MeterMeasuring::oddRates_areHarmless_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("none") << 0;
    QTest::newRow("negative") << -48000;
    QTest::newRow("one") << 1;
    QTest::newRow("more than any device") << 2147483647;
}

void tst_MeterMeasuring::oddRates_areHarmless()
{
    QFETCH(int, rate);
    const MeterPointer<> meter = makeMeter(1, rate);
    measure(*meter, {0.5f}, 64);
    measure(*meter, {0.0f}, 64);
    QCOMPARE(valuesOf(*meter).numChannels(), 1);
}

void tst_MeterMeasuring::scale_isKept()
{
    const MeterPointer<> meter = makeMeter(1);
    QCOMPARE(meter->minMeterLevel(), -120.0);
    QCOMPARE(meter->maxMeterLevel(), 0.0);
    meter->setMinMeterLevel(-60.0);
    meter->setMaxMeterLevel(6.0);
    QCOMPARE(meter->minMeterLevel(), -60.0);
    QCOMPARE(meter->maxMeterLevel(), 6.0);
    measure(*meter, {0.0001f});
    QVERIFY(valuesOf(*meter).level(0) < -79.0);
}

void tst_MeterMeasuring::reset_doesNothing()
{
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {0.5f});
    MeterValues values = valuesOf(*meter);
    meter->reset();
    QVERIFY(!meter->getValues(values));
}

QTEST_GUILESS_MAIN(tst_MeterMeasuring)
#include "tst_meter_measuring.moc"
