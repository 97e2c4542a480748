// SPDX-License-Identifier: MIT
#include "counted_new.h"
#include "resample_support.h"
#include "vector_targets.h"

#include <dsp/resample.h>
#include <dsp/resample_filter_p.h>

#include <QtTest/QtTest>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

class tst_resample : public QObject
{
    Q_OBJECT

private slots:
    void init_refuses_whenARateIsUnusable_data();
    void init_refuses_whenARateIsUnusable();
    void init_takesAnyPreset();
    void calls_doNothing_withoutAConverterOrData();

    void count_staysInRoomAndOnRatio_forEveryPairOfRates();
    void count_isTheClosedForm_for8000To192000();
    void count_isEqual_forConvertersFedAlike();
    void count_isInBounds_whenACallTakesMoreThanAChunk();
    void withheld_isInputMinusOutput_data() { addRatePairs(); }
    void withheld_isInputMinusOutput();
    void restart_makesItAsNew_data() { addRatePairs(); }
    void restart_makesItAsNew();

    void output_isTheSameBits_howeverInputIsCut_data() { addRatePairs(); }
    void output_isTheSameBits_howeverInputIsCut();
    void output_isTheSameBits_onEveryInstructionSet_data() { addRatePairs(); }
    void output_isTheSameBits_onEveryInstructionSet();
    void output_treatsWhatIsNotFiniteAsSilence();

    void filter_isSharedByConvertersOfAPair();
    void filter_isSharedSafely_amongThreads();
    void filter_staysSmall_forEveryPair();
    void resample_doesNotAllocate();
};

void tst_resample::init_refuses_whenARateIsUnusable_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    QTest::newRow("no input rate") << 0 << 48000;
    QTest::newRow("no output rate") << 48000 << 0;
    QTest::newRow("negative input rate") << -44100 << 48000;
    QTest::newRow("negative output rate") << 44100 << -48000;
    QTest::newRow("smallest numbers")
        << std::numeric_limits<int>::min() << std::numeric_limits<int>::min();
    QTest::newRow("input rate too high") << 1536001 << 48000;
    QTest::newRow("output rate too high") << 48000 << std::numeric_limits<int>::max();
    QTest::newRow("ratio too high") << 100 << 25601;
    QTest::newRow("ratio too low") << 25601 << 100;
}

void tst_resample::init_refuses_whenARateIsUnusable()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    QVERIFY(!DSPB_ResampleInit(inRate, outRate, "none"));
}

void tst_resample::init_takesAnyPreset()
{
    for (const char *preset : {"none", "", static_cast<const char *>(nullptr)}) {
        const Resampler resampler(DSPB_ResampleInit(44100, 48000, preset));
        QVERIFY(resampler);
    }
}

void tst_resample::calls_doNothing_withoutAConverterOrData()
{
    std::vector<float> in(16, 1.0F);
    std::vector<float> out(64, 7.0F);
    QCOMPARE(DSPB_Resample(nullptr, in.data(), out.data(), 16), 0);
    QCOMPARE(DSPB_ResampleWithheld(nullptr), 0.0);
    DSPB_ResampleRestart(nullptr);
    DSPB_ResampleDestroy(nullptr);

    const Resampler resampler = makeResampler(44100, 48000);
    QCOMPARE(DSPB_Resample(resampler.get(), nullptr, out.data(), 16), 0);
    QCOMPARE(DSPB_Resample(resampler.get(), in.data(), nullptr, 16), 0);
    QCOMPARE(DSPB_Resample(resampler.get(), in.data(), out.data(), 0), 0);
    QCOMPARE(DSPB_Resample(resampler.get(), in.data(), out.data(), -5), 0);
    QCOMPARE(DSPB_ResampleWithheld(resampler.get()), 0.0);
    QCOMPARE(out, std::vector<float>(64, 7.0F));
}

void tst_resample::count_staysInRoomAndOnRatio_forEveryPairOfRates()
{
    static constexpr int rates[] = {8000,  11025,  12000,  16000,  22050, 24000, 32000,
                                    44100, 44101,  47999,  48000,  64000, 88200, 96000,
                                    96001, 176400, 192000, 352800, 384000};
    const std::vector<float> in(chunkFrames, 0.25F);
    for (const int inRate : rates) {
        for (const int outRate : rates) {
            const QByteArray pair =
                QByteArray::number(inRate) + " to " + QByteArray::number(outRate);
            const Resampler resampler = makeResampler(inRate, outRate);
            QVERIFY2(resampler, pair);
            // No float more: memory checkers see a frame too many.
            std::vector<float> out(size_t(outputRoom(inRate, outRate)));
            const double expected = double(outRate) / double(inRate) * chunkFrames;
            for (int call = 0; call < 4; ++call) {
                const int written =
                    DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames);
                QVERIFY2(written <= outputRoom(inRate, outRate), pair);
                QVERIFY2(call == 0 ? written <= expected : std::abs(written - expected) <= 1.0,
                         pair);
            }
        }
    }
}

void tst_resample::count_isTheClosedForm_for8000To192000()
{
    const Resampler resampler = makeResampler(8000, 192000);
    const std::vector<float> in(chunkFrames, 0.25F);
    std::vector<float> out(147456);
    // Half a filter, 62 input frames, is held back by the first call.
    QCOMPARE(DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames), (4096 - 62) * 24);
    for (int call = 0; call < 3; ++call)
        QCOMPARE(DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames), 4096 * 24);
}

void tst_resample::count_isEqual_forConvertersFedAlike()
{
    const Resampler first = makeResampler(44100, 48000);
    const Resampler second = makeResampler(44100, 48000);
    const std::vector<float> silence(chunkFrames, 0.0F);
    const std::vector<float> loud = noise(chunkFrames, 1);
    std::vector<float> out(size_t(outputRoom(44100, 48000)));
    std::mt19937 random(2);
    for (int call = 0; call < 200; ++call) {
        const int frames = int(random() % chunkFrames) + 1;
        QCOMPARE(DSPB_Resample(first.get(), silence.data(), out.data(), frames),
                 DSPB_Resample(second.get(), loud.data(), out.data(), frames));
    }
}

void tst_resample::count_isInBounds_whenACallTakesMoreThanAChunk()
{
    const std::vector<float> in = noise(3 * chunkFrames + 5, 3);
    const Resampler resampler = makeResampler(44100, 48000);
    std::vector<float> out(size_t(4 * outputRoom(44100, 48000)));
    const int written = DSPB_Resample(resampler.get(), in.data(), out.data(), int(in.size()));
    out.resize(size_t(written));
    QVERIFY(sameBits(out, convert(in, 44100, 48000)));
}

void tst_resample::withheld_isInputMinusOutput()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const Resampler resampler = makeResampler(inRate, outRate);
    QCOMPARE(DSPB_ResampleWithheld(resampler.get()), 0.0);
    const std::vector<float> in(chunkFrames, 0.0F);
    std::vector<float> out(size_t(outputRoom(inRate, outRate)));
    const double ratio = double(inRate) / double(outRate);
    const double most = ratio > 1.1 ? 72.0 * ratio : 72.0;
    double taken = 0.0;
    double written = 0.0;
    std::mt19937 random(4);
    for (int call = 0; call < 50; ++call) {
        const int frames = call == 0 ? chunkFrames : int(random() % chunkFrames) + 1;
        taken += frames;
        written += DSPB_Resample(resampler.get(), in.data(), out.data(), frames);
        const double withheld = DSPB_ResampleWithheld(resampler.get());
        QVERIFY(std::abs(withheld - (taken - written * ratio)) < 1e-6);
        QVERIFY(call == 0 ? withheld > 0.0 : true);
        QVERIFY(withheld <= most);
    }
}

void tst_resample::restart_makesItAsNew()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const std::vector<float> in = noise(chunkFrames, 5);
    const Resampler resampler = makeResampler(inRate, outRate);
    std::vector<float> out(size_t(outputRoom(inRate, outRate)));
    DSPB_Resample(resampler.get(), in.data(), out.data(), 777);
    DSPB_ResampleRestart(resampler.get());
    QCOMPARE(DSPB_ResampleWithheld(resampler.get()), 0.0);
    out.resize(size_t(DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames)));
    QVERIFY(sameBits(out, convert(in, inRate, outRate)));
}

void tst_resample::output_isTheSameBits_howeverInputIsCut()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const std::vector<float> in = noise(5 * chunkFrames + 1234, 6);
    const std::vector<float> whole = convert(in, inRate, outRate);
    QVERIFY(!whole.empty());
    std::mt19937 random(7);
    for (const unsigned largest : {1U, 7U, 100U, 1000U, 4096U}) {
        std::vector<int> cuts(in.size());
        for (int &cut : cuts)
            cut = int(random() % largest) + 1;
        QVERIFY(sameBits(convert(in, inRate, outRate, cuts), whole));
    }
}

void tst_resample::output_isTheSameBits_onEveryInstructionSet()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const std::vector<float> in = noise(2 * chunkFrames + 321, 8);
    const std::vector<float> best = convert(in, inRate, outRate);
    const std::vector<int64_t> targets = vectorTargets();
    QVERIFY(!targets.empty());
    for (const int64_t target : targets) {
        const OnlyTarget only(target);
        QVERIFY2(sameBits(convert(in, inRate, outRate), best), hwy::TargetName(target));
    }
}

void tst_resample::output_treatsWhatIsNotFiniteAsSilence()
{
    std::vector<float> in = noise(chunkFrames, 9);
    std::vector<float> cleaned = in;
    const float infinity = std::numeric_limits<float>::infinity();
    const float wrong[] = {std::numeric_limits<float>::quiet_NaN(), infinity, -infinity};
    for (size_t i = 100; i < in.size(); i += 97) {
        in[i] = wrong[i % 3];
        cleaned[i] = 0.0F;
    }
    in.back() = infinity;
    cleaned.back() = 0.0F;
    for (const int outRate : {48000, 8000, 44101})
        QVERIFY(sameBits(convert(in, 44100, outRate, {4093}),
                         convert(cleaned, 44100, outRate, {4093})));
}

void tst_resample::filter_isSharedByConvertersOfAPair()
{
    using QTovelMixer::ResampleFilter;
    const auto first = ResampleFilter::shared(32000, 48000);
    QCOMPARE(ResampleFilter::shared(32000, 48000), first);
    QVERIFY(ResampleFilter::shared(48000, 32000) != first);
    // Other pairs push it out of the store, never out of the hands of those who use it.
    for (int rate = 8000; rate < 8000 + 40 * 1000; rate += 1000)
        ResampleFilter::shared(rate, 96000);
    const auto again = ResampleFilter::shared(32000, 48000);
    QVERIFY(again != first);
    QCOMPARE(again->rows, first->rows);
}

void tst_resample::filter_isSharedSafely_amongThreads()
{
    constexpr int workers = 4;
    const std::vector<float> in = noise(chunkFrames, 11);
    std::array<std::vector<std::vector<float>>, workers> results;
    {
        std::vector<std::jthread> threads;
        for (auto &result : results)
            threads.emplace_back([&in, &result] {
                // More pairs than the store keeps, so that filters come and go.
                for (int outRate = 9000; outRate < 9000 + 40 * 500; outRate += 500)
                    result.push_back(convert(in, 8000, outRate));
            });
    }
    for (const auto &result : results)
        for (size_t i = 0; i < result.size(); ++i)
            QVERIFY(sameBits(result[i], results[0][i]));
    QVERIFY(sameBits(results[0][0], convert(in, 8000, 9000)));
}

void tst_resample::filter_staysSmall_forEveryPair()
{
    using QTovelMixer::ResampleFilter;
    static constexpr int pairs[][2] = {
        {44100, 48000},  {1, 256},       {256, 1},       {1536000, 6001}, {6001, 1535999},
        {384000, 11025}, {44101, 48000}, {16000, 48000}, {32000, 48000},  {48000, 96000}};
    for (const auto &pair : pairs) {
        const auto filter = ResampleFilter::build(pair[0], pair[1]);
        QVERIFY(filter->rows.size() <= size_t(1) << 20);
        QCOMPARE(filter->depth % 8, 0);
        const bool inBlocks = filter->parts == 0;
        QVERIFY(!inBlocks || filter->cycle >= ResampleFilter::rowsPerBlock);
        QCOMPARE(filter->cycle % filter->phases, 0);
        const int64_t rows = inBlocks ? filter->cycle : filter->parts + 1;
        for (int64_t row = 0; row < rows; ++row) {
            double sum = 0.0;
            for (int64_t k = 0; k < filter->depth; ++k)
                sum += inBlocks ? filter->block(row / 4)[(k / 8 * 4 + row % 4) * 8 + k % 8]
                                : filter->rows[size_t(row * filter->depth + k)];
            QVERIFY(std::abs(sum - 1.0) < 1e-6);
        }
    }
    // 124 coefficients and up to four zeros before or behind them.
    QCOMPARE(ResampleFilter::build(44100, 48000)->rows.size(), size_t(160 * 128));
    QCOMPARE(ResampleFilter::build(48000, 44100)->depth, 144);
}

void tst_resample::resample_doesNotAllocate()
{
    const std::vector<float> in = noise(chunkFrames, 10);
    for (const auto &[inRate, outRate] : {std::pair(44100, 48000), std::pair(44101, 48000)}) {
        std::vector<float> out(size_t(outputRoom(inRate, outRate)));
        const Resampler resampler = makeResampler(inRate, outRate);
        const long before = allocations;
        for (int call = 0; call < 8; ++call) {
            DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames);
            DSPB_ResampleWithheld(resampler.get());
            DSPB_ResampleRestart(resampler.get());
        }
        QCOMPARE(allocations.load(), before);
    }
}

QTEST_GUILESS_MAIN(tst_resample)
#include "tst_resample.moc"
