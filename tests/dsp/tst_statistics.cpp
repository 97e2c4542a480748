// SPDX-License-Identifier: MIT
#include "counted_new.h"
#include "statistics_support.h"
#include "vector_targets.h"

#include <dsp/statistics.h>

#include <QtTest/QtTest>

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

namespace {

struct DestroyReference
{
    void operator()(ebur128_state *state) const { ebur128_destroy(&state); }
};
using Reference = std::unique_ptr<ebur128_state, DestroyReference>;

Reference makeReference(int rate, int channels)
{
    const int mode =
        EBUR128_MODE_M | EBUR128_MODE_S | EBUR128_MODE_SAMPLE_PEAK | EBUR128_MODE_TRUE_PEAK;
    Reference reference(ebur128_init(unsigned(channels), static_cast<unsigned long>(rate), mode));
    if (channels == 8) {
        static constexpr int order[] = {
            EBUR128_LEFT,          EBUR128_RIGHT,          EBUR128_CENTER, EBUR128_UNUSED,
            EBUR128_LEFT_SURROUND, EBUR128_RIGHT_SURROUND, EBUR128_Mp110,  EBUR128_Mm110};
        for (unsigned channel = 0; channel < 8; ++channel)
            ebur128_set_channel(reference.get(), channel, order[channel]);
    } else if (channels > 6) {
        for (unsigned channel = 0; channel < unsigned(channels); ++channel)
            ebur128_set_channel(reference.get(), channel, EBUR128_LEFT);
    }
    return reference;
}

} // namespace

class tst_statistics : public QObject
{
    Q_OBJECT

private slots:
    void create_refuses_whatCannotBeMeasured_data();
    void create_refuses_whatCannotBeMeasured();
    void create_takesTheLimits();
    void calls_areHarmless_withoutAHandle();
    void calls_areHarmless_withoutData();
    void destroy_clearsTheVariable();
    void queries_giveSilence_whenNotAskedFor();

    void measures_agreeWithTheReference_data();
    void measures_agreeWithTheReference();
    void measures_areTheSameBits_onEveryInstructionSet();

    void samplePeak_isOfTheLastFramesOnly();
    void samplePeak_ofAShorterBlock_forgetsTheLongerOne();
    void samplePeak_keepsChannelsApart_data();
    void samplePeak_keepsChannelsApart();
    void truePeak_ofPublishedTones_data();
    void truePeak_ofPublishedTones();
    void truePeak_isTheSamplePeak_from192kHz();
    void truePeak_doesNotDepend_onTheCutting();
    void samples_thatAreNotFinite_countAsZero();
    void samples_beyondReason_areHeldWithin();

    void anyRate_isHarmless();
    void addFrames_doesNotAllocate();
};

void tst_statistics::create_refuses_whatCannotBeMeasured_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("no channels") << 48000 << 0;
    QTest::newRow("negative channels") << 48000 << -1;
    QTest::newRow("too many channels") << 48000 << 129;
    QTest::newRow("no rate") << 0 << 2;
    QTest::newRow("negative rate") << -48000 << 2;
    QTest::newRow("rate too high") << std::numeric_limits<int>::max() << 2;
}

void tst_statistics::create_refuses_whatCannotBeMeasured()
{
    QFETCH(const int, rate);
    QFETCH(const int, channels);
    QVERIFY(!DSPB_StatisticsCreate(rate, channels, 16, levelMeasures));
}

void tst_statistics::create_takesTheLimits()
{
    QVERIFY(makeStatistics(1536000, 1, levelMeasures));
    QVERIFY(!makeStatistics(1536001, 1, levelMeasures));
    QVERIFY(makeStatistics(1, 128, levelMeasures));
}

void tst_statistics::calls_areHarmless_withoutAHandle()
{
    const Statistics none;
    const std::vector<float> frames(64, 1.0F);
    DSPB_StatisticsAddFrames(nullptr, frames.data(), 32);
    QCOMPARE(momentary(none), silence);
    QCOMPARE(shortTerm(none), silence);
    QCOMPARE(samplePeak(none, 0), 0.0);
    QCOMPARE(truePeak(none, 0), 0.0);
    DSPB_StatisticsDestroy(nullptr);
}

void tst_statistics::calls_areHarmless_withoutData()
{
    const Statistics statistics = makeStatistics(48000, 2);
    const std::vector<float> frames(64, 0.5F);
    DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 32);
    DSPB_StatisticsAddFrames(statistics.get(), nullptr, 32);
    DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 0);
    DSPB_StatisticsAddFrames(statistics.get(), frames.data(), -1);
    QCOMPARE(samplePeak(statistics, 0), 0.5);
    QCOMPARE(samplePeak(statistics, 2), 0.0);
    QCOMPARE(samplePeak(statistics, -1), 0.0);
    QCOMPARE(truePeak(statistics, 2), 0.0);
    QCOMPARE(truePeak(statistics, -1), 0.0);
    DSPB_StatisticsMomentaryLoudness(statistics.get(), nullptr);
    DSPB_StatisticsShortTermLoudness(statistics.get(), nullptr);
    DSPB_StatisticsMomentarySamplePeak(statistics.get(), 0, nullptr);
    DSPB_StatisticsMomentaryTruePeak(statistics.get(), 0, nullptr);
}

void tst_statistics::destroy_clearsTheVariable()
{
    DSPB_Statistics *statistics = DSPB_StatisticsCreate(48000, 2, 16, levelMeasures);
    QVERIFY(statistics);
    DSPB_StatisticsDestroy(&statistics);
    QVERIFY(!statistics);
    DSPB_StatisticsDestroy(&statistics);
    QVERIFY(!statistics);
}

void tst_statistics::queries_giveSilence_whenNotAskedFor()
{
    const std::vector<float> frames = noise(2 * 48000, 1);
    const Statistics levels = makeStatistics(48000, 2, levelMeasures);
    DSPB_StatisticsAddFrames(levels.get(), frames.data(), 48000);
    QVERIFY(momentary(levels) > -20.0);
    QVERIFY(shortTerm(levels) > -20.0);
    QVERIFY(samplePeak(levels, 0) > 0.4);
    QCOMPARE(truePeak(levels, 0), 0.0);

    const Statistics peaks = makeStatistics(48000, 2, truePeakMeasures);
    DSPB_StatisticsAddFrames(peaks.get(), frames.data(), 48000);
    QCOMPARE(momentary(peaks), silence);
    QCOMPARE(shortTerm(peaks), silence);
    QCOMPARE(samplePeak(peaks, 0), 0.0);
    QVERIFY(truePeak(peaks, 0) > 0.4);
}

void tst_statistics::measures_agreeWithTheReference_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    for (const int rate : {8000, 32000, 44100, 48000, 88200, 96000, 176400, 192000})
        for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 12})
            QTest::addRow("%d Hz, %d channels", rate, channels) << rate << channels;
}

void tst_statistics::measures_agreeWithTheReference()
{
    QFETCH(const int, rate);
    QFETCH(const int, channels);
    constexpr double loudnessTolerance = 0.01; // LU
    constexpr double peakTolerance = 1e-5;
    const Statistics statistics = makeStatistics(rate, channels);
    const Reference reference = makeReference(rate, channels);
    QVERIFY(reference);
    const int blockFrames = rate * 42 / 1000;
    for (unsigned block = 0; block < 90; ++block) {
        // Loud and soft by turns, every channel at a level of its own.
        std::vector<float> frames =
            noise(size_t(blockFrames * channels), block, block % 20 < 12 ? 0.9F : 0.3F);
        for (size_t i = 0; i < frames.size(); ++i)
            frames[i] /= float(1 + i % size_t(channels));
        DSPB_StatisticsAddFrames(statistics.get(), frames.data(), blockFrames);
        ebur128_add_frames_float(reference.get(), frames.data(), size_t(blockFrames));

        double expected = 0.0; // the reference is slow to ask
        if (block % 3 == 2) {
            ebur128_loudness_momentary(reference.get(), &expected);
            QVERIFY(std::abs(momentary(statistics) - expected) < loudnessTolerance);
        }
        if (block % 15 == 14) {
            ebur128_loudness_shortterm(reference.get(), &expected);
            QVERIFY(std::abs(shortTerm(statistics) - expected) < loudnessTolerance);
        }
        for (unsigned channel = 0; channel < unsigned(channels); ++channel) {
            ebur128_prev_sample_peak(reference.get(), channel, &expected);
            QCOMPARE(samplePeak(statistics, int(channel)), expected);
            ebur128_prev_true_peak(reference.get(), channel, &expected);
            QVERIFY(std::abs(truePeak(statistics, int(channel)) - expected) < peakTolerance);
        }
    }
}

void tst_statistics::measures_areTheSameBits_onEveryInstructionSet()
{
    const std::vector<int64_t> targets = vectorTargets();
    QVERIFY(!targets.empty());
    for (const int rate : {44100, 96000}) {
        for (const int channels : {1, 2, 3, 8, 33, 128}) {
            const std::vector<float> frames = noise(size_t(6000 * channels), 77);
            const auto readings = [&] {
                const Statistics statistics = makeStatistics(rate, channels);
                for (const int part : {0, 2000, 4000})
                    DSPB_StatisticsAddFrames(statistics.get(), frames.data() + part * channels,
                                             part == 4000 ? 1999 : 2000);
                std::vector<double> values{momentary(statistics), shortTerm(statistics)};
                for (int channel = 0; channel < channels; ++channel) {
                    values.push_back(samplePeak(statistics, channel));
                    values.push_back(truePeak(statistics, channel));
                }
                return values;
            };
            const std::vector<double> best = readings();
            for (const int64_t target : targets) {
                const OnlyTarget only(target);
                QVERIFY2(readings() == best, hwy::TargetName(target));
            }
        }
    }
}

void tst_statistics::samplePeak_isOfTheLastFramesOnly()
{
    const Statistics statistics = makeStatistics(48000, 1, levelMeasures);
    QCOMPARE(samplePeak(statistics, 0), 0.0);
    std::vector<float> block(2016, 0.0F);
    block[0] = -0.5F;
    DSPB_StatisticsAddFrames(statistics.get(), block.data(), 2016);
    QCOMPARE(samplePeak(statistics, 0), 0.5);
    block[0] = 0.0F;
    block[2015] = 0.25F;
    DSPB_StatisticsAddFrames(statistics.get(), block.data(), 2016);
    QCOMPARE(samplePeak(statistics, 0), 0.25);
    block[2015] = 0.0F;
    DSPB_StatisticsAddFrames(statistics.get(), block.data(), 2016);
    QCOMPARE(samplePeak(statistics, 0), 0.0);
}

void tst_statistics::samplePeak_ofAShorterBlock_forgetsTheLongerOne()
{
    const std::vector<float> loud(3 * 64, 0.5F);
    const std::vector<float> quiet(3 * 64, 0.25F);
    for (const int channels : {1, 2, 3}) {
        const Statistics statistics = makeStatistics(48000, channels);
        for (int frames = 1; frames < 40; ++frames) {
            DSPB_StatisticsAddFrames(statistics.get(), loud.data(), 64);
            QCOMPARE(samplePeak(statistics, channels - 1), 0.5);
            DSPB_StatisticsAddFrames(statistics.get(), quiet.data(), frames);
            for (int channel = 0; channel < channels; ++channel)
                QCOMPARE(samplePeak(statistics, channel), 0.25);
        }
    }
}

void tst_statistics::samplePeak_keepsChannelsApart_data()
{
    QTest::addColumn<int>("channels");
    for (const int channels : {1, 2, 3, 5, 8, 9, 16, 31, 64, 127, 128})
        QTest::addRow("%d", channels) << channels;
}

void tst_statistics::samplePeak_keepsChannelsApart()
{
    QFETCH(const int, channels);
    for (const int frames : {1, 2, 3, 31, 257, 2016}) {
        const Statistics statistics = makeStatistics(48000, channels);
        std::vector<float> block(size_t(frames * channels), 0.0F);
        for (int channel = 0; channel < channels; ++channel) {
            const int frame = (channel * 37) % frames;
            block[size_t(frame * channels + channel)] = float(channel + 1) / -256.0F;
        }
        DSPB_StatisticsAddFrames(statistics.get(), block.data(), frames);
        for (int channel = 0; channel < channels; ++channel) {
            QCOMPARE(samplePeak(statistics, channel), (channel + 1) / 256.0);
            QCOMPARE(truePeak(statistics, channel), (channel + 1) / 256.0);
        }
    }
}

void tst_statistics::truePeak_ofPublishedTones_data()
{
    // EBU Tech 3341, signals 15 to 19, tolerance +0.2/-0.4 dB.
    QTest::addColumn<int>("divider");
    QTest::addColumn<double>("degrees");
    QTest::addColumn<double>("amplitude");
    QTest::addColumn<double>("expected");
    QTest::newRow("15") << 4 << 0.0 << 0.5 << -6.0;
    QTest::newRow("16") << 4 << 45.0 << 0.5 << -6.0;
    QTest::newRow("17") << 6 << 60.0 << 0.5 << -6.0;
    QTest::newRow("18") << 8 << 67.5 << 0.5 << -6.0;
    QTest::newRow("19") << 4 << 45.0 << 1.41 << 3.0;
}

void tst_statistics::truePeak_ofPublishedTones()
{
    QFETCH(const int, divider);
    QFETCH(const double, degrees);
    QFETCH(const double, amplitude);
    QFETCH(const double, expected);
    for (const int rate : {48000, 44100, 96000}) {
        const Statistics statistics = makeStatistics(rate, 1, truePeakMeasures);
        std::vector<float> samples(static_cast<size_t>(rate));
        for (size_t i = 0; i < samples.size(); ++i) {
            const double angle =
                2.0 * std::numbers::pi * double(i) / divider + degrees * std::numbers::pi / 180.0;
            // Faded in, as the sudden start of a sine has peaks of its own.
            const double fade = std::min(1.0, double(i) / 1000.0);
            samples[i] = float(fade * amplitude * std::sin(angle));
        }
        DSPB_StatisticsAddFrames(statistics.get(), samples.data(), rate);
        const double measured = 20.0 * std::log10(truePeak(statistics, 0));
        QVERIFY2(measured <= expected + 0.2 && measured >= expected - 0.4,
                 QByteArray::number(measured));
    }
}

void tst_statistics::truePeak_isTheSamplePeak_from192kHz()
{
    const Statistics statistics = makeStatistics(192000, 2);
    const std::vector<float> frames = noise(2 * 8064, 31);
    DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 8064);
    QCOMPARE(truePeak(statistics, 0), samplePeak(statistics, 0));
    QCOMPARE(truePeak(statistics, 1), samplePeak(statistics, 1));
}

void tst_statistics::truePeak_doesNotDepend_onTheCutting()
{
    constexpr int frames = 20000;
    for (const int rate : {48000, 96000}) {
        const std::vector<float> samples = noise(3 * frames, 41);
        const Statistics whole = makeStatistics(rate, 3, truePeakMeasures);
        const Statistics pieces = makeStatistics(rate, 3, truePeakMeasures);
        DSPB_StatisticsAddFrames(whole.get(), samples.data(), frames);
        std::mt19937 random(42);
        double largest = 0.0;
        for (int done = 0; done < frames;) {
            const int piece = std::min(frames - done, int(random() % 40) + 1);
            DSPB_StatisticsAddFrames(pieces.get(), samples.data() + 3 * done, piece);
            largest = std::max(largest, truePeak(pieces, 1));
            done += piece;
        }
        QCOMPARE(largest, truePeak(whole, 1));
    }
}

void tst_statistics::samples_thatAreNotFinite_countAsZero()
{
    std::vector<float> wrong = noise(2 * 24000, 51);
    std::vector<float> right = wrong;
    const float infinity = std::numeric_limits<float>::infinity();
    const float values[] = {std::numeric_limits<float>::quiet_NaN(), infinity, -infinity};
    for (size_t i = 0; i < wrong.size(); i += 101) {
        wrong[i] = values[i % 3];
        right[i] = 0.0F;
    }
    wrong.back() = values[0];
    right.back() = 0.0F;
    const Statistics first = makeStatistics(48000, 2);
    const Statistics second = makeStatistics(48000, 2);
    // An odd count ends beside every vector length.
    DSPB_StatisticsAddFrames(first.get(), wrong.data() + 2, 23999);
    DSPB_StatisticsAddFrames(second.get(), right.data() + 2, 23999);
    QCOMPARE(momentary(first), momentary(second));
    QCOMPARE(shortTerm(first), shortTerm(second));
    for (int channel = 0; channel < 2; ++channel) {
        QCOMPARE(samplePeak(first, channel), samplePeak(second, channel));
        QCOMPARE(truePeak(first, channel), truePeak(second, channel));
    }
}

void tst_statistics::samples_beyondReason_areHeldWithin()
{
    const Statistics statistics = makeStatistics(48000, 1);
    std::vector<float> frames(2016, std::numeric_limits<float>::max());
    for (size_t i = 0; i < frames.size(); i += 2)
        frames[i] = std::numeric_limits<float>::lowest();
    DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 2016);
    QCOMPARE(samplePeak(statistics, 0), double(1e30F));
    QVERIFY(std::isfinite(truePeak(statistics, 0)));
    QVERIFY(std::isfinite(momentary(statistics)));
    const std::vector<float> zeros(48000, 0.0F);
    for (int second = 0; second < 5; ++second)
        DSPB_StatisticsAddFrames(statistics.get(), zeros.data(), 48000);
    QCOMPARE(shortTerm(statistics), silence);
    QCOMPARE(truePeak(statistics, 0), 0.0);
}

void tst_statistics::anyRate_isHarmless()
{
    for (const int rate : {1, 2, 10, 50, 100, 1000, 3600, 4000, 7999, 1536000}) {
        const Statistics statistics = makeStatistics(rate, 2);
        QVERIFY(statistics);
        const std::vector<float> frames = noise(2 * 5000, 61);
        for (int block = 0; block < 10; ++block)
            DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 5000);
        QVERIFY(momentary(statistics) > -40.0 && momentary(statistics) < 10.0);
        QVERIFY(shortTerm(statistics) > -40.0 && shortTerm(statistics) < 10.0);
        QVERIFY(truePeak(statistics, 1) >= samplePeak(statistics, 1));
    }
}

void tst_statistics::addFrames_doesNotAllocate()
{
    for (const int channels : {2, 128}) {
        const std::vector<float> frames = noise(size_t(2016 * channels), 71);
        const Statistics statistics = makeStatistics(48000, channels);
        const long before = allocations;
        for (int block = 0; block < 10; ++block) {
            DSPB_StatisticsAddFrames(statistics.get(), frames.data(), 2016);
            momentary(statistics);
            shortTerm(statistics);
            truePeak(statistics, 0);
        }
        QCOMPARE(allocations.load(), before);
    }
}

QTEST_GUILESS_MAIN(tst_statistics)
#include "tst_statistics.moc"
