// SPDX-License-Identifier: MIT
#include "statistics_support.h"

#include <dsp/k_weighting_p.h>
#include <dsp/statistics.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <random>
#include <vector>

namespace {

double linear(double db)
{
    return std::pow(10.0, db / 20.0);
}

/// Interleaved test signals as the EBU's technical documents describe them: tones of 1 kHz one
/// after the other, each with a level per channel.
class Signal
{
public:
    Signal(int rate, int channels) : m_rate(rate), m_channels(channels) {}

    /// Levels in dBFS per channel (silence: -infinity); one level serves all channels.
    Signal &tone(double seconds, const std::vector<double> &levels)
    {
        const int frames = int(std::lround(seconds * m_rate));
        std::vector<double> amplitudes;
        for (size_t channel = 0; channel < size_t(m_channels); ++channel)
            amplitudes.push_back(linear(levels[std::min(channel, levels.size() - 1)]));
        for (int i = 0; i < frames; ++i, ++m_frame) {
            const double value = std::sin(2.0 * std::numbers::pi * 1000.0 * m_frame / m_rate);
            for (const double amplitude : amplitudes)
                samples.push_back(float(amplitude * value));
        }
        return *this;
    }

    Signal &pause(double seconds)
    {
        return tone(seconds, {-std::numeric_limits<double>::infinity()});
    }

    int frames() const { return int(samples.size()) / m_channels; }

    std::vector<float> samples;

private:
    int m_rate;
    int m_channels;
    int64_t m_frame = 0;
};

/// Feeds the signal in blocks and calls `look(seconds)` after each.
template <typename Look>
void feed(const Statistics &statistics, const Signal &signal, int channels, int rate,
          int blockFrames, const Look &look)
{
    for (int done = 0; done < signal.frames();) {
        const int frames = std::min(blockFrames, signal.frames() - done);
        DSPB_StatisticsAddFrames(statistics.get(), signal.samples.data() + done * channels, frames);
        done += frames;
        look(double(done) / rate);
    }
}

} // namespace

class tst_loudness : public QObject
{
    Q_OBJECT

private slots:
    void loudness_isNever_belowMinus120();
    void loudness_fallsToSilence_afterTheWindow();
    void loudness_countsMissingTimeAsSilence();
    void loudness_addsUp_over128Channels();
    void loudness_weighsChannels_byTheirCount_data();
    void loudness_weighsChannels_byTheirCount();
    void loudness_isSteady_forPublishedTones_data();
    void loudness_isSteady_forPublishedTones();
    void shortTerm_findsShortTones_whereverTheyBegin();
    void momentary_findsShortTones_whereverTheyBegin();
    void loudness_doesNotDepend_onTheCutting();
    void kWeighting_isTheTable_at48kHz();
    void kWeighting_keepsItsShape_atOtherRates_data();
    void kWeighting_keepsItsShape_atOtherRates();
};

void tst_loudness::loudness_isNever_belowMinus120()
{
    const Statistics statistics = makeStatistics(48000, 2);
    QCOMPARE(momentary(statistics), silence);
    QCOMPARE(shortTerm(statistics), silence);
    const std::vector<float> zeros(2 * 48000, 0.0F);
    DSPB_StatisticsAddFrames(statistics.get(), zeros.data(), 48000);
    QCOMPARE(momentary(statistics), silence);
    QCOMPARE(shortTerm(statistics), silence);
    const std::vector<float> faint(2 * 48000, 1e-20F);
    DSPB_StatisticsAddFrames(statistics.get(), faint.data(), 48000);
    QCOMPARE(momentary(statistics), silence);
    const std::vector<float> smallest(2 * 48000, std::numeric_limits<float>::denorm_min());
    DSPB_StatisticsAddFrames(statistics.get(), smallest.data(), 48000);
    QCOMPARE(shortTerm(statistics), silence);
}

void tst_loudness::loudness_fallsToSilence_afterTheWindow()
{
    const Statistics statistics = makeStatistics(48000, 2);
    Signal signal(48000, 2);
    signal.tone(4.0, {-6.0}).pause(4.5);
    feed(statistics, signal, 2, 48000, 480, [&](double seconds) {
        // The low cut's own tail lasts a little longer than the tone.
        if (seconds > 4.0 + 0.4 + 0.6)
            QCOMPARE(momentary(statistics), silence);
        if (seconds > 4.0 && seconds < 4.0 + 2.9)
            QVERIFY(shortTerm(statistics) > -30.0);
    });
    QCOMPARE(shortTerm(statistics), silence);
}

void tst_loudness::loudness_countsMissingTimeAsSilence()
{
    const Statistics statistics = makeStatistics(48000, 2);
    Signal signal(48000, 2);
    signal.tone(0.3, {-20.0});
    feed(statistics, signal, 2, 48000, 2016, [](double) {});
    constexpr double tolerance = 0.05; // LU; the filters start up within it
    QVERIFY(std::abs(momentary(statistics) - (-20.0 + 10.0 * std::log10(0.3 / 0.4))) < tolerance);
    QVERIFY(std::abs(shortTerm(statistics) - (-20.0 + 10.0 * std::log10(0.3 / 3.0))) < tolerance);
}

void tst_loudness::loudness_addsUp_over128Channels()
{
    const Statistics statistics = makeStatistics(48000, 128);
    QVERIFY(statistics);
    Signal signal(48000, 128);
    signal.tone(3.0, {-40.0});
    feed(statistics, signal, 128, 48000, 2016, [](double) {});
    // A stereo tone of -40 dBFS measures -40 LUFS.
    const double expected = -40.0 + 10.0 * std::log10(128.0 / 2.0);
    QVERIFY(std::abs(momentary(statistics) - expected) < 0.01);
    QVERIFY(std::abs(shortTerm(statistics) - expected) < 0.05);
}

void tst_loudness::loudness_weighsChannels_byTheirCount_data()
{
    QTest::addColumn<QList<double>>("weights");
    QTest::newRow("1") << QList<double>{1};
    QTest::newRow("2") << QList<double>{1, 1};
    QTest::newRow("3") << QList<double>{1, 1, 1};
    QTest::newRow("4: L R Ls Rs") << QList<double>{1, 1, 1.41, 1.41};
    QTest::newRow("5: L R C Ls Rs") << QList<double>{1, 1, 1, 1.41, 1.41};
    QTest::newRow("6: L R C LFE Ls Rs") << QList<double>{1, 1, 1, 0, 1.41, 1.41};
    QTest::newRow("7") << QList<double>{1, 1, 1, 1, 1, 1, 1};
    QTest::newRow("8: 7.1") << QList<double>{1, 1, 1, 0, 1.41, 1.41, 1.41, 1.41};
    QTest::newRow("9") << QList<double>(9, 1.0);
    QTest::newRow("128") << QList<double>(128, 1.0);
}

void tst_loudness::loudness_weighsChannels_byTheirCount()
{
    QFETCH(const QList<double>, weights);
    const int channels = int(weights.size());
    for (int channel = 0; channel<channels; channel += channels> 9 ? 31 : 1) {
        const Statistics statistics = makeStatistics(48000, channels, levelMeasures);
        std::vector<double> levels(size_t(channels), -std::numeric_limits<double>::infinity());
        levels[size_t(channel)] = -20.0;
        Signal signal(48000, channels);
        signal.tone(0.5, levels);
        feed(statistics, signal, channels, 48000, 2016, [](double) {});
        // One channel alone is 3.01 dB below a stereo tone.
        const double weight = weights[channel];
        const double expected = weight > 0.0 ? -23.01 + 10.0 * std::log10(weight) : silence;
        QVERIFY2(std::abs(momentary(statistics) - expected) < 0.02,
                 QByteArray::number(momentary(statistics)));
    }
}

void tst_loudness::loudness_isSteady_forPublishedTones_data()
{
    // EBU Tech 3341, table 1: signals 1, 2, 6, 9 and 12; the tolerance is theirs.
    QTest::addColumn<int>("signal");
    QTest::addColumn<bool>("isMomentary");
    QTest::addColumn<double>("expected");
    QTest::newRow("1: stereo -23 dBFS, momentary") << 1 << true << -23.0;
    QTest::newRow("1: stereo -23 dBFS, short-term") << 1 << false << -23.0;
    QTest::newRow("2: stereo -33 dBFS, momentary") << 2 << true << -33.0;
    QTest::newRow("2: stereo -33 dBFS, short-term") << 2 << false << -33.0;
    QTest::newRow("6: five channels, momentary") << 6 << true << -23.0;
    QTest::newRow("6: five channels, short-term") << 6 << false << -23.0;
    QTest::newRow("9: changes within 3 s, short-term") << 9 << false << -23.0;
    QTest::newRow("12: changes within 400 ms, momentary") << 12 << true << -23.0;
}

void tst_loudness::loudness_isSteady_forPublishedTones()
{
    QFETCH(const int, signal);
    QFETCH(const bool, isMomentary);
    QFETCH(const double, expected);
    for (const int rate : {44100, 48000, 96000}) {
        const int channels = signal == 6 ? 5 : 2;
        Signal material(rate, channels);
        if (signal == 1)
            material.tone(6.0, {-23.0});
        else if (signal == 2)
            material.tone(6.0, {-33.0});
        else if (signal == 6)
            material.tone(6.0, {-28.0, -28.0, -24.0, -30.0, -30.0});
        else if (signal == 9)
            for (int i = 0; i < 3; ++i)
                material.tone(1.34, {-20.0}).tone(1.66, {-30.0});
        else
            for (int i = 0; i < 12; ++i)
                material.tone(0.18, {-20.0}).tone(0.22, {-30.0});
        const Statistics statistics = makeStatistics(rate, channels, levelMeasures);
        int looks = 0;
        feed(statistics, material, channels, rate, rate / 100, [&](double seconds) {
            if (seconds < (isMomentary ? 1.0 : 3.0))
                return;
            const double measured = isMomentary ? momentary(statistics) : shortTerm(statistics);
            QVERIFY2(std::abs(measured - expected) <= 0.1, QByteArray::number(measured));
            ++looks;
        });
        QVERIFY(looks > 100);
    }
}

void tst_loudness::shortTerm_findsShortTones_whereverTheyBegin()
{
    // EBU Tech 3341, signal 10: the largest short-term loudness of 3 s of tone is the tone's.
    for (int i = 0; i < 20; i += 3) {
        Signal signal(48000, 2);
        signal.pause(i * 0.150).tone(3.0, {-23.0}).pause(1.0);
        const Statistics statistics = makeStatistics(48000, 2, levelMeasures);
        double largest = silence;
        feed(statistics, signal, 2, 48000, 480,
             [&](double) { largest = std::max(largest, shortTerm(statistics)); });
        QVERIFY2(std::abs(largest + 23.0) <= 0.1, QByteArray::number(largest));
    }
}

void tst_loudness::momentary_findsShortTones_whereverTheyBegin()
{
    // EBU Tech 3341, signal 13: the same for 400 ms and the momentary loudness.
    for (int i = 0; i < 20; ++i) {
        Signal signal(48000, 2);
        signal.pause(i * 0.020).tone(0.4, {-23.0}).pause(1.0);
        const Statistics statistics = makeStatistics(48000, 2, levelMeasures);
        double largest = silence;
        feed(statistics, signal, 2, 48000, 480,
             [&](double) { largest = std::max(largest, momentary(statistics)); });
        QVERIFY2(std::abs(largest + 23.0) <= 0.1, QByteArray::number(largest));
    }
}

void tst_loudness::loudness_doesNotDepend_onTheCutting()
{
    constexpr int frames = 3 * 44100;
    const std::vector<float> samples = noise(2 * frames, 21);
    const Statistics whole = makeStatistics(44100, 2);
    const Statistics pieces = makeStatistics(44100, 2);
    DSPB_StatisticsAddFrames(whole.get(), samples.data(), frames);
    std::mt19937 random(22);
    for (int done = 0; done < frames;) {
        const int piece = std::min(frames - done, int(random() % 700) + 1);
        DSPB_StatisticsAddFrames(pieces.get(), samples.data() + 2 * done, piece);
        done += piece;
    }
    QVERIFY(std::abs(momentary(whole) - momentary(pieces)) < 1e-9);
    QVERIFY(std::abs(shortTerm(whole) - shortTerm(pieces)) < 1e-9);
}

void tst_loudness::kWeighting_isTheTable_at48kHz()
{
    const auto weighting = QTovelMixer::KWeighting::forRate(48000);
    constexpr double tolerance = 1e-12;
    QVERIFY(std::abs(weighting.shelf.b0 - 1.53512485958697) < tolerance);
    QVERIFY(std::abs(weighting.shelf.b1 - -2.69169618940638) < tolerance);
    QVERIFY(std::abs(weighting.shelf.b2 - 1.19839281085285) < tolerance);
    QVERIFY(std::abs(weighting.shelf.a1 - -1.69065929318241) < tolerance);
    QVERIFY(std::abs(weighting.shelf.a2 - 0.73248077421585) < tolerance);
    QCOMPARE(weighting.lowCut.b0, 1.0);
    QCOMPARE(weighting.lowCut.b1, -2.0);
    QCOMPARE(weighting.lowCut.b2, 1.0);
    QVERIFY(std::abs(weighting.lowCut.a1 - -1.99004745483398) < tolerance);
    QVERIFY(std::abs(weighting.lowCut.a2 - 0.99007225036621) < tolerance);
}

void tst_loudness::kWeighting_keepsItsShape_atOtherRates_data()
{
    QTest::addColumn<int>("rate");
    for (const int rate : {16000, 32000, 44100, 88200, 96000, 192000})
        QTest::addRow("%d Hz", rate) << rate;
}

void tst_loudness::kWeighting_keepsItsShape_atOtherRates()
{
    QFETCH(const int, rate);
    const auto gainDb = [](const QTovelMixer::Biquad &biquad, double frequency, int sampleRate) {
        const double angle = 2.0 * std::numbers::pi * frequency / sampleRate;
        const std::complex<double> z = std::polar(1.0, -angle);
        const auto response = (biquad.b0 + biquad.b1 * z + biquad.b2 * z * z) /
                              (1.0 + biquad.a1 * z + biquad.a2 * z * z);
        return 20.0 * std::log10(std::abs(response));
    };
    const auto reference = QTovelMixer::KWeighting::forRate(48000);
    const auto weighting = QTovelMixer::KWeighting::forRate(rate);
    // The warping of frequencies and the low cut's gain, which the standard leaves open.
    constexpr double tolerance = 0.1;
    for (const double frequency : {30.0, 60.0, 200.0, 1000.0, 1700.0, 2500.0}) {
        QVERIFY(std::abs(gainDb(weighting.shelf, frequency, rate) -
                         gainDb(reference.shelf, frequency, 48000)) <
                (rate < 32000 ? 0.3 : tolerance));
        QVERIFY(std::abs(gainDb(weighting.lowCut, frequency, rate) -
                         gainDb(reference.lowCut, frequency, 48000)) < tolerance);
    }
}

QTEST_GUILESS_MAIN(tst_loudness)
#include "tst_loudness.moc"
