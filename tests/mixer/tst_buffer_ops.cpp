// SPDX-License-Identifier: MIT
#include <mixer/buffer_ops.h>

#include <mixer/engine/buffer_access_p.h>

#include <QtTest/QTest>

#include <limits>
#include <vector>

using namespace QTovelMixer;

using FloatVector = aligned_vector<float, 16>;
using ShortVector = aligned_vector<short, 16>;

namespace {

constexpr float untouched = -77.0f;

FloatVector marked(std::size_t n)
{
    FloatVector vector(n);
    std::fill_n(vector.data(), vector.capacity(), untouched);
    return vector;
}

/// Sample i is i + 1.
FloatVector counting(std::size_t n)
{
    FloatVector vector = marked(n);
    for (std::size_t i = 0; i < n; ++i)
        vector.data()[i] = float(i + 1);
    return vector;
}

/// Sample i of channel c is what `counting` has there, with this many channels.
std::vector<FloatVector> countingPlanes(std::size_t channels, std::size_t n)
{
    std::vector<FloatVector> planes;
    for (std::size_t c = 0; c < channels; ++c) {
        planes.push_back(marked(n));
        for (std::size_t i = 0; i < n; ++i)
            planes[c].data()[i] = float(i * channels + c + 1);
    }
    return planes;
}

std::vector<FloatVector> markedPlanes(std::size_t channels, std::size_t n)
{
    std::vector<FloatVector> planes;
    for (std::size_t c = 0; c < channels; ++c)
        planes.push_back(marked(n));
    return planes;
}

bool holdsFrames(const std::vector<FloatVector> &planes, std::size_t frames)
{
    for (std::size_t c = 0; c < planes.size(); ++c) {
        for (std::size_t i = 0; i < planes[c].capacity(); ++i) {
            const float expected = i < frames ? float(i * planes.size() + c + 1) : untouched;
            if (planes[c].data()[i] != expected)
                return false;
        }
    }
    return true;
}

bool holdsSamples(const FloatVector &vector, std::size_t samples)
{
    for (std::size_t i = 0; i < vector.capacity(); ++i) {
        if (vector.data()[i] != (i < samples ? float(i + 1) : untouched))
            return false;
    }
    return true;
}

} // namespace

class tst_BufferOps : public QObject
{
    Q_OBJECT

private slots:
    void deInterleave_countsFrames_data();
    void deInterleave_countsFrames();
    void interleave_countsFrames_data();
    void interleave_countsFrames();
    void stereo_countsFrames_data();
    void stereo_countsFrames();
    void deInterleave_consultsTheFirstSizeOnly();
    void interleave_consultsTheFirstSizeOnly();
    void bothWays_giveTheSameBack_forAnyChannelCount();
    void bothWays_workAtAnyAddress();
    void bothWays_doNothing_withoutChannels();
    void floatToShort_maps_data();
    void floatToShort_maps();
    void floatToShort_countsSamples();
    void shortToFloat_mapsExactly();
    void shortToFloat_countsSamples();
    void conversions_workAtAnyAddress();
};

void tst_BufferOps::deInterleave_countsFrames_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("samples");
    QTest::addColumn<int>("planeSize");
    QTest::addColumn<int>("frames");
    QTest::newRow("three channels, planes too short") << 3 << 300 << 64 << 64;
    QTest::newRow("three channels, input too short") << 3 << 300 << 128 << 100;
    QTest::newRow("three channels, half a frame left") << 3 << 302 << 128 << 100;
    QTest::newRow("mono") << 1 << 37 << 64 << 37;
    QTest::newRow("mono, plane too short") << 1 << 37 << 30 << 30;
    QTest::newRow("stereo") << 2 << 31 << 64 << 15;
    QTest::newRow("stereo, planes too short") << 2 << 64 << 13 << 13;
    QTest::newRow("many channels") << 70 << 70 * 19 << 19 << 19;
    QTest::newRow("no frame") << 5 << 4 << 10 << 0;
    QTest::newRow("no sample") << 2 << 0 << 10 << 0;
    QTest::newRow("no room") << 8 << 80 << 0 << 0;
}

void tst_BufferOps::deInterleave_countsFrames()
{
    QFETCH(int, channels);
    QFETCH(int, samples);
    QFETCH(int, planeSize);
    QFETCH(int, frames);
    std::vector<FloatVector> planes = markedPlanes(std::size_t(channels), std::size_t(planeSize));
    de_interleave(counting(std::size_t(samples)), planes.data(), channels);
    QVERIFY(holdsFrames(planes, std::size_t(frames)));
}

void tst_BufferOps::interleave_countsFrames_data()
{
    deInterleave_countsFrames_data();
}

void tst_BufferOps::interleave_countsFrames()
{
    QFETCH(int, channels);
    QFETCH(int, samples);
    QFETCH(int, planeSize);
    QFETCH(int, frames);
    const std::vector<FloatVector> planes =
        countingPlanes(std::size_t(channels), std::size_t(planeSize));
    FloatVector out = marked(std::size_t(samples));
    interleave(planes.data(), out, channels);
    QVERIFY(holdsSamples(out, std::size_t(frames * channels)));
}

void tst_BufferOps::stereo_countsFrames_data()
{
    QTest::addColumn<int>("samples");
    QTest::addColumn<int>("planeSize");
    for (const int samples : {0, 1, 2, 15, 16, 17, 64, 131}) {
        for (const int planeSize : {0, 1, 7, 8, 33, 70})
            QTest::addRow("%d samples, planes of %d", samples, planeSize) << samples << planeSize;
    }
}

void tst_BufferOps::stereo_countsFrames()
{
    QFETCH(int, samples);
    QFETCH(int, planeSize);
    const std::size_t frames = std::size_t(std::min(samples / 2, planeSize));
    std::vector<FloatVector> planes = markedPlanes(2, std::size_t(planeSize));
    de_interleave<2u>(counting(std::size_t(samples)), planes.data());
    QVERIFY(holdsFrames(planes, frames));

    FloatVector out = marked(std::size_t(samples));
    interleave<2u>(countingPlanes(2, std::size_t(planeSize)).data(), out);
    QVERIFY(holdsSamples(out, 2 * frames));
}

void tst_BufferOps::deInterleave_consultsTheFirstSizeOnly()
{
    std::vector<FloatVector> planes = {marked(20), marked(10), marked(40)};
    de_interleave(counting(60), planes.data(), 3);
    QVERIFY(holdsFrames(planes, 20));
}

void tst_BufferOps::interleave_consultsTheFirstSizeOnly()
{
    std::vector<FloatVector> planes = countingPlanes(3, 40);
    BufferAccess::setSize(planes[0], 20);
    FloatVector out = marked(120);
    interleave(planes.data(), out, 3);
    QVERIFY(holdsSamples(out, 60));
}

void tst_BufferOps::bothWays_giveTheSameBack_forAnyChannelCount()
{
    for (int channels = 1; channels <= 130; ++channels) {
        const std::size_t frames = 21;
        const std::size_t samples = frames * std::size_t(channels);
        std::vector<FloatVector> planes = markedPlanes(std::size_t(channels), frames);
        de_interleave(counting(samples), planes.data(), channels);
        QVERIFY(holdsFrames(planes, frames));
        FloatVector out = marked(samples);
        interleave(planes.data(), out, channels);
        QVERIFY(holdsSamples(out, samples));
    }
}

void tst_BufferOps::bothWays_workAtAnyAddress()
{
    for (const std::size_t channels : {1u, 2u, 3u, 4u, 6u, 8u}) {
        for (std::size_t offset = 0; offset < 4; ++offset) {
            const std::size_t frames = 19;
            FloatVector whole = counting(frames * channels);
            std::vector<float> memory(frames * channels + 8);
            FloatVector out(memory.data() + offset, frames * channels, false);
            std::vector<std::vector<float>> rows(channels, std::vector<float>(frames + 8));
            std::vector<FloatVector> planes;
            for (std::size_t c = 0; c < channels; ++c)
                planes.emplace_back(rows[c].data() + (offset + c) % 4, frames, false);

            de_interleave(whole, planes.data(), int(channels));
            interleave(planes.data(), out, int(channels));
            QVERIFY(std::equal(out.begin(), out.end(), whole.begin()));
            QCOMPARE(memory[offset + frames * channels], 0.0f);
        }
    }
}

void tst_BufferOps::bothWays_doNothing_withoutChannels()
{
    FloatVector plane = marked(8);
    FloatVector out = marked(8);
    for (const int channels : {0, -1, std::numeric_limits<int>::min()}) {
        de_interleave(counting(8), &plane, channels);
        interleave(&plane, out, channels);
    }
    QVERIFY(holdsSamples(plane, 0));
    QVERIFY(holdsSamples(out, 0));
}

void tst_BufferOps::floatToShort_maps_data()
{
    QTest::addColumn<float>("from");
    QTest::addColumn<int>("to");
    QTest::newRow("one") << 1.0f << 32767;
    QTest::newRow("minus one") << -1.0f << -32768;
    QTest::newRow("half") << 0.5f << 16384;
    QTest::newRow("above one") << 1.5f << 32767;
    QTest::newRow("below minus one") << -1.5f << -32768;
    QTest::newRow("tie down to even") << 0.5f / 32768 << 0;
    QTest::newRow("tie up to even") << 1.5f / 32768 << 2;
    QTest::newRow("negative tie") << -2.5f / 32768 << -2;
    QTest::newRow("huge") << 1e30f << 32767;
    QTest::newRow("infinity") << std::numeric_limits<float>::infinity() << 32767;
    QTest::newRow("minus infinity") << -std::numeric_limits<float>::infinity() << -32768;
    QTest::newRow("not a number") << std::numeric_limits<float>::quiet_NaN() << 0;
}

void tst_BufferOps::floatToShort_maps()
{
    QFETCH(float, from);
    QFETCH(int, to);
    FloatVector in(19);
    std::fill(in.begin(), in.end(), from);
    ShortVector out(19);
    float_to_short(in, out);
    for (const short s : out)
        QCOMPARE(int(s), to);
}

void tst_BufferOps::floatToShort_countsSamples()
{
    for (const auto &[from, to] : {std::pair(10, 30), {30, 10}, {0, 10}, {10, 0}, {17, 17}}) {
        FloatVector in{std::size_t(from)};
        std::fill_n(in.data(), in.capacity(), 0.5f);
        ShortVector out{std::size_t(to)};
        float_to_short(in, out);
        for (std::size_t i = 0; i < out.capacity(); ++i)
            QCOMPARE(int(out.data()[i]), i < std::size_t(std::min(from, to)) ? 16384 : 0);
    }
    ShortVector none;
    float_to_short(FloatVector(), none);
}

void tst_BufferOps::shortToFloat_mapsExactly()
{
    ShortVector in(6);
    const short values[] = {-32768, 32767, 0, 1, -1, 16384};
    const float expected[] = {-1.0f, 0.999969482421875f, 0.0f, 1.0f / 32768, -1.0f / 32768, 0.5f};
    std::copy(std::begin(values), std::end(values), in.begin());
    FloatVector out(6);
    short_to_float(in, out);
    for (int i = 0; i < 6; ++i)
        QVERIFY(out[i] == expected[i]);
}

void tst_BufferOps::shortToFloat_countsSamples()
{
    for (const auto &[from, to] : {std::pair(10, 30), {30, 10}, {0, 10}, {10, 0}, {17, 17}}) {
        ShortVector in{std::size_t(from)};
        std::fill_n(in.data(), in.capacity(), short(16384));
        FloatVector out = marked(std::size_t(to));
        short_to_float(in, out);
        for (std::size_t i = 0; i < out.capacity(); ++i)
            QCOMPARE(out.data()[i], i < std::size_t(std::min(from, to)) ? 0.5f : untouched);
    }
}

void tst_BufferOps::conversions_workAtAnyAddress()
{
    for (std::size_t offset = 0; offset < 8; ++offset) {
        std::vector<float> memory(64, 0.25f);
        std::vector<short> integers(64, 0);
        const FloatVector in(memory.data() + offset, 37, false);
        ShortVector out(integers.data() + (offset + 3) % 8, 37, false);
        float_to_short(in, out);
        for (const short s : out)
            QCOMPARE(s, short(8192));
        QCOMPARE(out.data()[37], short(0));
        FloatVector back(memory.data() + offset, 37, false);
        back = 0.0f;
        short_to_float(out, back);
        for (const float x : memory)
            QCOMPARE(x, 0.25f);
    }
}

QTEST_GUILESS_MAIN(tst_BufferOps)
#include "tst_buffer_ops.moc"
