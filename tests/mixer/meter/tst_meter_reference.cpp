// SPDX-License-Identifier: MIT
// Random mixes, measured by the meter and by libebur128. QTOVELMIXER_MIXES=10000 in the environment
// makes up that many instead of a few hundred, other ones each time with QTOVELMIXER_SEED.
#include "meter_fixture.h"

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/peak_reading.h>

#include <QtTest/QTest>

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <random>

using namespace QTovelMixer;

namespace {

constexpr double loudnessTolerance = 0.01; // LU
constexpr double peakTolerance = 1e-5;     // linear
constexpr int mixes = 300;

struct DestroyReference
{
    void operator()(ebur128_state *state) const { ebur128_destroy(&state); }
};
using Reference = std::unique_ptr<ebur128_state, DestroyReference>;

/// What the meter and the reference both measure.
struct Mix
{
    int rate = 0;
    int channels = 0;
    bool named = false; // channels by position; else by their count
    std::vector<float> samples;

    int frames() const { return int(samples.size()) / channels; }
};

/// Some seconds of tones and noise that come, go and change their level at any frame.
Mix makeMix(std::mt19937 &random)
{
    static constexpr int rates[] = {8000, 8000, 8000, 16000, 22050, 32000, 44100, 48000};
    std::uniform_real_distribution<double> part(0.0, 1.0);
    Mix mix;
    mix.rate = rates[random() % std::size(rates)];
    mix.channels = mix.rate > 16000 ? 1 + int(random() % 2) : 1 + int(random() % 6);
    mix.named = mix.channels == 6 || random() % 2 == 0;
    const int frames = int((1.0 + 7.0 * part(random)) * mix.rate);
    mix.samples.resize(size_t(frames) * size_t(mix.channels));
    for (int channel = 0; channel < mix.channels; ++channel) {
        for (int first = 0; first < frames;) {
            const int end = std::min(frames, first + 1 + int(part(random) * 2.0 * mix.rate));
            const double amplitude = random() % 6 == 0 ? 0.0 : linear(3.0 - 70.0 * part(random));
            const double step = std::numbers::pi * part(random) * part(random);
            const bool isNoise = random() % 3 == 0;
            for (int frame = first; frame < end; ++frame) {
                const double wave = isNoise ? 2.0 * part(random) - 1.0 : std::sin(step * frame);
                mix.samples[size_t(frame * mix.channels + channel)] = float(amplitude * wave);
            }
            first = end;
        }
    }
    return mix;
}

/// The two weigh alike: 6 channels are 5.1 to both, others fronts that the layout names.
Reference makeReference(const Mix &mix)
{
    Reference reference(ebur128_init(unsigned(mix.channels), static_cast<unsigned long>(mix.rate),
                                     EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_SAMPLE_PEAK |
                                         EBUR128_MODE_TRUE_PEAK));
    for (int channel = 0; channel < mix.channels && mix.channels != 6; ++channel)
        ebur128_set_channel(reference.get(), unsigned(channel), EBUR128_LEFT);
    return reference;
}

ChannelLayout layoutOf(const Mix &mix)
{
    if (mix.channels == 6)
        return ChannelLayout::named("5.1");
    return ChannelLayout::fromNames(QStringList(mix.channels, "front-left"));
}

/// EBU Tech 3342, 5: from the short-term loudness of every 100 ms.
double rangeOf(std::vector<double> shortTerm)
{
    const auto energy = [](double lufs) { return std::pow(10.0, lufs / 10.0); };
    std::erase_if(shortTerm, [](double lufs) { return !(lufs >= -70.0); });
    if (shortTerm.empty())
        return 0.0;
    double sum = 0.0;
    for (const double lufs : shortTerm)
        sum += energy(lufs);
    const double gate = 10.0 * std::log10(sum / double(shortTerm.size())) - 20.0;
    std::erase_if(shortTerm, [gate](double lufs) { return lufs < gate; });
    std::sort(shortTerm.begin(), shortTerm.end());
    const auto at = [&](double percent) {
        return shortTerm[size_t(std::lround(double(shortTerm.size() - 1) * percent / 100.0))];
    };
    return at(95.0) - at(10.0);
}

struct Expected
{
    double momentary = 0.0;
    double shortTerm = 0.0;
    double integrated = 0.0;
    double range = 0.0;
    double maxMomentary = -120.0;
    double truePeak = 0.0;
    std::vector<double> samplePeaks;
};

/// `fine` looks for the largest momentary loudness every 5 ms, as the meter does: it takes long.
Expected measureReference(const Mix &mix, bool fine)
{
    const Reference reference = makeReference(mix);
    Expected expected;
    std::vector<double> shortTerm;
    int step = 0;
    const auto end = [&] { return int(qint64(step + 1) * mix.rate / 200); };
    int done = 0;
    const auto feedTo = [&](int frame) {
        ebur128_add_frames_float(reference.get(), mix.samples.data() + done * mix.channels,
                                 size_t(frame - done));
        done = frame;
    };
    for (; end() <= mix.frames(); ++step) {
        feedTo(end());
        const bool isTenth = (step + 1) % 20 == 0;
        if (fine || isTenth)
            ebur128_loudness_momentary(reference.get(), &expected.momentary);
        if (fine)
            expected.maxMomentary = std::max(expected.maxMomentary, expected.momentary);
        if (isTenth && step + 1 >= 600) {
            shortTerm.push_back(0.0);
            ebur128_loudness_shortterm(reference.get(), &shortTerm.back());
        }
    }
    ebur128_loudness_momentary(reference.get(), &expected.momentary);
    ebur128_loudness_shortterm(reference.get(), &expected.shortTerm);
    feedTo(mix.frames());
    ebur128_loudness_global(reference.get(), &expected.integrated);
    expected.range = rangeOf(shortTerm);
    for (unsigned channel = 0; channel < unsigned(mix.channels); ++channel) {
        double peak = 0.0;
        ebur128_true_peak(reference.get(), channel, &peak);
        expected.truePeak = std::max(expected.truePeak, peak);
        ebur128_sample_peak(reference.get(), channel, &peak);
        expected.samplePeaks.push_back(peak);
    }
    return expected;
}

/// What is silence to the meter may be less than nothing to the reference.
double orSilence(double lufs)
{
    return std::max(lufs, -120.0);
}

} // namespace

class tst_MeterReference : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void mixes_agreeWithTheReference();
};

void tst_MeterReference::mixes_agreeWithTheReference()
{
    const int asked = qEnvironmentVariableIntValue("QTOVELMIXER_MIXES");
    std::mt19937 random(unsigned(qEnvironmentVariableIntValue("QTOVELMIXER_SEED")));
    double worst = 0.0;
    for (int i = 0; i < std::max(asked, mixes); ++i) {
        const Mix mix = makeMix(random);
        const bool fine = i % 10 == 0;
        const Expected expected = measureReference(mix, fine);

        const MeterPointer<> meter = makeMeter(mix.channels, mix.rate);
        if (mix.named || mix.channels == 4 || mix.channels == 5)
            meter->setLayout(layoutOf(mix));
        meter->startMeasurement();
        for (int done = 0; done < mix.frames();) {
            const int block = std::min(mix.frames() - done, 1 + int(random() % 3000));
            meter->updateStatistics(mix.samples.data() + done * mix.channels, block);
            done += block;
        }
        const LoudnessReading reading = meter->loudness();
        PeakReading peaks;
        meter->getPeaks(peaks);

        const auto compare = [&](const char *what, double actual, double wanted, double allowed) {
            worst = std::max(worst, std::abs(actual - wanted) / allowed);
            return std::abs(actual - wanted) <= allowed
                       ? QByteArray()
                       : QByteArray("mix ") + QByteArray::number(i) + ": " + what + ' ' +
                             QByteArray::number(actual, 'g', 9) + ", expected " +
                             QByteArray::number(wanted, 'g', 9);
        };
        QCOMPARE(compare("momentary", reading.momentary, orSilence(expected.momentary),
                         loudnessTolerance),
                 QByteArray());
        QCOMPARE(compare("short-term", reading.shortTerm, orSilence(expected.shortTerm),
                         loudnessTolerance),
                 QByteArray());
        QCOMPARE(compare("integrated", reading.integrated, orSilence(expected.integrated),
                         loudnessTolerance),
                 QByteArray());
        QCOMPARE(compare("range", reading.range, expected.range, loudnessTolerance), QByteArray());
        if (fine)
            QCOMPARE(compare("largest momentary", reading.maxMomentary,
                             orSilence(expected.maxMomentary), loudnessTolerance),
                     QByteArray());
        QCOMPARE(compare("true peak", linear(reading.maxTruePeak),
                         std::max(expected.truePeak, 1e-6), peakTolerance),
                 QByteArray());
        for (size_t channel = 0; channel < expected.samplePeaks.size(); ++channel)
            QCOMPARE(peaks.channels.at(channel).maxLevel, expected.samplePeaks[channel]);
    }
    qInfo("the largest difference is %.3g of what is allowed", worst);
}

QTEST_GUILESS_MAIN(tst_MeterReference)
#include "tst_meter_reference.moc"
