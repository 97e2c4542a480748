// SPDX-License-Identifier: MIT
// The measurement of a programme by an idle meter: its states, and what it does about switches.
#include "programme_fixture.h"

#include <mixer/meter/channel_layout.h>

#include <QtTest/QTest>

#include <cmath>
#include <limits>

using namespace QTovelMixer;

namespace {

constexpr int rate = 48000;

#define COMPARE_LUFS(actual, expected, allowed) \
    QVERIFY2(std::abs((actual) - (expected)) <= (allowed), qPrintable(QString::number(actual)))

constexpr double nearly = 0.02; // LU, of a tone's first and last periods

} // namespace

class tst_MeterProgramme : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void off_isSilence();
    void off_isNothingToPause();
    void start_givesFigures();
    void start_twice_goesOn();
    void pause_keepsTheFigures();
    void pause_keepsBlocksApart();
    void reset_beginsAnew();
    void reset_leavesOutWhatWasBefore();
    void end_forgets();
    void stop_ofTheMeter_keepsTheMeasurement();
    void silence_isNoMeasurement();
    void notFinite_isSilence();
    void blocks_ofAnyLength_giveTheSame();
    void peakToLoudness_isTheirDistance();
    void truePeak_isMeasuredOnce();
    void readings_beside_areUntouched();
    void mask_leavesOut_andMovesNoWeight();
    void mask_goesOnAfterASwitch();
    void layout_weighsChannels();
    void layout_weighsTheOtherReadings_too();
    void layout_dualMono();
    void manyChannels_areSilent();
    void oddRates_areHarmless_data();
    void oddRates_areHarmless();
    void everyFormat_isHarmless();
    void dayOfSilence_isSilence();
};

void tst_MeterProgramme::off_isSilence()
{
    const MeterPointer<> meter = makeMeter(2);
    QCOMPARE(meter->loudness(), LoudnessReading());
    Tones(*meter, rate, 2).tone(1.0, -10.0);
    QCOMPARE(meter->loudness(), LoudnessReading());
    QCOMPARE(meter->loudness().state, MeasurementState::MeasurementOff);
    QCOMPARE(meter->loudness().integrated, -120.0);
}

void tst_MeterProgramme::off_isNothingToPause()
{
    const MeterPointer<> meter = makeMeter(2);
    meter->pauseMeasurement();
    meter->resetMeasurement();
    meter->endMeasurement();
    QCOMPARE(meter->loudness(), LoudnessReading());
}

void tst_MeterProgramme::start_givesFigures()
{
    const MeterPointer<> meter = makeMeter(2);
    meter->startMeasurement();
    QCOMPARE(meter->loudness().state, MeasurementState::MeasurementRunning);
    QCOMPARE(meter->loudness().momentary, -120.0);
    Tones(*meter, rate, 2).tone(4.2, -20.0);
    const LoudnessReading reading = meter->loudness();
    COMPARE_LUFS(reading.seconds, 4.2, 1e-9);
    COMPARE_LUFS(reading.momentary, -20.0, nearly);
    COMPARE_LUFS(reading.shortTerm, -20.0, nearly);
    COMPARE_LUFS(reading.integrated, -20.0, nearly);
    COMPARE_LUFS(reading.relativeThreshold, -30.0, nearly);
    COMPARE_LUFS(reading.range, 0.0, nearly);
    COMPARE_LUFS(reading.rangeLow, -20.0, nearly);
    COMPARE_LUFS(reading.rangeHigh, -20.0, nearly);
    COMPARE_LUFS(reading.maxMomentary, -20.0, nearly);
    COMPARE_LUFS(reading.maxShortTerm, -20.0, nearly);
    COMPARE_LUFS(reading.maxTruePeak, -20.0, 0.05);
}

void tst_MeterProgramme::start_twice_goesOn()
{
    const MeterPointer<> meter = makeMeter(1);
    Tones tones(*meter, rate, 1);
    meter->startMeasurement();
    tones.tone(2.1, -20.0);
    const LoudnessReading before = meter->loudness();
    meter->startMeasurement();
    QCOMPARE(meter->loudness(), before);
    tones.tone(2.1, -20.0);
    COMPARE_LUFS(meter->loudness().seconds, 4.2, 1e-9);
    QVERIFY(meter->loudness().rangeHigh > -30.0); // a window of 3 s was whole
}

void tst_MeterProgramme::pause_keepsTheFigures()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -30.0);
    meter->pauseMeasurement();
    const LoudnessReading before = meter->loudness();
    QCOMPARE(before.state, MeasurementState::MeasurementPaused);
    tones.tone(4.2, -10.0);
    const LoudnessReading paused = meter->loudness();
    COMPARE_LUFS(paused.momentary, -10.0, nearly);
    COMPARE_LUFS(paused.shortTerm, -10.0, nearly);
    LoudnessReading expected = before;
    expected.momentary = paused.momentary;
    expected.shortTerm = paused.shortTerm;
    QCOMPARE(paused, expected);
}

void tst_MeterProgramme::pause_keepsBlocksApart()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -30.0);
    meter->pauseMeasurement();
    tones.tone(4.2, -10.0);
    meter->startMeasurement();
    QCOMPARE(meter->loudness().state, MeasurementState::MeasurementRunning);
    tones.tone(4.2, -30.0);
    const LoudnessReading reading = meter->loudness();
    COMPARE_LUFS(reading.seconds, 8.4, 0.011);
    COMPARE_LUFS(reading.integrated, -30.0, 0.05); // but for what the low cut remembers
    COMPARE_LUFS(reading.rangeHigh, -30.0, 0.05);
    COMPARE_LUFS(reading.maxMomentary, -30.0, 0.05);
    COMPARE_LUFS(reading.maxShortTerm, -30.0, 0.05);
    QVERIFY(reading.maxTruePeak < -12.0); // the tone of -10 dB ends 6 frames before its filter
}

void tst_MeterProgramme::reset_beginsAnew()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -10.0);
    meter->resetMeasurement();
    LoudnessReading reading = meter->loudness();
    QCOMPARE(reading.state, MeasurementState::MeasurementRunning);
    QCOMPARE(reading.seconds, 0.0);
    QCOMPARE(reading.integrated, -120.0);
    QCOMPARE(reading.relativeThreshold, -120.0);
    QCOMPARE(reading.range, 0.0);
    QCOMPARE(reading.rangeHigh, -120.0);
    QCOMPARE(reading.maxMomentary, -120.0);
    QCOMPARE(reading.maxMomentaryTime, 0.0);
    QCOMPARE(reading.maxShortTerm, -120.0);
    QCOMPARE(reading.maxTruePeak, -120.0);
    QCOMPARE(reading.peakToLoudness, 0.0);
    COMPARE_LUFS(reading.momentary, -10.0, nearly); // goes on
    meter->pauseMeasurement();
    meter->resetMeasurement();
    QCOMPARE(meter->loudness().state, MeasurementState::MeasurementPaused);
}

void tst_MeterProgramme::reset_leavesOutWhatWasBefore()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -10.0);
    meter->resetMeasurement();
    tones.tone(4.2, -40.0);
    const LoudnessReading reading = meter->loudness();
    COMPARE_LUFS(reading.integrated, -40.0, 0.1); // but for what the low cut remembers
    COMPARE_LUFS(reading.maxMomentary, -40.0, 1.0);
    COMPARE_LUFS(reading.maxShortTerm, -40.0, 0.2);
    COMPARE_LUFS(reading.seconds, 4.2, 0.006);
}

void tst_MeterProgramme::end_forgets()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(1.05, -10.0);
    meter->endMeasurement();
    QCOMPARE(meter->loudness(), LoudnessReading());
    tones.tone(1.05, -10.0);
    QCOMPARE(meter->loudness(), LoudnessReading());
    meter->startMeasurement();
    QCOMPARE(meter->loudness().seconds, 0.0);
    tones.tone(1.05, -20.0);
    COMPARE_LUFS(meter->loudness().integrated, -20.0, 0.1);
}

void tst_MeterProgramme::stop_ofTheMeter_keepsTheMeasurement()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -20.0);
    const double integrated = meter->loudness().integrated;
    meter->stop(false);
    Tones(*meter, rate, 2).tone(4.2, -5.0); // what comes during a stop is not of the programme
    QCOMPARE(meter->loudness().integrated, integrated);
    QCOMPARE(meter->loudness().state, MeasurementState::MeasurementRunning);
    meter->start();
    meter->stop(true);
    QCOMPARE(meter->loudness().integrated, integrated);
}

void tst_MeterProgramme::silence_isNoMeasurement()
{
    const MeterPointer<> meter = makeMeter(2);
    meter->startMeasurement();
    Tones(*meter, rate, 2).pause(4.2);
    LoudnessReading expected;
    expected.state = MeasurementState::MeasurementRunning;
    expected.seconds = 4.2;
    QCOMPARE(meter->loudness(), expected);
    Tones(*meter, rate, 2).tone(4.2, -75.0); // below the absolute gate
    QCOMPARE(meter->loudness().integrated, -120.0);
    COMPARE_LUFS(meter->loudness().maxMomentary, -75.0, nearly);
}

void tst_MeterProgramme::notFinite_isSilence()
{
    const MeterPointer<> meter = makeMeter(2);
    meter->startMeasurement();
    for (const float value :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::denorm_min()}) {
        for (int block = 0; block < 20; ++block)
            measure(*meter, {value, -value});
    }
    QCOMPARE(meter->loudness().maxMomentary, -120.0);
    QCOMPARE(meter->loudness().integrated, -120.0);
    for (int block = 0; block < 100; ++block)
        measure(*meter, {3e38F, -3e38F});
    for (const double value : {meter->loudness().integrated, meter->loudness().maxShortTerm,
                               meter->loudness().maxTruePeak})
        QVERIFY(std::isfinite(value) && value > 500.0);
    Tones(*meter, rate, 2).tone(4.2, -20.0);
    COMPARE_LUFS(meter->loudness().shortTerm, -20.0, 0.1); // it comes back
}

void tst_MeterProgramme::blocks_ofAnyLength_giveTheSame()
{
    std::vector<float> samples;
    for (int i = 0; i < 6 * rate; ++i) {
        const double swell = std::sin(i * 1e-4) * std::sin(i * 3e-5);
        samples.push_back(float(swell * std::sin(i * 0.1)));
        samples.push_back(float(swell * 0.5 * std::sin(i * 0.37)));
    }
    const auto readingBy = [&](int block) {
        const MeterPointer<> meter = makeMeter(2);
        meter->startMeasurement();
        for (int done = 0; done < 6 * rate; done += block)
            meter->updateStatistics(samples.data() + 2 * done, std::min(block, 6 * rate - done));
        return meter->loudness();
    };
    const LoudnessReading expected = readingBy(blockFrames);
    for (const int block : {64, 997, 6 * rate}) {
        const LoudnessReading reading = readingBy(block);
        constexpr double rounding = 1e-9; // LU
        COMPARE_LUFS(reading.integrated, expected.integrated, rounding);
        COMPARE_LUFS(reading.range, expected.range, rounding);
        COMPARE_LUFS(reading.maxMomentary, expected.maxMomentary, rounding);
        COMPARE_LUFS(reading.maxMomentaryTime, expected.maxMomentaryTime, rounding);
        COMPARE_LUFS(reading.maxShortTerm, expected.maxShortTerm, rounding);
        COMPARE_LUFS(reading.maxTruePeak, expected.maxTruePeak, rounding);
    }
}

void tst_MeterProgramme::peakToLoudness_isTheirDistance()
{
    const MeterPointer<> meter = makeMeter(2);
    meter->startMeasurement();
    std::vector<float> block(2 * blockFrames, 0.0F);
    block[2 * 1000] = 0.5F;
    meter->updateStatistics(block.data(), blockFrames);
    QCOMPARE(meter->loudness().peakToLoudness, 0.0); // nothing to compare with yet
    Tones(*meter, rate, 2).tone(4.2, -23.0);
    COMPARE_LUFS(meter->loudness().maxTruePeak, -6.02, 0.01);
    COMPARE_LUFS(meter->loudness().peakToLoudness, 23.0 - 6.02, 0.25); // the click is loud, too
    QCOMPARE(meter->loudness().maxTruePeakTime, 0.0);
}

void tst_MeterProgramme::truePeak_isMeasuredOnce()
{
    // By the meter's own true peaks when it has them, with the same result.
    double peaks[2] = {};
    for (const bool own : {false, true}) {
        const MeterPointer<> meter = makeMeter(2);
        meter->startMeasurement();
        meter->setTruePeakEnabled(own);
        Tones(*meter, rate, 2).tone(1.05, std::vector{-20.0, -3.0});
        peaks[own ? 1 : 0] = meter->loudness().maxTruePeak;
    }
    COMPARE_LUFS(peaks[0], -3.0, 0.05);
    QCOMPARE(peaks[1], peaks[0]);
}

void tst_MeterProgramme::readings_beside_areUntouched()
{
    const MeterPointer<> plain = makeMeter(2);
    const MeterPointer<> measuring = makeMeter(2);
    Tones some(*plain, rate, 2);
    Tones same(*measuring, rate, 2);
    for (Tones *tones : {&some, &same})
        tones->tone(1.05, -20.0);
    measuring->startMeasurement();
    for (Tones *tones : {&some, &same})
        tones->tone(1.05, -10.0);
    measuring->resetMeasurement();
    measuring->resetHolds();
    for (Tones *tones : {&some, &same})
        tones->pause(0.63);
    const MeterValues expected = valuesOf(*plain);
    const MeterValues values = valuesOf(*measuring);
    QCOMPARE(values.momentaryLoudness(), expected.momentaryLoudness());
    QCOMPARE(values.shortTermLoudness(), expected.shortTermLoudness());
    QCOMPARE(values.level(1), expected.level(1));
    QCOMPARE(values.hold_level(1), expected.hold_level(1));
}

void tst_MeterProgramme::mask_leavesOut_andMovesNoWeight()
{
    // Six channels, of which the first two are switched off: those left are still C LFE Ls Rs.
    const MeterPointer<> meter = makeMeter(6);
    meter->setChannelEnabled(0, false);
    meter->setChannelEnabled(1, false);
    meter->startMeasurement();
    Tones(*meter, rate, 6).tone(1.05, std::vector{0.0, 0.0, noSignal, noSignal, -20.0, noSignal});
    COMPARE_LUFS(meter->loudness().integrated, -23.01 + 1.49, 0.05);
    meter->resetMeasurement();
    Tones(*meter, rate, 6).tone(1.05, std::vector{0.0, 0.0, noSignal, 0.0, noSignal, noSignal});
    COMPARE_LUFS(meter->loudness().momentary, -120.0, 60.0);
}

void tst_MeterProgramme::mask_goesOnAfterASwitch()
{
    const MeterPointer<> meter = makeMeter(2);
    Tones tones(*meter, rate, 2);
    meter->startMeasurement();
    tones.tone(4.2, -20.0);
    meter->setChannelEnabled(1, false);
    tones.tone(4.2, -20.0);
    const LoudnessReading reading = meter->loudness();
    COMPARE_LUFS(reading.momentary, -23.01, nearly);
    const double mean = 10.0 * std::log10((1.0 + 0.5) / 2.0);
    COMPARE_LUFS(reading.integrated, -20.0 + mean, 0.05);
    COMPARE_LUFS(reading.range, 3.01, 0.05);
    COMPARE_LUFS(reading.seconds, 8.4, 0.006);
}

void tst_MeterProgramme::layout_weighsChannels()
{
    const MeterPointer<> meter = makeMeter(8);
    QVERIFY(!meter->layout().isKnown());
    meter->setLayout(ChannelLayout::named("7.1"));
    QVERIFY(meter->layout() == ChannelLayout::named("7.1"));
    const double weights[] = {1.0, 1.0, 1.0, 0.0, 1.41, 1.41, 1.0, 1.0};
    for (size_t channel = 0; channel < 8; ++channel) {
        meter->endMeasurement();
        meter->startMeasurement();
        std::vector<double> levels(8, noSignal);
        levels[channel] = -20.0;
        Tones(*meter, rate, 8).tone(1.05, levels);
        const double expected =
            weights[channel] > 0.0 ? -23.01 + 10.0 * std::log10(weights[channel]) : -120.0;
        COMPARE_LUFS(meter->loudness().integrated, expected, 0.05);
    }
}

void tst_MeterProgramme::layout_weighsTheOtherReadings_too()
{
    const MeterPointer<> meter = makeMeter(4);
    const std::vector<double> levels{noSignal, noSignal, -20.0, noSignal};
    Tones(*meter, rate, 4).tone(1.05, levels);
    COMPARE_LUFS(valuesOf(*meter).momentaryLoudness(), -23.01 + 1.49, nearly); // by the count
    meter->setLayout(ChannelLayout::fromNames({"FL", "FR", "FC", "LFE"}));
    Tones(*meter, rate, 4).tone(1.05, levels);
    COMPARE_LUFS(valuesOf(*meter).momentaryLoudness(), -23.01, nearly);
    meter->setLayout(ChannelLayout());
    Tones(*meter, rate, 4).tone(1.05, levels);
    COMPARE_LUFS(valuesOf(*meter).momentaryLoudness(), -23.01 + 1.49, nearly);
    // A mask does not move them.
    meter->setLayout(ChannelLayout::fromNames({"FL", "FR", "SL", "SR"}));
    meter->setChannelEnabled(0, false);
    Tones(*meter, rate, 4).tone(1.05, levels);
    COMPARE_LUFS(valuesOf(*meter).momentaryLoudness(), -23.01 + 1.49, nearly);
}

void tst_MeterProgramme::layout_dualMono()
{
    const MeterPointer<> meter = makeMeter(1);
    meter->setLayout(ChannelLayout::named("dual mono"));
    meter->startMeasurement();
    Tones(*meter, rate, 1).tone(1.05, -23.0);
    COMPARE_LUFS(meter->loudness().integrated, -23.0, nearly);
    COMPARE_LUFS(valuesOf(*meter).momentaryLoudness(), -23.0, nearly);
}

void tst_MeterProgramme::manyChannels_areSilent()
{
    const MeterPointer<> meter = makeMeter(200);
    meter->startMeasurement();
    for (int block = 0; block < 20; ++block)
        measure(*meter, std::vector<float>(200, 0.5F));
    QCOMPARE(meter->loudness().maxMomentary, -120.0);
    for (int channel = 0; channel < 198; ++channel)
        meter->setChannelEnabled(channel, false);
    Tones(*meter, rate, 200).tone(1.05, -20.0);
    COMPARE_LUFS(meter->loudness().integrated, -20.0, nearly);
}

void tst_MeterProgramme::oddRates_areHarmless_data()
{
    QTest::addColumn<int>("rate");
    for (const int odd : {0, -48000, 1, 3, 199, 201, 8001, 2147483647})
        QTest::addRow("%d Hz", odd) << odd;
}

void tst_MeterProgramme::oddRates_areHarmless()
{
    QFETCH(int, rate);
    const MeterPointer<> meter = makeMeter(1, rate);
    meter->startMeasurement();
    for (int block = 0; block < 50; ++block)
        measure(*meter, {block % 2 == 0 ? 0.5F : -0.5F}, 64);
    const LoudnessReading reading = meter->loudness();
    QVERIFY(std::isfinite(reading.integrated) && std::isfinite(reading.maxShortTerm));
    QVERIFY(std::isfinite(reading.range) && reading.range >= 0.0);
    if (rate > 0 && rate < 1000000)
        COMPARE_LUFS(reading.seconds, 3200.0 / rate, 1.0 / rate + 0.006);
    else
        QCOMPARE(reading.maxMomentary, -120.0);
}

void tst_MeterProgramme::everyFormat_isHarmless()
{
    // Layouts and masks at random, while blocks are measured.
    const QStringList names{"front-left", "lfe",   "M+110", "U-045", "aux0",  "side-right", "",
                            "rear-left",  "T+000", "mono",  "BR",    "M+999", "LFE2"};
    unsigned state = 7;
    const auto random = [&state](unsigned below) {
        state = state * 1664525U + 1013904223U;
        return int((state >> 8) % below);
    };
    for (int round = 0; round < 60; ++round) {
        const int channels = 1 + random(12);
        const MeterPointer<> meter = makeMeter(channels);
        meter->startMeasurement();
        for (int step = 0; step < 40; ++step) {
            switch (random(8)) {
            case 0: {
                QStringList layout;
                for (int i = random(16); i > 0; --i)
                    layout.append(names.at(random(unsigned(names.size()))));
                meter->setLayout(ChannelLayout::fromNames(layout));
                break;
            }
            case 1:
                meter->setChannelEnabled(random(unsigned(channels)), random(2) == 0);
                break;
            case 2:
                meter->setTruePeakEnabled(random(2) == 0);
                break;
            case 3:
                random(2) == 0 ? meter->pauseMeasurement() : meter->startMeasurement();
                break;
            default:
                Tones(*meter, rate, channels).tone(0.42, -20.0);
            }
            const LoudnessReading reading = meter->loudness();
            // A surround's weight in each channel is the most that there can be, or dual mono's.
            const double most = -23.0 + 10.0 * std::log10(2.0 * channels) + 0.1;
            for (const double value : {reading.momentary, reading.maxMomentary, reading.integrated,
                                       reading.maxShortTerm})
                QVERIFY2(value >= -120.0 && value <= most, qPrintable(QString::number(value)));
            QVERIFY(reading.range >= 0.0);
        }
    }
}

void tst_MeterProgramme::dayOfSilence_isSilence()
{
    // At a rate at which a day is short: a tone, a day of silence, the same tone.
    constexpr int low = 1000;
#if defined(__SANITIZE_THREAD__)
    constexpr int hours = 1; // a day takes longer than a test may
#else
    constexpr int hours = 24;
#endif
    const MeterPointer<> meter = makeMeter(1, low);
    meter->startMeasurement();
    const auto tone = [&meter] {
        std::vector<float> samples;
        for (int i = 0; i < 10 * low; ++i)
            samples.push_back(float(0.1 * std::sin(2.0 * std::numbers::pi * i / 10)));
        meter->updateStatistics(samples.data(), int(samples.size()));
    };
    tone();
    const LoudnessReading before = meter->loudness();
    QVERIFY(before.integrated > -40.0);
    const std::vector<float> hour(size_t(low) * 3600, 0.0F);
    for (int i = 0; i < hours; ++i)
        meter->updateStatistics(hour.data(), int(hour.size()));
    const LoudnessReading silent = meter->loudness();
    QCOMPARE(silent.seconds, before.seconds + hours * 3600.0);
    QCOMPARE(silent.momentary, -120.0);
    QCOMPARE(silent.shortTerm, -120.0);
    QCOMPARE(silent.maxShortTerm, before.maxShortTerm);
    COMPARE_LUFS(silent.integrated, before.integrated, 0.2); // the tone's end fades out in it
    tone();
    COMPARE_LUFS(meter->loudness().integrated, before.integrated, 0.2);
}

QTEST_GUILESS_MAIN(tst_MeterProgramme)
#include "tst_meter_programme.moc"
