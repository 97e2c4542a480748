// SPDX-License-Identifier: MIT
#include "meter_fixture.h"

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/loudness_map.h>
#include <mixer/meter/peak_reading.h>

#include <QtTest/QTest>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr int rate = 8000;
constexpr double rounding = 1e-9; // LU

/// Noise whose level changes now and then, by up to 60 dB.
std::vector<float> material(int seconds, unsigned seed, int channels = 1)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> sample(-1.0F, 1.0F);
    std::vector<float> samples;
    float amplitude = 0.1F;
    for (int frame = 0; frame < seconds * rate; ++frame) {
        if (random() % unsigned(rate / 2) == 0)
            amplitude = float(linear(-60.0 * double(random() % 1000) / 1000.0));
        for (int channel = 0; channel < channels; ++channel)
            samples.push_back(amplitude * sample(random));
    }
    return samples;
}

LoudnessMap mapOf(const std::vector<float> &samples, int channels = 1,
                  const ChannelLayout &layout = {})
{
    LoudnessMap::Builder builder(rate, channels, layout);
    builder.add(samples.data(), int(samples.size()) / channels);
    return builder.map();
}

/// What a map keeps of a tenth, learned through its public face.
struct Tenth
{
    double meanSquare;
    double truePeak;
};

std::vector<Tenth> tenthsOf(const LoudnessMap &map)
{
    std::vector<Tenth> tenths;
    for (int i = 0; i < map.count(); ++i) {
        const LoudnessReading one = map.part(i, 1).measure();
        // The momentary loudness of a tenth alone is a quarter of its energy.
        const double meanSquare =
            one.momentary > -120.0 ? 4.0 * std::pow(10.0, (one.momentary + 0.691) / 10.0) : 0.0;
        tenths.push_back({meanSquare, one.maxTruePeak > -120.0 ? linear(one.maxTruePeak) : 0.0});
    }
    return tenths;
}

double lufsOf(double meanSquare)
{
    return meanSquare > 0.0 ? std::max(-120.0, -0.691 + 10.0 * std::log10(meanSquare)) : -120.0;
}

double meanOf(const std::vector<double> &values)
{
    long double sum = 0.0L;
    for (const double value : values)
        sum += value;
    return values.empty() ? 0.0 : double(sum / static_cast<long double>(values.size()));
}

std::vector<double> above(std::vector<double> values, double threshold)
{
    std::erase_if(values, [threshold](double value) { return value <= threshold; });
    return values;
}

std::vector<double> windowsOf(const std::vector<Tenth> &tenths, size_t length)
{
    std::vector<double> windows;
    for (size_t end = length; end <= tenths.size(); ++end) {
        long double sum = 0.0L;
        for (size_t i = end - length; i < end; ++i)
            sum += tenths[i].meanSquare;
        windows.push_back(double(sum / static_cast<long double>(length)));
    }
    return windows;
}

/// The standards to the letter, from all tenths.
LoudnessReading literally(const std::vector<Tenth> &tenths)
{
    LoudnessReading reading;
    const double gate = std::pow(10.0, (-70.0 + 0.691) / 10.0);
    const std::vector<double> blocks = above(windowsOf(tenths, 4), gate);
    reading.integrated = lufsOf(meanOf(above(blocks, meanOf(blocks) / 10.0)));
    const std::vector<double> windows = windowsOf(tenths, 30);
    std::vector<double> sorted = above(windows, gate);
    sorted = above(sorted, meanOf(sorted) / 100.0);
    std::sort(sorted.begin(), sorted.end());
    if (!sorted.empty()) {
        const auto at = [&](double part) {
            return lufsOf(sorted[size_t(std::lround(double(sorted.size() - 1) * part))]);
        };
        reading.range = at(0.95) - at(0.10);
    }
    const std::vector<double> momentary = windowsOf(tenths, 4);
    if (!momentary.empty())
        reading.maxMomentary = lufsOf(*std::max_element(momentary.begin(), momentary.end()));
    if (!windows.empty())
        reading.maxShortTerm = lufsOf(*std::max_element(windows.begin(), windows.end()));
    for (const Tenth &tenth : tenths)
        reading.maxTruePeak = std::max(reading.maxTruePeak, PeakReading::decibels(tenth.truePeak));
    return reading;
}

QByteArray difference(const LoudnessReading &actual, const LoudnessReading &expected, bool isLong)
{
    const auto differ = [](double a, double b) { return !(std::abs(a - b) <= rounding); };
    if (differ(actual.integrated, expected.integrated))
        return "integrated " + QByteArray::number(actual.integrated - expected.integrated);
    if (differ(actual.range, expected.range))
        return "range " + QByteArray::number(actual.range - expected.range);
    if (isLong && differ(actual.maxMomentary, expected.maxMomentary))
        return "largest momentary";
    if (isLong && differ(actual.maxShortTerm, expected.maxShortTerm))
        return "largest short-term";
    if (differ(actual.maxTruePeak, expected.maxTruePeak))
        return "true peak";
    return {};
}

} // namespace

class tst_LoudnessMap : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void empty_isSilence();
    void map_measuresWhatTheMeterDoes_data();
    void map_measuresWhatTheMeterDoes();
    void map_doesNotDepend_onTheCutting();
    void short_isOneWindow();
    void edits_equalAFullMeasurement();
    void ranges_areHeldWithin();
    void move_toItsOwnPlace_changesNothing();
    void gain_ofNonsense_isIgnored();
    void gain_ofSilence_isSilence();
    void insert_ofItself();
    void builder_refusesNonsense();
};

void tst_LoudnessMap::empty_isSilence()
{
    LoudnessMap map;
    QCOMPARE(map.count(), 0);
    QCOMPARE(map.measure(), LoudnessReading());
    map.remove(0, 5);
    map.move(0, 3, 7);
    map.applyGain(0, 3, 2.0);
    map.insert(4, LoudnessMap());
    QCOMPARE(map.count(), 0);
    QCOMPARE(map.part(0, 4).count(), 0);
}

void tst_LoudnessMap::map_measuresWhatTheMeterDoes_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<QString>("layout");
    QTest::newRow("1") << 1 << "";
    QTest::newRow("2") << 2 << "";
    QTest::newRow("6") << 6 << "";
    QTest::newRow("dual mono") << 1 << "dual mono";
    QTest::newRow("7.1") << 8 << "7.1";
}

void tst_LoudnessMap::map_measuresWhatTheMeterDoes()
{
    QFETCH(int, channels);
    QFETCH(QString, layout);
    const std::vector<float> samples = material(20, unsigned(channels), channels);
    const MeterPointer<> meter = makeMeter(channels, rate);
    meter->setLayout(ChannelLayout::named(layout));
    meter->startMeasurement();
    meter->updateStatistics(samples.data(), 20 * rate);
    const LoudnessReading expected = meter->loudness();
    const LoudnessMap map = mapOf(samples, channels, ChannelLayout::named(layout));
    QCOMPARE(map.count(), 200);
    const LoudnessReading reading = map.measure();
    constexpr double steps = 0.005; // LU, of the meter's histograms
    QVERIFY(std::abs(reading.integrated - expected.integrated) <= 0.01);
    QVERIFY(std::abs(reading.relativeThreshold - expected.relativeThreshold) <= rounding);
    QVERIFY(std::abs(reading.range - expected.range) <= 2 * steps);
    QVERIFY(std::abs(reading.momentary - expected.momentary) <= rounding);
    QVERIFY(std::abs(reading.shortTerm - expected.shortTerm) <= rounding);
    QVERIFY(reading.maxMomentary <= expected.maxMomentary + rounding);
    QVERIFY(reading.maxMomentary >= expected.maxMomentary - 0.6); // hops of 100 ms
    QVERIFY(std::abs(reading.maxMomentaryTime - expected.maxMomentaryTime) < 4.0);
    QVERIFY(std::abs(reading.maxTruePeak - expected.maxTruePeak) <= rounding);
    QVERIFY(reading.peakToLoudness > 0.0);
    QCOMPARE(reading.seconds, 20.0);
}

void tst_LoudnessMap::map_doesNotDepend_onTheCutting()
{
    const std::vector<float> samples = material(10, 3, 2);
    const LoudnessReading expected = mapOf(samples, 2).measure();
    LoudnessMap::Builder builder(rate, 2, {});
    std::mt19937 random(4);
    for (int done = 0; done < 10 * rate;) {
        const int count = std::min(10 * rate - done, 1 + int(random() % 3000));
        builder.add(samples.data() + 2 * done, count);
        done += count;
    }
    QVERIFY(std::abs(builder.map().measure().integrated - expected.integrated) <= rounding);
    QVERIFY(std::abs(builder.map().measure().maxTruePeak - expected.maxTruePeak) <= rounding);
    builder.add(samples.data(), rate / 10 - 1);
    QCOMPARE(builder.map().count(), 100); // the rest is no whole tenth
    builder.add(samples.data(), 1);
    QCOMPARE(builder.map().count(), 101);
}

void tst_LoudnessMap::short_isOneWindow()
{
    const LoudnessMap map = mapOf(std::vector<float>(size_t(rate / 5), 0.0F));
    QCOMPARE(map.count(), 2);
    QCOMPARE(map.measure().maxMomentary, -120.0);
    QCOMPARE(map.measure().maxMomentaryTime, 0.0);
    const LoudnessMap loud = mapOf(material(1, 5)).part(0, 2);
    const LoudnessReading reading = loud.measure();
    QVERIFY(reading.maxMomentary > -60.0);
    QCOMPARE(reading.maxMomentary, reading.momentary);
    QCOMPARE(reading.maxMomentaryTime, 0.2);
    QCOMPARE(reading.integrated, -120.0); // not one gating block
}

void tst_LoudnessMap::edits_equalAFullMeasurement()
{
    LoudnessMap map = mapOf(material(60, 6));
    const LoudnessMap other = mapOf(material(20, 7));
    std::vector<Tenth> tenths = tenthsOf(map);
    const std::vector<Tenth> others = tenthsOf(other);
    std::mt19937 random(8);
    const auto below = [&random](size_t bound) {
        return bound == 0 ? size_t(0) : random() % bound;
    };
    constexpr int edits = 100000;
    constexpr int looks = 500;
    for (int edit = 0; edit < edits; ++edit) {
        const size_t first = below(tenths.size());
        const size_t count = below(std::min<size_t>(tenths.size() - first, 50) + 1);
        const auto at = [&](size_t place) { return tenths.begin() + ptrdiff_t(place); };
        switch (tenths.size() > 1500 ? 0 : below(4)) {
        case 0:
            map.remove(int(first), int(count));
            tenths.erase(at(first), at(first + count));
            break;
        case 1: {
            const size_t to = below(tenths.size() - count + 1);
            map.move(int(first), int(count), int(to));
            const std::vector<Tenth> moved(at(first), at(first + count));
            tenths.erase(at(first), at(first + count));
            tenths.insert(at(to), moved.begin(), moved.end());
            break;
        }
        case 2: {
            const size_t from = below(others.size());
            const size_t length = below(std::min<size_t>(others.size() - from, 60) + 1);
            map.insert(int(first), other.part(int(from), int(length)));
            tenths.insert(at(first), others.begin() + ptrdiff_t(from),
                          others.begin() + ptrdiff_t(from + length));
            break;
        }
        default: {
            // Up and down again in turns, so that levels stay.
            const double gain = linear(double(below(2401)) / 100.0 - 12.0);
            for (const double factor : {gain, 1.0 / gain}) {
                map.applyGain(int(first), int(count), factor);
                for (size_t i = first; i < first + count; ++i) {
                    tenths[i].meanSquare *= factor * factor;
                    tenths[i].truePeak *= factor;
                }
                if (below(2) == 0)
                    break;
            }
        }
        }
        QCOMPARE(size_t(map.count()), tenths.size());
        if (edit % (edits / looks) != 0 && edit > 100)
            continue;
        // Far from 1, whatever repeated gains have made of them.
        for (Tenth &tenth : tenths)
            QVERIFY(std::isfinite(tenth.meanSquare));
        const QByteArray wrong = difference(map.measure(), literally(tenths), tenths.size() >= 30);
        QVERIFY2(wrong.isEmpty(), "edit " + QByteArray::number(edit) + ": " + wrong);
    }
}

void tst_LoudnessMap::ranges_areHeldWithin()
{
    LoudnessMap map = mapOf(material(2, 9));
    QCOMPARE(map.count(), 20);
    QCOMPARE(map.part(-5, 10).count(), 5);
    QCOMPARE(map.part(15, 10).count(), 5);
    QCOMPARE(map.part(20, 1).count(), 0);
    QCOMPARE(map.part(3, -2).count(), 0);
    constexpr int most = std::numeric_limits<int>::max();
    QCOMPARE(map.part(1, most).count(), 19);
    QCOMPARE(map.part(-most, most).count(), 0);
    map.remove(18, most);
    QCOMPARE(map.count(), 18);
    map.remove(-3, 4);
    QCOMPARE(map.count(), 17);
    map.insert(most, map.part(0, 2));
    map.insert(-1, map.part(0, 1));
    QCOMPARE(map.count(), 20);
    map.move(18, most, most);
    map.move(-4, 6, -7);
    QCOMPARE(map.count(), 20);
}

void tst_LoudnessMap::move_toItsOwnPlace_changesNothing()
{
    LoudnessMap map = mapOf(material(5, 10));
    const LoudnessReading before = map.measure();
    map.move(10, 7, 10);
    QCOMPARE(map.measure(), before);
    map.move(10, 7, 30);
    QVERIFY(map.measure().integrated != before.integrated);
    map.move(30, 7, 10);
    QCOMPARE(map.measure(), before);
}

void tst_LoudnessMap::gain_ofNonsense_isIgnored()
{
    LoudnessMap map = mapOf(material(5, 11));
    const LoudnessReading before = map.measure();
    map.applyGain(0, 50, std::numeric_limits<double>::quiet_NaN());
    map.applyGain(0, 50, std::numeric_limits<double>::infinity());
    QCOMPARE(map.measure(), before);
    LoudnessMap loud = map;
    for (int i = 0; i < 4; ++i)
        loud.applyGain(0, 50, 1e300);
    const LoudnessReading loudest = loud.measure();
    QVERIFY(std::isfinite(loudest.integrated) && std::isfinite(loudest.range) &&
            std::isfinite(loudest.maxTruePeak));
    loud.applyGain(0, 50, 0.0);
    QCOMPARE(loud.measure().maxMomentary, -120.0);
    map.applyGain(0, 50, -1.0); // the other way round sounds the same
    QCOMPARE(map.measure(), before);
    map.applyGain(0, 50, 10.0);
    QVERIFY(std::abs(map.measure().integrated - before.integrated - 20.0) < rounding);
    QVERIFY(std::abs(map.measure().maxTruePeak - before.maxTruePeak - 20.0) < rounding);
}

void tst_LoudnessMap::gain_ofSilence_isSilence()
{
    LoudnessMap map = mapOf(material(5, 12));
    map.applyGain(0, 50, 0.0);
    LoudnessReading silence;
    silence.state = MeasurementState::MeasurementPaused;
    silence.seconds = 5.0;
    QCOMPARE(map.measure(), silence);
}

void tst_LoudnessMap::insert_ofItself()
{
    LoudnessMap map = mapOf(material(5, 13));
    const double peak = map.measure().maxTruePeak;
    map.insert(25, map);
    QCOMPARE(map.count(), 100);
    QCOMPARE(map.measure().maxTruePeak, peak);
    QCOMPARE(map.part(25, 50).measure(), mapOf(material(5, 13)).measure());
}

void tst_LoudnessMap::builder_refusesNonsense()
{
    const std::vector<float> samples(4000, 0.5F);
    for (const auto &[hertz, channels] : {std::pair(0, 1), std::pair(-1, 1), std::pair(rate, 0),
                                          std::pair(rate, 129), std::pair(2000000, 1)}) {
        LoudnessMap::Builder builder(hertz, channels, {});
        builder.add(samples.data(), 10);
        QCOMPARE(builder.map().count(), 0);
    }
}

QTEST_GUILESS_MAIN(tst_LoudnessMap)
#include "tst_loudness_map.moc"
