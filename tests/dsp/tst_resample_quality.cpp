// SPDX-License-Identifier: MIT
#include "resample_support.h"

#include <dsp/resample.h>

#include <QtTest/QtTest>

#include <samplerate.h>
#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

namespace {

std::vector<float> sine(double frequency, int rate, int frames, double amplitude = 0.5)
{
    std::vector<float> samples(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i)
        samples[size_t(i)] =
            float(amplitude * std::sin(2.0 * std::numbers::pi * frequency * i / rate));
    return samples;
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

} // namespace

class tst_resample_quality : public QObject
{
    Q_OBJECT

private slots:
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
};

void tst_resample_quality::output_isExactlyConstant_forConstantInput()
{
    QFETCH(const int, inRate);
    QFETCH(const int, outRate);
    const std::vector<float> out =
        convert(std::vector<float>(12 * chunkFrames, 0.5F), inRate, outRate);
    // Every phase sums to 1; what is left is the rounding of thousands of floats.
    for (size_t i = out.size() / 2; i < out.size(); ++i)
        QVERIFY(std::abs(out[i] - 0.5F) < 1e-6F);
}

void tst_resample_quality::quality_ofATone_data()
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

void tst_resample_quality::quality_ofATone()
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

void tst_resample_quality::gain_isFlat_upTo045()
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

void tst_resample_quality::stopBand_isSilent_whenTheRateGoesDown_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    static constexpr int pairs[][2] = {
        {96000, 48000}, {192000, 44100}, {88200, 44100}, {384000, 8000}, {96001, 8000}};
    for (const auto &pair : pairs)
        QTest::addRow("%d to %d", pair[0], pair[1]) << pair[0] << pair[1];
    QTest::newRow("48000 to 41000") << 48000 << 41000;
}

void tst_resample_quality::stopBand_isSilent_whenTheRateGoesDown()
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

void tst_resample_quality::output_agreesWithReferences_data()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    QTest::newRow("44100 to 48000") << 44100 << 48000;
    QTest::newRow("48000 to 44100") << 48000 << 44100;
    QTest::newRow("96000 to 48000") << 96000 << 48000;
    QTest::newRow("8000 to 48000") << 8000 << 48000;
    QTest::newRow("44101 to 48000") << 44101 << 48000;
}

void tst_resample_quality::output_agreesWithReferences()
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

QTEST_GUILESS_MAIN(tst_resample_quality)
#include "tst_resample_quality.moc"
