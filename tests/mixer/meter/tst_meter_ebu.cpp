// SPDX-License-Identifier: MIT
// The minimum requirements of EBU Tech 3341 and Tech 3342, by the meter that hosts use. Signals 7
// and 8 of the one and 5 and 6 of the other are recordings, and 20 to 23 come from a filter that
// only the EBU's own files have: what they ask for is asked here with a pulse of our own.
#include "programme_fixture.h"

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/peak_reading.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr double tolerance = 0.1;      // LU, Tech 3341, table 1
constexpr double rangeTolerance = 1.0; // LU, Tech 3342, table 1

#define COMPARE_LUFS(actual, expected, allowed) \
    QVERIFY2(std::abs((actual) - (expected)) <= (allowed), qPrintable(QString::number(actual)))

/// What a level of all channels has to be raised by to be as loud as that level in stereo.
double asStereo(int channels)
{
    switch (channels) {
    case 6: // without the low-frequency channel, whose tone counts for nothing
        return 10.0 * std::log10(2.0 / (3.0 + 2.0 * 1.41));
    default:
        return 10.0 * std::log10(2.0 / channels);
    }
}

void addFormats()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    for (const int rate : {44100, 48000, 96000, 192000}) {
        for (const int channels : {1, 2, 6})
            QTest::addRow("%d Hz, %d channels", rate, channels) << rate << channels;
    }
}

struct Step
{
    double seconds;
    double level;
};
using Steps = QList<Step>;

LoudnessReading readingOf(const Steps &steps, int rate, int channels)
{
    const MeterPointer<> meter = makeMeter(channels, rate);
    meter->startMeasurement();
    Tones tones(*meter, rate, channels);
    for (const Step &step : steps)
        tones.tone(step.seconds, step.level + asStereo(channels));
    tones.end();
    return meter->loudness();
}

/// Feeds mono samples in blocks of 42 ms.
void feed(Meter &meter, int rate, const std::vector<float> &samples)
{
    const size_t block = size_t(rate * 42 / 1000);
    for (size_t done = 0; done < samples.size(); done += block)
        meter.updateStatistics(samples.data() + done, int(std::min(block, samples.size() - done)));
}

} // namespace

class tst_MeterEbu : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void integrated_data();
    void integrated();
    void integrated_of64Channels_data();
    void integrated_of64Channels();
    void integrated_ofFiveChannels_data();
    void integrated_ofFiveChannels();
    void range_data();
    void range();
    void shortTerm_isSteady_data();
    void shortTerm_isSteady();
    void momentary_isSteady_data();
    void momentary_isSteady();
    void maxShortTerm_ofTones_whereverTheyBegin();
    void maxShortTerm_ofRisingTones();
    void maxMomentary_ofTones_whereverTheyBegin_data();
    void maxMomentary_ofTones_whereverTheyBegin();
    void maxMomentary_ofRisingTones();
    void truePeak_data();
    void truePeak();
    void truePeak_betweenSamples_data();
    void truePeak_betweenSamples();
};

void tst_MeterEbu::integrated_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("signal");
    for (const int rate : {44100, 48000, 96000, 192000}) {
        for (const int channels : {1, 2, 6}) {
            for (int signal = 1; signal <= 5; ++signal)
                QTest::addRow("%d: %d Hz, %d channels", signal, rate, channels)
                    << rate << channels << signal;
        }
    }
}

void tst_MeterEbu::integrated()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    QFETCH(int, signal);
    const Steps table[] = {
        {{20.0, -23.0}},
        {{20.0, -33.0}},
        {{10.0, -36.0}, {60.0, -23.0}, {10.0, -36.0}},
        {{10.0, -72.0}, {10.0, -36.0}, {60.0, -23.0}, {10.0, -36.0}, {10.0, -72.0}},
        {{20.0, -26.0}, {20.1, -20.0}, {20.0, -26.0}}};
    const LoudnessReading reading = readingOf(table[signal - 1], rate, channels);
    const double expected = signal == 2 ? -33.0 : -23.0;
    COMPARE_LUFS(reading.integrated, expected, tolerance);
    if (signal <= 2) {
        COMPARE_LUFS(reading.momentary, expected, tolerance);
        COMPARE_LUFS(reading.shortTerm, expected, tolerance);
        COMPARE_LUFS(reading.range, 0.0, tolerance);
    }
}

void tst_MeterEbu::integrated_of64Channels_data()
{
    QTest::addColumn<int>("rate");
    for (const int rate : {44100, 48000, 96000, 192000})
        QTest::addRow("%d Hz", rate) << rate;
}

void tst_MeterEbu::integrated_of64Channels()
{
    QFETCH(int, rate);
    const LoudnessReading reading = readingOf({{5.0, -36.0}, {10.0, -23.0}}, rate, 64);
    COMPARE_LUFS(reading.integrated, -23.0, tolerance);
    COMPARE_LUFS(reading.maxShortTerm, -23.0, tolerance);
}

void tst_MeterEbu::integrated_ofFiveChannels_data()
{
    QTest::addColumn<bool>("named");
    QTest::newRow("by their count") << false;
    QTest::newRow("by their names") << true;
}

void tst_MeterEbu::integrated_ofFiveChannels()
{
    // Signal 6.
    QFETCH(bool, named);
    for (const int rate : {44100, 48000, 96000, 192000}) {
        const MeterPointer<> meter = makeMeter(5, rate);
        std::vector<double> levels{-28.0, -28.0, -24.0, -30.0, -30.0};
        if (named) {
            meter->setLayout(ChannelLayout::fromNames(
                {"rear-left", "rear-right", "front-center", "front-left", "front-right"}));
            levels = {-30.0, -30.0, -24.0, -28.0, -28.0};
        }
        meter->startMeasurement();
        Tones tones(*meter, rate, 5);
        tones.tone(20.0, levels).end();
        COMPARE_LUFS(meter->loudness().integrated, -23.0, tolerance);
    }
}

void tst_MeterEbu::range_data()
{
    addFormats();
}

void tst_MeterEbu::range()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    const auto rangeOf = [&](const Steps &steps) { return readingOf(steps, rate, channels).range; };
    COMPARE_LUFS(rangeOf({{20.0, -20.0}, {20.0, -30.0}}), 10.0, rangeTolerance);
    COMPARE_LUFS(rangeOf({{20.0, -20.0}, {20.0, -15.0}}), 5.0, rangeTolerance);
    COMPARE_LUFS(rangeOf({{20.0, -40.0}, {20.0, -20.0}}), 20.0, rangeTolerance);
    COMPARE_LUFS(
        rangeOf({{20.0, -50.0}, {20.0, -35.0}, {20.0, -20.0}, {20.0, -35.0}, {20.0, -50.0}}), 15.0,
        rangeTolerance);
}

void tst_MeterEbu::shortTerm_isSteady_data()
{
    addFormats();
}

void tst_MeterEbu::shortTerm_isSteady()
{
    // Signal 9.
    QFETCH(int, rate);
    QFETCH(int, channels);
    const MeterPointer<> meter = makeMeter(channels, rate);
    meter->startMeasurement();
    Tones tones(*meter, rate, channels);
    int looks = 0;
    tones.look = [&] {
        const LoudnessReading reading = meter->loudness();
        if (reading.seconds < 3.0)
            return;
        COMPARE_LUFS(reading.shortTerm, -23.0, tolerance);
        ++looks;
    };
    const double offset = asStereo(channels);
    for (int i = 0; i < 5; ++i)
        tones.tone(1.34, -20.0 + offset).tone(1.66, -30.0 + offset);
    QVERIFY(looks > 200);
}

void tst_MeterEbu::momentary_isSteady_data()
{
    addFormats();
}

void tst_MeterEbu::momentary_isSteady()
{
    // Signal 12.
    QFETCH(int, rate);
    QFETCH(int, channels);
    const MeterPointer<> meter = makeMeter(channels, rate);
    meter->startMeasurement();
    Tones tones(*meter, rate, channels);
    int looks = 0;
    tones.look = [&] {
        const LoudnessReading reading = meter->loudness();
        if (reading.seconds < 1.0)
            return;
        COMPARE_LUFS(reading.momentary, -23.0, tolerance);
        ++looks;
    };
    const double offset = asStereo(channels);
    for (int i = 0; i < 25; ++i)
        tones.tone(0.18, -20.0 + offset).tone(0.22, -30.0 + offset);
    QVERIFY(looks > 200);
}

void tst_MeterEbu::maxShortTerm_ofTones_whereverTheyBegin()
{
    // Signal 10.
    for (const int rate : {44100, 48000, 96000, 192000}) {
        for (int i = 0; i < 20; ++i) {
            const LoudnessReading reading =
                readingOf({{i * 0.15, noSignal}, {3.0, -23.0}, {1.0, noSignal}}, rate, 2);
            COMPARE_LUFS(reading.maxShortTerm, -23.0, tolerance);
            COMPARE_LUFS(reading.maxShortTermTime, i * 0.15 + 3.0, 0.02); // seconds
        }
    }
}

void tst_MeterEbu::maxShortTerm_ofRisingTones()
{
    // Signal 11: one signal without an end between its tones.
    for (const int rate : {44100, 48000}) {
        const MeterPointer<> meter = makeMeter(2, rate);
        meter->startMeasurement();
        Tones tones(*meter, rate, 2);
        for (int i = 0; i < 20; ++i) {
            const double level = -38.0 + i;
            tones.pause(i * 0.15).tone(3.0, level).pause(3.0 - i * 0.15).end();
            COMPARE_LUFS(meter->loudness().maxShortTerm, level, tolerance);
        }
    }
}

void tst_MeterEbu::maxMomentary_ofTones_whereverTheyBegin_data()
{
    addFormats();
}

void tst_MeterEbu::maxMomentary_ofTones_whereverTheyBegin()
{
    // Signal 13, closer than it asks for.
    QFETCH(int, rate);
    QFETCH(int, channels);
    constexpr double narrow = 0.06; // LU
    for (int i = 0; i < 20; ++i) {
        const LoudnessReading reading =
            readingOf({{i * 0.02, noSignal}, {0.4, -23.0}, {1.0, noSignal}}, rate, channels);
        COMPARE_LUFS(reading.maxMomentary, -23.0, narrow);
        COMPARE_LUFS(reading.maxMomentaryTime, i * 0.02 + 0.4, 0.01); // seconds
    }
}

void tst_MeterEbu::maxMomentary_ofRisingTones()
{
    // Signal 14.
    for (const int rate : {44100, 48000, 96000, 192000}) {
        const MeterPointer<> meter = makeMeter(2, rate);
        meter->startMeasurement();
        Tones tones(*meter, rate, 2);
        for (int i = 0; i < 20; ++i) {
            const double level = -38.0 + i;
            tones.pause(i * 0.02).tone(0.4, level).pause(0.4 - i * 0.02).end();
            COMPARE_LUFS(meter->loudness().maxMomentary, level, tolerance);
        }
    }
}

void tst_MeterEbu::truePeak_data()
{
    // From 192 kHz on the samples are the peaks: the signals of the table lie beyond the ear there.
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("divider");
    QTest::addColumn<double>("degrees");
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<double>("expected");
    for (const int rate : {44100, 48000, 96000}) {
        QTest::addRow("15: %d Hz", rate) << rate << 4 << 0.0 << 0.5 << -6.0;
        QTest::addRow("16: %d Hz", rate) << rate << 4 << 45.0 << 0.5 << -6.0;
        QTest::addRow("17: %d Hz", rate) << rate << 6 << 60.0 << 0.5 << -6.0;
        QTest::addRow("18: %d Hz", rate) << rate << 8 << 67.5 << 0.5 << -6.0;
        QTest::addRow("19: %d Hz", rate) << rate << 4 << 45.0 << 1.41 << 3.0;
    }
}

void tst_MeterEbu::truePeak()
{
    QFETCH(int, rate);
    QFETCH(int, divider);
    QFETCH(double, degrees);
    QFETCH(double, amplitude);
    QFETCH(double, expected);
    const MeterPointer<> meter = makeMeter(1, rate);
    meter->setTruePeakEnabled(true);
    meter->startMeasurement();
    std::vector<float> samples;
    for (int i = 0; i < rate; ++i) {
        const double angle =
            2.0 * std::numbers::pi * i / divider + degrees * std::numbers::pi / 180;
        const double fade = std::min(1.0, i / 1000.0); // its sudden start has peaks of its own
        samples.push_back(float(fade * amplitude * std::sin(angle)));
    }
    feed(*meter, rate, samples);
    PeakReading peaks;
    QVERIFY(meter->getPeaks(peaks));
    for (const double decibels :
         {PeakReading::decibels(peaks.channels.at(0).truePeakLevel),
          PeakReading::decibels(peaks.channels.at(0).truePeakHoldLevel),
          PeakReading::decibels(peaks.channels.at(0).maxTruePeak), meter->loudness().maxTruePeak}) {
        QVERIFY2(decibels <= expected + 0.2, qPrintable(QString::number(decibels)));
        QVERIFY2(decibels >= expected - 0.4, qPrintable(QString::number(decibels)));
    }
    QVERIFY(valuesOf(*meter).true_peak_level(0) <= 0.0); // clamped, as ever
}

void tst_MeterEbu::truePeak_betweenSamples_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<double>("offset");
    for (const int rate : {44100, 48000}) {
        for (const double offset : {0.0, 0.25, 0.5, 0.75})
            QTest::addRow("%d Hz, %.2f samples", rate, offset) << rate << offset;
    }
}

void tst_MeterEbu::truePeak_betweenSamples()
{
    // As signals 20 to 23: 0 dBTP for an instant, at any quarter between two samples.
    QFETCH(int, rate);
    QFETCH(double, offset);
    const MeterPointer<> meter = makeMeter(1, rate);
    meter->startMeasurement();
    const int centre = rate / 2;
    std::vector<float> samples;
    for (int i = 0; i < rate; ++i) {
        const double time = i - centre - offset; // samples
        const double spread = time / 12.0;
        const double angle = 2.0 * std::numbers::pi * time / 6.0;
        samples.push_back(float(std::exp(-spread * spread) * std::cos(angle)));
    }
    feed(*meter, rate, samples);
    const LoudnessReading reading = meter->loudness();
    QVERIFY2(reading.maxTruePeak <= 0.2, qPrintable(QString::number(reading.maxTruePeak)));
    QVERIFY2(reading.maxTruePeak >= -0.4, qPrintable(QString::number(reading.maxTruePeak)));
    QVERIFY(std::abs(reading.maxTruePeakTime - 0.5) < 0.05);
}

QTEST_GUILESS_MAIN(tst_MeterEbu)
#include "tst_meter_ebu.moc"
