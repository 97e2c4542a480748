// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <QtTest/QTest>

#include <hwy/targets.h>

#include <bit>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr std::size_t guardSamples = 24;

/// Samples at a chosen distance from an aligned address, between guards.
template <typename T>
class Guarded
{
public:
    Guarded(std::size_t count, std::size_t offset) : first(guardSamples + offset), size(count)
    {
        storage.assign(first + count + guardSamples, guard());
        std::fill_n(data(), count, T(0));
    }

    T *data() { return storage.data() + first; }
    const T *data() const { return storage.data() + first; }
    T &operator[](std::size_t i) { return data()[i]; }
    const T &operator[](std::size_t i) const { return data()[i]; }

    bool isIntact() const
    {
        for (std::size_t i = 0; i < storage.size(); ++i) {
            if ((i < first || i >= first + size) && storage[i] != guard())
                return false;
        }
        return true;
    }

private:
    static T guard() { return T(-12345); }

    std::size_t first;
    std::size_t size;
    std::vector<T> storage;
};

using Floats = Guarded<float>;
using Shorts = Guarded<short>;

/// The bits of a float; all kinds of NaN count as one.
std::uint32_t bits(float x)
{
    return std::isnan(x) ? 0x7fc00000u : std::bit_cast<std::uint32_t>(x);
}

class Samples
{
public:
    explicit Samples(unsigned seed) : random(seed) {}

    std::size_t below(std::size_t limit) { return random() % limit; }
    float ordinary() { return std::uniform_real_distribution<float>(-2.0f, 2.0f)(random); }

    /// One in eight is not a number that music is made of.
    float any()
    {
        constexpr float odd[] = {
            std::numeric_limits<float>::quiet_NaN(),  std::numeric_limits<float>::infinity(),
            -std::numeric_limits<float>::infinity(),  -0.0f,
            std::numeric_limits<float>::denorm_min(), -1e-40f,
            std::numeric_limits<float>::max(),        std::numeric_limits<float>::lowest(),
        };
        return below(8) == 0 ? odd[below(std::size(odd))] : ordinary();
    }

    Floats floats(std::size_t count)
    {
        Floats result(count, below(9));
        for (std::size_t i = 0; i < count; ++i)
            result[i] = any();
        return result;
    }

private:
    std::mt19937 random;
};

/// The addresses of some rows, for what reads or writes them.
template <typename Sample, typename Rows>
std::vector<Sample *> addresses(Rows &rows)
{
    std::vector<Sample *> result;
    result.reserve(rows.size());
    for (auto &row : rows)
        result.push_back(row.data());
    return result;
}

int firstDifference(const Floats &actual, const std::vector<float> &expected)
{
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (bits(actual[i]) != bits(expected[i]))
            return int(i);
    }
    return -1;
}

// The definition of the conversion, in arithmetic that is exact.
short toShortSlowly(float f)
{
    if (std::isnan(f))
        return 0;
    const double scaled = std::nearbyint(double(f) * 32768.0);
    return short(std::min(std::max(scaled, -32768.0), 32767.0));
}

} // namespace

/// Every slot runs once for each kind of vector instructions that this machine has.
class tst_Kernels : public QObject
{
    Q_OBJECT

private:
    void addTargets();
    void useTarget();

private slots:
    void cleanup();

    void fill_setsExactlyTheSamples_data() { addTargets(); }
    void fill_setsExactlyTheSamples();
    void addValue_givesTheSameBits_data() { addTargets(); }
    void addValue_givesTheSameBits();
    void multiplyValue_givesTheSameBits_data() { addTargets(); }
    void multiplyValue_givesTheSameBits();
    void addVector_givesTheSameBits_data() { addTargets(); }
    void addVector_givesTheSameBits();
    void multiplyVector_givesTheSameBits_data() { addTargets(); }
    void multiplyVector_givesTheSameBits();
    void multiplyAdd_roundsTwice_data() { addTargets(); }
    void multiplyAdd_roundsTwice();
    void deinterleave_movesEverySample_data() { addTargets(); }
    void deinterleave_movesEverySample();
    void deinterleave_scales_whenGivenAGain_data() { addTargets(); }
    void deinterleave_scales_whenGivenAGain();
    void interleave_leavesOtherChannels_data() { addTargets(); }
    void interleave_leavesOtherChannels();
    void toShort_roundsTiesToEvenAndClamps_data() { addTargets(); }
    void toShort_roundsTiesToEvenAndClamps();
    void toShort_followsItsDefinition_data() { addTargets(); }
    void toShort_followsItsDefinition();
    void toFloat_isExact_data() { addTargets(); }
    void toFloat_isExact();
    void mix_equalsThePlainLoop_data() { addTargets(); }
    void mix_equalsThePlainLoop();
    void mixPair_equalsThePlainLoop_data() { addTargets(); }
    void mixPair_equalsThePlainLoop();
    void mixDense_equalsThePlainLoop_data() { addTargets(); }
    void mixDense_equalsThePlainLoop();
    void mix_beginsAtPositiveZero_data() { addTargets(); }
    void mix_beginsAtPositiveZero();
    void multiplyFinite_tellsWhetherAllAre_data() { addTargets(); }
    void multiplyFinite_tellsWhetherAllAre();
    void replaceNotFinite_leavesTheOthers_data() { addTargets(); }
    void replaceNotFinite_leavesTheOthers();
    void sameBits_seesEveryCellAndNoOther_data() { addTargets(); }
    void sameBits_seesEveryCellAndNoOther();
    void cleanVectorState_keepsResults_data() { addTargets(); }
    void cleanVectorState_keepsResults();

    void rampGain_fallsFrameByFrame_whenTargetIsZero();
    void rampGain_keepsARunningFloat();
    void rampGain_touchesNothing_withoutFrames();
};

void tst_Kernels::addTargets()
{
    QTest::addColumn<qint64>("target");
    hwy::SetSupportedTargetsForTest(0);
    const qint64 supported = hwy::SupportedTargets();
    for (int bit = 0; bit < 63; ++bit) {
        const qint64 target = qint64(1) << bit;
        if (supported & target)
            QTest::newRow(hwy::TargetName(target)) << target;
    }
}

void tst_Kernels::useTarget()
{
    QFETCH(qint64, target);
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

void tst_Kernels::cleanup()
{
    hwy::SetSupportedTargetsForTest(0);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

void tst_Kernels::fill_setsExactlyTheSamples()
{
    useTarget();
    for (std::size_t count = 0; count < 100; ++count) {
        Floats x(count, count % 7);
        Kernels::fill(x.data(), count, 0.375f);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, std::vector<float>(count, 0.375f)), -1);
    }
}

void tst_Kernels::addValue_givesTheSameBits()
{
    useTarget();
    Samples samples(1);
    for (std::size_t count = 0; count < 140; ++count) {
        Floats x = samples.floats(count);
        const float value = samples.ordinary();
        std::vector<float> expected(count);
        for (std::size_t i = 0; i < count; ++i)
            expected[i] = x[i] + value;
        Kernels::add(x.data(), count, value);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::multiplyValue_givesTheSameBits()
{
    useTarget();
    Samples samples(2);
    for (std::size_t count = 0; count < 140; ++count) {
        Floats x = samples.floats(count);
        const float value = samples.any();
        std::vector<float> expected(count);
        for (std::size_t i = 0; i < count; ++i)
            expected[i] = x[i] * value;
        Kernels::multiply(x.data(), count, value);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::addVector_givesTheSameBits()
{
    useTarget();
    Samples samples(3);
    for (std::size_t count = 0; count < 140; ++count) {
        Floats x = samples.floats(count);
        const Floats y = samples.floats(count);
        std::vector<float> expected(count);
        for (std::size_t i = 0; i < count; ++i)
            expected[i] = x[i] + y[i];
        Kernels::add(x.data(), y.data(), count);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::multiplyVector_givesTheSameBits()
{
    useTarget();
    Samples samples(4);
    for (std::size_t count = 0; count < 140; ++count) {
        Floats x = samples.floats(count);
        const Floats y = samples.floats(count);
        std::vector<float> expected(count);
        for (std::size_t i = 0; i < count; ++i)
            expected[i] = x[i] * y[i];
        Kernels::multiply(x.data(), y.data(), count);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::multiplyAdd_roundsTwice()
{
    useTarget();
    Samples samples(5);
    for (std::size_t count = 0; count < 300; ++count) {
        Floats x = samples.floats(count);
        const Floats y = samples.floats(count);
        const float gain = samples.ordinary();
        std::vector<float> expected(count);
        for (std::size_t i = 0; i < count; ++i) {
            const volatile float product = gain * y[i];
            expected[i] = x[i] + product;
        }
        Kernels::multiplyAdd(x.data(), gain, y.data(), count);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::deinterleave_movesEverySample()
{
    useTarget();
    Samples samples(6);
    for (std::size_t round = 0; round < 300; ++round) {
        const std::size_t stride = 1 + samples.below(20);
        const std::size_t channels = 1 + samples.below(stride);
        const std::size_t frames = samples.below(70);
        const Floats in = samples.floats(stride * frames);
        std::vector<Floats> out;
        for (std::size_t c = 0; c < channels; ++c)
            out.emplace_back(frames, samples.below(9));
        const std::vector<float *> planes = addresses<float>(out);

        Kernels::deinterleave(in.data(), stride, planes.data(), channels, frames);

        for (std::size_t c = 0; c < channels; ++c) {
            QVERIFY(out[c].isIntact());
            for (std::size_t i = 0; i < frames; ++i)
                QCOMPARE(bits(out[c][i]), bits(in[i * stride + c]));
        }
    }
}

void tst_Kernels::deinterleave_scales_whenGivenAGain()
{
    useTarget();
    Samples samples(7);
    for (std::size_t round = 0; round < 300; ++round) {
        const std::size_t stride = 1 + samples.below(12);
        const std::size_t channels = 1 + samples.below(stride);
        const std::size_t frames = samples.below(70);
        const float gain = samples.any();
        const Floats in = samples.floats(stride * frames);
        std::vector<Floats> out;
        for (std::size_t c = 0; c < channels; ++c)
            out.emplace_back(frames, samples.below(9));
        const std::vector<float *> planes = addresses<float>(out);

        Kernels::deinterleave(in.data(), stride, planes.data(), channels, frames, gain);

        for (std::size_t c = 0; c < channels; ++c) {
            QVERIFY(out[c].isIntact());
            for (std::size_t i = 0; i < frames; ++i)
                QCOMPARE(bits(out[c][i]), bits(in[i * stride + c] * gain));
        }
    }
}

void tst_Kernels::interleave_leavesOtherChannels()
{
    useTarget();
    Samples samples(8);
    for (std::size_t round = 0; round < 300; ++round) {
        const std::size_t stride = 1 + samples.below(20);
        const std::size_t channels = 1 + samples.below(stride);
        const std::size_t frames = samples.below(70);
        std::vector<Floats> in;
        for (std::size_t c = 0; c < channels; ++c)
            in.push_back(samples.floats(frames));
        const std::vector<const float *> planes = addresses<const float>(in);
        Floats out = samples.floats(stride * frames);
        const Floats before = out;

        Kernels::interleave(planes.data(), out.data(), stride, channels, frames);

        QVERIFY(out.isIntact());
        for (std::size_t i = 0; i < frames; ++i) {
            for (std::size_t c = 0; c < stride; ++c) {
                const float expected = c < channels ? in[c][i] : before[i * stride + c];
                QCOMPARE(bits(out[i * stride + c]), bits(expected));
            }
        }
    }
}

void tst_Kernels::toShort_roundsTiesToEvenAndClamps()
{
    useTarget();
    constexpr float infinity = std::numeric_limits<float>::infinity();
    constexpr struct
    {
        float value;
        short expected;
    } cases[] = {
        {1.0f, 32767},
        {-1.0f, -32768},
        {0.5f, 16384},
        {1.5f, 32767},
        {-1.5f, -32768},
        {0.0f, 0},
        {-0.0f, 0},
        {0.5f / 32768, 0},
        {1.5f / 32768, 2},
        {2.5f / 32768, 2},
        {-0.5f / 32768, 0},
        {-1.5f / 32768, -2},
        {-2.5f / 32768, -2},
        {32766.5f / 32768, 32766},
        {32767.5f / 32768, 32767},
        {-32767.5f / 32768, -32768},
        {-32768.5f / 32768, -32768},
        {65535.0f, 32767},
        {65536.0f, 32767},
        {-65536.0f, -32768},
        {-65537.0f, -32768},
        {1e30f, 32767},
        {-1e30f, -32768},
        {std::numeric_limits<float>::max(), 32767},
        {infinity, 32767},
        {-infinity, -32768},
        {std::numeric_limits<float>::quiet_NaN(), 0},
        {-std::numeric_limits<float>::quiet_NaN(), 0},
        {std::numeric_limits<float>::denorm_min(), 0},
    };
    for (const auto &test : cases) {
        // As a single sample, in whole vectors, and in groups of them with a rest.
        for (const std::size_t count : {std::size_t(1), std::size_t(16), std::size_t(75)}) {
            const std::vector<float> in(count, test.value);
            Shorts out(count, 1);
            Kernels::toShort(in.data(), out.data(), count);
            for (std::size_t i = 0; i < count; ++i)
                QCOMPARE(out[i], test.expected);
            QVERIFY(out.isIntact());
        }
    }
}

void tst_Kernels::toShort_followsItsDefinition()
{
    useTarget();
    QCOMPARE(std::fegetround(), FE_TONEAREST);
    Samples samples(9);
    for (std::size_t count = 0; count < 400; ++count) {
        const Floats in = samples.floats(count);
        Shorts out(count, samples.below(9));
        Kernels::toShort(in.data(), out.data(), count);
        QVERIFY(out.isIntact());
        for (std::size_t i = 0; i < count; ++i)
            QCOMPARE(out[i], toShortSlowly(in[i]));
    }
}

void tst_Kernels::toFloat_isExact()
{
    useTarget();
    std::vector<short> all(65536);
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i] = short(int(i) - 32768);
    for (std::size_t first = 0; first < 16; ++first) {
        const std::size_t count = all.size() - first;
        Floats out(count, first % 5);
        Kernels::toFloat(all.data() + first, out.data(), count);
        QVERIFY(out.isIntact());
        for (std::size_t i = 0; i < count; ++i)
            QCOMPARE(out[i], float(double(all[first + i]) / 32768.0));
    }
}

namespace {

struct Rows
{
    std::vector<Floats> rows;
    std::vector<const float *> in;

    Rows(Samples &samples, std::size_t count, std::size_t frames)
    {
        for (std::size_t j = 0; j < count; ++j)
            rows.push_back(samples.floats(frames));
        in = addresses<const float>(rows);
    }

    std::vector<float> mixed(const std::vector<float> &gains, std::size_t frames) const
    {
        std::vector<float> out(frames, 0.0f);
        for (std::size_t j = 0; j < rows.size(); ++j) {
            for (std::size_t i = 0; i < frames; ++i) {
                const volatile float product = gains[j] * rows[j][i];
                out[i] = out[i] + product;
            }
        }
        return out;
    }
};

std::vector<float> someGains(Samples &samples, std::size_t count)
{
    std::vector<float> gains(count);
    for (float &gain : gains)
        gain = samples.ordinary();
    return gains;
}

} // namespace

void tst_Kernels::mix_equalsThePlainLoop()
{
    useTarget();
    Samples samples(10);
    for (std::size_t inputs = 0; inputs < 20; ++inputs) {
        for (std::size_t frames = 0; frames < 70; ++frames) {
            const Rows rows(samples, inputs, frames);
            const std::vector<float> gains = someGains(samples, inputs);
            Floats out = samples.floats(frames);
            Kernels::mix(out.data(), rows.in.data(), gains.data(), inputs, frames);
            QVERIFY(out.isIntact());
            QCOMPARE(firstDifference(out, rows.mixed(gains, frames)), -1);
        }
    }
}

void tst_Kernels::mixPair_equalsThePlainLoop()
{
    useTarget();
    Samples samples(11);
    for (std::size_t inputs = 0; inputs < 20; ++inputs) {
        for (std::size_t frames = 0; frames < 70; ++frames) {
            const Rows rows(samples, inputs, frames);
            const std::vector<float> gains0 = someGains(samples, inputs);
            const std::vector<float> gains1 = someGains(samples, inputs);
            Floats out0 = samples.floats(frames);
            Floats out1 = samples.floats(frames);
            Kernels::mixPair(out0.data(), out1.data(), rows.in.data(), gains0.data(), gains1.data(),
                             inputs, frames);
            QVERIFY(out0.isIntact() && out1.isIntact());
            QCOMPARE(firstDifference(out0, rows.mixed(gains0, frames)), -1);
            QCOMPARE(firstDifference(out1, rows.mixed(gains1, frames)), -1);
        }
    }
}

void tst_Kernels::mixDense_equalsThePlainLoop()
{
    useTarget();
    constexpr std::size_t width = Kernels::denseOutputs;
    Samples samples(12);
    for (const std::size_t inputs : {1, 2, 5, 31, 128}) {
        for (std::size_t frames = 0; frames < 55; ++frames) {
            const std::size_t groups = samples.below(4);
            const std::size_t stride = inputs * width + samples.below(3);
            const Rows rows(samples, inputs, frames);
            const std::vector<float> packed = someGains(samples, groups * stride + 1);
            std::vector<Floats> out;
            for (std::size_t o = 0; o < groups * width; ++o)
                out.push_back(samples.floats(frames));
            const std::vector<float *> planes = addresses<float>(out);

            Kernels::mixDense(planes.data(), groups, rows.in.data(), packed.data(), stride, inputs,
                              frames);

            for (std::size_t o = 0; o < out.size(); ++o) {
                std::vector<float> gains(inputs);
                for (std::size_t j = 0; j < inputs; ++j)
                    gains[j] = packed[o / width * stride + j * width + o % width];
                QVERIFY(out[o].isIntact());
                QCOMPARE(firstDifference(out[o], rows.mixed(gains, frames)), -1);
            }
        }
    }
}

void tst_Kernels::mix_beginsAtPositiveZero()
{
    useTarget();
    constexpr std::size_t frames = 21;
    constexpr std::size_t width = Kernels::denseOutputs;
    const std::vector<float> in(frames, -0.0f);
    const float *const rows[] = {in.data()};
    const float gains[width] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
    Floats out[width] = {{frames, 0}, {frames, 0}, {frames, 0},
                         {frames, 0}, {frames, 0}, {frames, 0}};
    float *const planes[width] = {out[0].data(), out[1].data(), out[2].data(),
                                  out[3].data(), out[4].data(), out[5].data()};
    const std::vector<float> positive(frames, 0.0f);

    Kernels::mix(planes[0], rows, gains, 1, frames);
    QCOMPARE(firstDifference(out[0], positive), -1);
    Kernels::mixPair(planes[0], planes[1], rows, gains, gains, 1, frames);
    QCOMPARE(firstDifference(out[1], positive), -1);
    Kernels::mixDense(planes, 1, rows, gains, width, 1, frames);
    for (const Floats &plane : out)
        QCOMPARE(firstDifference(plane, positive), -1);
}

void tst_Kernels::multiplyFinite_tellsWhetherAllAre()
{
    useTarget();
    Samples samples(8);
    // One sample of each kind at every place, and none.
    for (std::size_t count = 1; count < 70; ++count) {
        for (std::size_t place = 0; place <= count; ++place) {
            Floats x(count, count % 9);
            for (std::size_t i = 0; i < count; ++i)
                x[i] = i == place ? samples.any() : samples.ordinary();
            const float value = samples.ordinary();
            std::vector<float> expected(count);
            bool finite = true;
            for (std::size_t i = 0; i < count; ++i) {
                expected[i] = x[i] * value;
                finite = finite && std::isfinite(expected[i]);
            }
            QCOMPARE(Kernels::multiplyFinite(x.data(), count, value), finite);
            QVERIFY(x.isIntact());
            QCOMPARE(firstDifference(x, expected), -1);
            QCOMPARE(Kernels::isFinite(x.data(), count), finite);
        }
    }
    QVERIFY(Kernels::multiplyFinite(nullptr, 0, 1.0f));
    QVERIFY(Kernels::isFinite(nullptr, 0));
}

void tst_Kernels::replaceNotFinite_leavesTheOthers()
{
    useTarget();
    Samples samples(9);
    for (std::size_t count = 0; count < 140; ++count) {
        Floats x = samples.floats(count);
        std::vector<float> expected(count);
        std::size_t replaced = 0;
        for (std::size_t i = 0; i < count; ++i) {
            expected[i] = std::isfinite(x[i]) ? x[i] : 0.0f;
            replaced += std::isfinite(x[i]) ? 0 : 1;
        }
        QCOMPARE(Kernels::replaceNotFinite(x.data(), count), replaced);
        QVERIFY(x.isIntact());
        QCOMPARE(firstDifference(x, expected), -1);
    }
}

void tst_Kernels::sameBits_seesEveryCellAndNoOther()
{
    useTarget();
    constexpr std::size_t stride = 24;
    constexpr std::size_t wider = 32;
    constexpr std::size_t rows = 5;
    Samples samples(13);
    std::vector<float> a(stride * rows);
    for (float &x : a)
        x = samples.any();
    for (std::size_t columns = 0; columns <= stride; ++columns) {
        for (std::size_t i = 0; i < a.size(); ++i) {
            std::vector<float> b(wider * rows);
            for (std::size_t r = 0; r < rows; ++r)
                std::copy_n(a.data() + r * stride, stride, b.data() + r * wider);
            const auto same = [&] {
                return Kernels::sameBits(a.data(), stride, b.data(), wider, rows, columns);
            };
            QVERIFY(same());
            float &cell = b[i / stride * wider + i % stride];
            cell = std::bit_cast<float>(std::bit_cast<std::uint32_t>(cell) ^ 0x80000000u);
            const bool watched = i % stride < columns;
            QCOMPARE(same(), !watched);
        }
    }
}

void tst_Kernels::cleanVectorState_keepsResults()
{
    useTarget();
    Floats x(40, 0);
    Kernels::fill(x.data(), 40, 2.0f);
    Kernels::cleanVectorState();
    Kernels::multiply(x.data(), 40, 0.25f);
    Kernels::cleanVectorState();
    QCOMPARE(firstDifference(x, std::vector<float>(40, 0.5f)), -1);
}

void tst_Kernels::rampGain_fallsFrameByFrame_whenTargetIsZero()
{
    float block[] = {1.0f, -1.0f, 1.0f, -1.0f, 1.0f, -1.0f, 1.0f, -1.0f, 7.0f};
    Kernels::rampGain(block, 4, 2, 1.0f, 0.0f);
    const float expected[] = {1.0f, -1.0f, 0.75f, -0.75f, 0.5f, -0.5f, 0.25f, -0.25f, 7.0f};
    for (std::size_t i = 0; i < std::size(expected); ++i)
        QCOMPARE(bits(block[i]), bits(expected[i]));
}

void tst_Kernels::rampGain_keepsARunningFloat()
{
    constexpr std::size_t frames = 441;
    for (const std::size_t channels : {1, 2, 3, 8}) {
        Samples samples(14);
        Floats block(frames * channels, 1);
        for (std::size_t i = 0; i < frames * channels; ++i)
            block[i] = samples.ordinary();
        std::vector<float> expected(block.data(), block.data() + frames * channels);
        float applied = 0.3f;
        const double step = (double(0.3f) - double(0.9f)) / 441.0;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            expected[i] *= applied;
            if (i % channels == channels - 1)
                applied = float(applied - step);
        }
        Kernels::rampGain(block.data(), frames, channels, 0.3f, 0.9f);
        QVERIFY(block.isIntact());
        QCOMPARE(firstDifference(block, expected), -1);
    }
}

void tst_Kernels::rampGain_touchesNothing_withoutFrames()
{
    Floats block(4, 0);
    Kernels::rampGain(block.data(), 0, 2, 1.0f, 0.0f);
    QVERIFY(block.isIntact());
    QCOMPARE(firstDifference(block, std::vector<float>(4, 0.0f)), -1);
}

QTEST_GUILESS_MAIN(tst_Kernels)
#include "tst_kernels.moc"
