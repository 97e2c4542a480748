// SPDX-License-Identifier: MIT
#include "counted_new.h"
#include "vector_targets.h"

#include <dsp/resample.h>
#include <dsp/resample_filter_p.h>

#include <QtTest/QtTest>

#include <samplerate.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <random>
#include <vector>

namespace {

constexpr int chunkFrames = 4096;

struct Destroy
{
    void operator()(DSPB_Resampler *resampler) const { DSPB_ResampleDestroy(resampler); }
};
using Resampler = std::unique_ptr<DSPB_Resampler, Destroy>;

Resampler makeResampler(int inRate, int outRate)
{
    return Resampler(DSPB_ResampleInit(inRate, outRate, "none"));
}

/// What a caller gives each call room for.
int outputRoom(int inRate, int outRate)
{
    return int(double(outRate) / double(inRate) * 4096.0 * 1.5);
}

std::vector<float> noise(int frames, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> sample(-0.9F, 0.9F);
    std::vector<float> samples(static_cast<size_t>(frames));
    for (float &value : samples)
        value = sample(random);
    return samples;
}

std::vector<float> sine(double frequency, int rate, int frames, double amplitude = 0.5)
{
    std::vector<float> samples(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i)
        samples[size_t(i)] =
            float(amplitude * std::sin(2.0 * std::numbers::pi * frequency * i / rate));
    return samples;
}

/// Converts the input in calls of the given sizes, the last one repeated.
std::vector<float> convert(const std::vector<float> &in, int inRate, int outRate,
                           const std::vector<int> &cuts = {chunkFrames})
{
    const Resampler resampler = makeResampler(inRate, outRate);
    std::vector<float> room(size_t(outputRoom(inRate, outRate)));
    std::vector<float> out;
    size_t cut = 0;
    for (size_t taken = 0; taken < in.size(); ++cut) {
        const int frames =
            int(std::min(size_t(cuts[std::min(cut, cuts.size() - 1)]), in.size() - taken));
        const int written = DSPB_Resample(resampler.get(), in.data() + taken, room.data(), frames);
        out.insert(out.end(), room.begin(), room.begin() + written);
        taken += size_t(frames);
    }
    return out;
}

struct Fit
{
    double amplitude;
    double phase; ///< radians
    double snr;   ///< dB
    double power; ///< of everything, mean square
};

/// The sine of a known frequency that comes nearest, in the middle of the samples: their ends see
/// the filter's own ends.
Fit fitSine(const std::vector<float> &samples, double frequency, int rate)
{
    const int margin = int(samples.size() / 4);
    const int end = int(samples.size()) - margin;
    double ss = 0.0;
    double sc = 0.0;
    double cc = 0.0;
    double ys = 0.0;
    double yc = 0.0;
    double yy = 0.0;
    const double step = 2.0 * std::numbers::pi * frequency / rate;
    for (int i = margin; i < end; ++i) {
        const double s = std::sin(step * i);
        const double c = std::cos(step * i);
        const double y = samples[size_t(i)];
        ss += s * s;
        sc += s * c;
        cc += c * c;
        ys += y * s;
        yc += y * c;
        yy += y * y;
    }
    const double determinant = ss * cc - sc * sc;
    const double a = (ys * cc - yc * sc) / determinant;
    const double b = (yc * ss - ys * sc) / determinant;
    double residue = 0.0;
    for (int i = margin; i < end; ++i) {
        const double y = a * std::sin(step * i) + b * std::cos(step * i);
        residue += (samples[size_t(i)] - y) * (samples[size_t(i)] - y);
    }
    const double count = end - margin;
    const double amplitude = std::hypot(a, b);
    return {amplitude, std::atan2(b, a),
            10.0 * std::log10(amplitude * amplitude / 2.0 / (residue / count)), yy / count};
}

bool sameBits(const std::vector<float> &a, const std::vector<float> &b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

void addRatePairs()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    static constexpr int pairs[][2] = {
        {44100, 48000}, {48000, 44100},  {96000, 48000}, {48000, 96000}, {44100, 96000},
        {88200, 48000}, {192000, 48000}, {8000, 192000}, {384000, 8000}, {44101, 48000},
        {48000, 44101}, {47999, 48000},  {96001, 8000},
    };
    for (const auto &pair : pairs)
        QTest::addRow("%d to %d", pair[0], pair[1]) << pair[0] << pair[1];
}

} // namespace

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
    void output_isExactlyConstant_forConstantInput_data() { addRatePairs(); }
    void output_isExactlyConstant_forConstantInput();

    void quality_ofATone_data();
    void quality_ofATone();
    void gain_isFlat_upTo045_data() { addRatePairs(); }
    void gain_isFlat_upTo045();
    void stopBand_isSilent_whenTheRateGoesDown_data();
    void stopBand_isSilent_whenTheRateGoesDown();
    void output_agreesWithReferences_data();
    void output_agreesWithReferences();

    void filter_isSharedByConvertersOfAPair();
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
    // Half a filter, 64 input frames, is held back by the first call.
    QCOMPARE(DSPB_Resample(resampler.get(), in.data(), out.data(), chunkFrames), (4096 - 64) * 24);
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

void tst_resample::output_isExactlyConstant_forConstantInput()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const std::vector<float> out =
        convert(std::vector<float>(12 * chunkFrames, 0.5F), inRate, outRate);
    // Every phase sums to 1; what is left is the rounding of thousands of floats.
    for (size_t i = out.size() / 2; i < out.size(); ++i)
        QVERIFY(std::abs(out[i] - 0.5F) < 1e-6F);
}

void tst_resample::quality_ofATone_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    QTest::addColumn<double>("frequency");
    static constexpr int pairs[][2] = {{44100, 48000}, {48000, 44100},  {96000, 48000},
                                       {48000, 96000}, {44100, 192000}, {192000, 44100},
                                       {44101, 48000}, {48000, 44101},  {384000, 48000}};
    for (const auto &pair : pairs)
        for (const double frequency : {1000.0, 15000.0})
            QTest::addRow("%d to %d, %g Hz", pair[0], pair[1], frequency)
                << pair[0] << pair[1] << frequency;
    QTest::newRow("8000 to 192000, 1000 Hz") << 8000 << 192000 << 1000.0;
    QTest::newRow("8000 to 48000, 3300 Hz") << 8000 << 48000 << 3300.0;
}

void tst_resample::quality_ofATone()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    QFETCH(const double, frequency);
    const int frames = std::max(40000, inRate / 4);
    const Fit fit =
        fitSine(convert(sine(frequency, inRate, frames), inRate, outRate), frequency, outRate);
    QVERIFY2(fit.snr >= 120.0, QByteArray::number(fit.snr));
    const double offset = fit.phase / (2.0 * std::numbers::pi * frequency) * outRate;
    QVERIFY2(std::abs(offset) <= 0.01, QByteArray::number(offset));
    QVERIFY(std::abs(20.0 * std::log10(fit.amplitude / 0.5)) <= 0.01);
}

void tst_resample::gain_isFlat_upTo045()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const int lower = std::min(inRate, outRate);
    for (const double part : {0.01, 0.1, 0.2, 0.3, 0.37, 0.40, 0.45}) {
        const double frequency = part * lower;
        const int frames = std::max(16000, 8000 * (inRate / lower));
        const Fit fit =
            fitSine(convert(sine(frequency, inRate, frames), inRate, outRate), frequency, outRate);
        const double gainDb = 20.0 * std::log10(fit.amplitude / 0.5);
        QVERIFY2(std::abs(gainDb) <= (part > 0.40 ? 0.1 : 0.01), QByteArray::number(gainDb));
        // Upwards, the residue is the image at 1 - part, which lies in the stop band up to 0.425.
        if (inRate < outRate && part < 0.425)
            QVERIFY2(fit.snr >= 110.0, QByteArray::number(fit.snr));
    }
}

void tst_resample::stopBand_isSilent_whenTheRateGoesDown_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    static constexpr int pairs[][2] = {
        {96000, 48000}, {192000, 44100}, {88200, 44100}, {384000, 8000}, {96001, 8000}};
    for (const auto &pair : pairs)
        QTest::addRow("%d to %d", pair[0], pair[1]) << pair[0] << pair[1];
    QTest::newRow("48000 to 41000") << 48000 << 41000;
}

void tst_resample::stopBand_isSilent_whenTheRateGoesDown()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    for (const double part : {0.575, 0.6, 0.8, 1.0, 1.3, 1.9, 2.0, 3.7}) {
        const double frequency = part * outRate;
        if (frequency >= 0.5 * inRate)
            continue;
        const int frames = std::max(32000, 4000 * (inRate / outRate));
        const std::vector<float> out = convert(sine(frequency, inRate, frames), inRate, outRate);
        double power = 0.0;
        const size_t margin = out.size() / 4;
        for (size_t i = margin; i < out.size() - margin; ++i)
            power += double(out[i]) * out[i];
        const double rms = std::sqrt(power / double(out.size() - 2 * margin));
        const double levelDb = 20.0 * std::log10(rms / (0.5 / std::numbers::sqrt2) + 1e-12);
        QVERIFY2(levelDb <= -110.0, QByteArray::number(part) + ": " + QByteArray::number(levelDb));
    }
}

void tst_resample::output_agreesWithReferences_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    QTest::newRow("44100 to 48000") << 44100 << 48000;
    QTest::newRow("48000 to 44100") << 48000 << 44100;
    QTest::newRow("96000 to 48000") << 96000 << 48000;
    QTest::newRow("8000 to 48000") << 8000 << 48000;
    QTest::newRow("44101 to 48000") << 44101 << 48000;
}

void tst_resample::output_agreesWithReferences()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const int lower = std::min(inRate, outRate);
    std::vector<float> in(60000, 0.0F);
    for (const double part : {0.013, 0.11, 0.23, 0.31, 0.4}) {
        const std::vector<float> tone = sine(part * lower, inRate, int(in.size()), 0.15);
        std::transform(in.begin(), in.end(), tone.begin(), in.begin(), std::plus<float>());
    }
    const std::vector<float> own = convert(in, inRate, outRate);

    std::vector<float> soxrOut(own.size() + 10000);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    size_t soxrFrames = 0;
    QVERIFY(!soxr_oneshot(inRate, outRate, 1, in.data(), in.size(), nullptr, soxrOut.data(),
                          soxrOut.size(), &soxrFrames, nullptr, &quality, nullptr));
    std::vector<float> srcOut(own.size() + 10000);
    SRC_DATA data{};
    data.data_in = in.data();
    data.data_out = srcOut.data();
    data.input_frames = long(in.size());
    data.output_frames = long(srcOut.size());
    data.src_ratio = double(outRate) / double(inRate);
    QCOMPARE(src_simple(&data, SRC_SINC_BEST_QUALITY, 1), 0);

    QVERIFY(soxrFrames >= own.size());
    QVERIFY(size_t(data.output_frames_gen) + 1 >= own.size());
    double largestToSoxr = 0.0;
    double largestToSrc = 0.0;
    const size_t margin = own.size() / 10; // the references' filters are longer at the ends
    for (size_t i = margin; i < own.size() - margin; ++i) {
        largestToSoxr = std::max(largestToSoxr, std::abs(double(own[i]) - soxrOut[i]));
        largestToSrc = std::max(largestToSrc, std::abs(double(own[i]) - srcOut[i]));
    }
    // 0.003 dB of one tone: each side's pass band is a little uneven towards 0.4 of the rate.
    constexpr double tolerance = 5e-5;
    QVERIFY2(largestToSoxr < tolerance, QByteArray::number(largestToSoxr));
    QVERIFY2(largestToSrc < tolerance, QByteArray::number(largestToSrc));
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

void tst_resample::filter_staysSmall_forEveryPair()
{
    using QTovelMixer::ResampleFilter;
    static constexpr int pairs[][2] = {{44100, 48000},  {1, 256},        {256, 1},
                                       {1536000, 6001}, {6001, 1535999}, {384000, 11025},
                                       {44101, 48000}};
    for (const auto &pair : pairs) {
        const auto filter = ResampleFilter::build(pair[0], pair[1]);
        QVERIFY(filter->rows.size() <= size_t(1) << 20);
        QCOMPARE(filter->taps % 8, 0);
        QVERIFY(filter->taps >= 2 * filter->half);
        for (size_t row = 0; row < filter->rows.size(); row += size_t(filter->taps)) {
            const auto begin = filter->rows.begin() + std::ptrdiff_t(row);
            const double sum = std::accumulate(begin, begin + filter->taps, 0.0);
            QVERIFY(std::abs(sum - 1.0) < 1e-6);
        }
    }
    QCOMPARE(ResampleFilter::build(44100, 48000)->rows.size(), size_t(160 * 128));
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
