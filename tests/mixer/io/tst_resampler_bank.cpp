// SPDX-License-Identifier: MIT
#include <mixer/io/resampler_bank_p.h>

#include <QtTest/QTest>

#include <cmath>
#include <vector>

using namespace QTovelMixer;

namespace {

/// Interleaved frames from `first` on: channel c of frame k is k + 100 × c.
std::vector<float> ramp(qint64 first, int frames, int channels)
{
    std::vector<float> samples;
    for (qint64 k = first; k < first + frames; ++k) {
        for (int c = 0; c < channels; ++c)
            samples.push_back(static_cast<float>(k + 100 * c));
    }
    return samples;
}

} // namespace

class TestResamplerBank : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void maxOutputFrames_data();
    void maxOutputFrames();
    void process_keepsChannelsApartAndAligned_data();
    void process_keepsChannelsApartAndAligned();
    void process_countsWhatItWithholds();
    void process_nothing_writesNothing();
    void restart_beginsANewStream();
    void unknownRates_areInvalidAndSilent();
};

void TestResamplerBank::maxOutputFrames_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("frames");
    QTest::newRow("8000 to 192000") << 8000 << 192000 << 147456;
    QTest::newRow("44100 to 48000") << 44100 << 48000 << 6687;
    QTest::newRow("48000 to 44100") << 48000 << 44100 << 5644;
    QTest::newRow("96000 to 48000") << 96000 << 48000 << 3072;
    QTest::newRow("no input rate") << 0 << 48000 << 0;
    QTest::newRow("negative output rate") << 48000 << -1 << 0;
}

void TestResamplerBank::maxOutputFrames()
{
    QFETCH(int, from);
    QFETCH(int, to);
    QTEST(ResamplerBank::maxOutputFrames(from, to), "frames");
}

void TestResamplerBank::process_keepsChannelsApartAndAligned_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<int>("to");
    QTest::addColumn<int>("channels");
    QTest::newRow("44100 to 48000") << 44100 << 48000 << 3;
    QTest::newRow("48000 to 44100") << 48000 << 44100 << 1;
    QTest::newRow("96000 to 48000, as many as go together") << 96000 << 48000 << 8;
    QTest::newRow("44100 to 48000, in two parts") << 44100 << 48000 << 11;
    QTest::newRow("48000 to 44100, as many as there may be") << 48000 << 44100 << 128;
}

void TestResamplerBank::process_keepsChannelsApartAndAligned()
{
    QFETCH(int, from);
    QFETCH(int, to);
    QFETCH(int, channels);
    ResamplerBank bank(from, to, channels);
    QVERIFY(bank.isValid());
    std::vector<float> out(static_cast<size_t>(ResamplerBank::maxOutputFrames(from, to)) *
                           static_cast<size_t>(channels));
    qint64 done = 0;
    for (int call = 0; call < 4; ++call) {
        const std::vector<float> in = ramp(qint64{4096} * call, 4096, channels);
        const int frames = bank.process(in.data(), 4096, out.data());
        QVERIFY(frames > 0 && frames <= ResamplerBank::maxOutputFrames(from, to));
        for (int i = 0; i < frames; ++i) {
            const double expected = static_cast<double>(done + i) * from / to;
            if (expected < 200.0)
                continue; // the filter still sees the silence before the first frame
            for (int c = 0; c < channels; ++c)
                QVERIFY(std::abs(out[static_cast<size_t>(i * channels + c)] -
                                 (expected + 100.0 * c)) < 0.05);
        }
        done += frames;
    }
}

void TestResamplerBank::process_countsWhatItWithholds()
{
    ResamplerBank bank(44100, 48000, 2);
    QCOMPARE(bank.withheldInputFrames(), 0.0);
    std::vector<float> out(6687 * 2);
    qint64 taken = 0;
    qint64 written = 0;
    for (const int frames : {4096, 17, 1, 2000}) {
        const std::vector<float> in = ramp(taken, frames, 2);
        written += bank.process(in.data(), frames, out.data());
        taken += frames;
        const double expected =
            static_cast<double>(taken) - static_cast<double>(written) * 44100.0 / 48000.0;
        QVERIFY(std::abs(bank.withheldInputFrames() - expected) < 1e-6);
        QVERIFY(expected >= 0.0 && expected <= 72.0);
    }
}

void TestResamplerBank::process_nothing_writesNothing()
{
    ResamplerBank bank(44100, 48000, 2);
    float out[2] = {5.0f, 5.0f};
    QCOMPARE(bank.process(out, 0, out), 0);
    QCOMPARE(bank.process(out, -3, out), 0);
    QCOMPARE(out[0], 5.0f);
    ResamplerBank none(44100, 48000, 0);
    QCOMPARE(none.process(out, 1, out), 0);
    QCOMPARE(none.withheldInputFrames(), 0.0);
}

void TestResamplerBank::restart_beginsANewStream()
{
    ResamplerBank bank(44100, 48000, 2);
    const std::vector<float> in = ramp(5000, 4096, 2);
    std::vector<float> first(6687 * 2);
    std::vector<float> again(6687 * 2);
    const int frames = bank.process(in.data(), 4096, first.data());
    bank.process(in.data(), 1234, again.data());
    bank.restart();
    QCOMPARE(bank.withheldInputFrames(), 0.0);
    QCOMPARE(bank.process(in.data(), 4096, again.data()), frames);
    for (size_t i = 0; i < static_cast<size_t>(frames) * 2; ++i)
        QCOMPARE(again[i], first[i]);
}

void TestResamplerBank::unknownRates_areInvalidAndSilent()
{
    ResamplerBank bank(48000, 10, 2);
    QVERIFY(!bank.isValid());
    const std::vector<float> in = ramp(0, 16, 2);
    float out[64];
    QCOMPARE(bank.process(in.data(), 16, out), 0);
    QCOMPARE(bank.withheldInputFrames(), 0.0);
    bank.restart();
}

QTEST_GUILESS_MAIN(TestResamplerBank)
#include "tst_resampler_bank.moc"
