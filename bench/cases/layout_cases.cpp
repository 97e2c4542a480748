// SPDX-License-Identifier: MIT
// Rows from interleaved samples and back, and 16-bit integers, beside a copy of the same bytes.
#include "cases/cases.h"
#include "peers/miniaudio.h"
#include "peers/plain.h"
#include "peers/rematrix.h"

#include <mixer/buffer_ops.h>

#include <hwy/targets.h>

#include <cstring>
#include <memory>
#include <random>

using namespace QTovelMixer;

namespace Bench {

namespace {

using FloatVector = aligned_vector<float, 16>;
using ShortVector = aligned_vector<short, 16>;

constexpr int frames = 256;
constexpr int converted = 4096;

const QString section = QStringLiteral("B. Layouts and integers");
const QString plain = QStringLiteral("plain loop");
const QString copy = QStringLiteral("memcpy of the same bytes");
const QString swr = QStringLiteral("libswresample");
const QString miniaudio = QStringLiteral("miniaudio");

struct Layout
{
    FloatVector block;
    FloatVector copied;
    std::vector<FloatVector> rows;
    std::vector<float *> out;
    std::vector<const float *> in;
    int channels;

    explicit Layout(int count)
        : block(size_t(frames * count)), copied(size_t(frames * count)), channels(count)
    {
        for (int c = 0; c < channels; ++c) {
            rows.emplace_back(size_t(frames));
            out.push_back(rows.back().data());
            in.push_back(rows.back().data());
        }
    }
};

struct Demands
{
    int channels;
    double swresample;
    double memcpy;
    double baseline; ///< of the plain loop, with 128-bit vectors
};

void addCopy(Case &to, const std::shared_ptr<Layout> &work)
{
    to.add(copy, [work] {
        std::memcpy(work->copied.data(), work->block.data(), work->block.size() * sizeof(float));
    });
}

void demand(Case &of, const Demands &demands)
{
    of.mustBeat(swr, demands.swresample).mustBeat(copy, demands.memcpy);
}

Case split(const Demands &demands, bool baseline)
{
    const auto work = std::make_shared<Layout>(demands.channels);
    Case result(section, QStringLiteral("de-interleave %1 channels, 256 frames%2")
                             .arg(demands.channels)
                             .arg(baseline ? QStringLiteral(", 128-bit vectors") : QString()));
    result.ours([work] { de_interleave(work->block, work->rows.data(), work->channels); });
    result.add(plain, [work] {
        Plain::split(work->block.data(), work->out.data(), work->channels, frames);
    });
    if (baseline) {
        result.target = HWY_SSSE3;
        return result.mustBeat(plain, demands.baseline);
    }
    addCopy(result, work);
    addSplit(result, work->block.data(), work->out, frames);
    demand(result, demands);
    return result;
}

Case merge(const Demands &demands, bool baseline)
{
    const auto work = std::make_shared<Layout>(demands.channels);
    Case result(section, QStringLiteral("interleave %1 channels, 256 frames%2")
                             .arg(demands.channels)
                             .arg(baseline ? QStringLiteral(", 128-bit vectors") : QString()));
    result.ours([work] { interleave(work->rows.data(), work->block, work->channels); });
    result.add(plain, [work] {
        Plain::merge(work->in.data(), work->block.data(), work->channels, frames);
    });
    if (baseline) {
        result.target = HWY_SSSE3;
        return result.mustBeat(plain, demands.baseline);
    }
    addCopy(result, work);
    addMerge(result, work->in, work->block.data(), frames);
    demand(result, demands);
    return result;
}

struct Samples
{
    FloatVector floats{size_t(converted)};
    ShortVector shorts{size_t(converted)};
    FloatVector otherFloats{size_t(converted)};
    ShortVector otherShorts{size_t(converted)};

    Samples()
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> value(-1.0f, 1.0f);
        for (int i = 0; i < converted; ++i) {
            floats[i] = value(random);
            shorts[i] = short(value(random) * 32767.0f);
        }
    }
};

void addCopy(Case &to, const std::shared_ptr<Samples> &work)
{
    to.add(copy, [work] {
        std::memcpy(work->otherFloats.data(), work->floats.data(),
                    work->floats.size() * (sizeof(float) + sizeof(short)) / 2);
    });
}

Case toShorts(bool baseline)
{
    const auto work = std::make_shared<Samples>();
    Case result(section, QStringLiteral("float → 16 bits, 4096 samples%1")
                             .arg(baseline ? QStringLiteral(", 128-bit vectors") : QString()));
    result.ours([work] { float_to_short(work->floats, work->otherShorts); });
    result.add(plain, [work] {
        Plain::toShort(work->floats.data(), work->otherShorts.data(), converted);
    });
    addToShort(result, work->floats.data(), work->otherShorts.data(), converted);
    if (baseline) {
        result.target = HWY_SSSE3;
        return result.mustBeat(plain, 12.0).mustBeat(swr, 0.75);
    }
    addCopy(result, work);
    return result.mustBeat(swr, 1.3).mustBeat(copy, 0.6);
}

Case toFloats()
{
    const auto work = std::make_shared<Samples>();
    Case result(section, QStringLiteral("16 bits → float, 4096 samples"));
    result.ours([work] { short_to_float(work->shorts, work->otherFloats); });
    result.add(plain, [work] {
        Plain::toFloat(work->shorts.data(), work->otherFloats.data(), converted);
    });
    addToFloat(result, work->shorts.data(), work->otherFloats.data(), converted);
    addCopy(result, work);
    if (const ConvertShorts convert = miniaudioToFloat()) {
        result.add(miniaudio, [work, convert] {
            convert(work->otherFloats.data(), work->shorts.constData(), converted);
        });
    }
    return result.mustBeat(swr, 2.0).mustBeat(copy, 0.7).mustBeat(miniaudio, 1.1);
}

} // namespace

void addLayoutCases(Suite &suite)
{
    constexpr Demands all[] = {{2, 1.5, 0.5, 3.5}, {8, 1.0, 0.5, 3.0}, {32, 1.15, 0.6, 2.0}};
    for (const Demands &demands : all)
        suite.add(section, [demands] { return split(demands, false); });
    for (const Demands &demands : all)
        suite.add(section, [demands] { return merge(demands, false); });
    suite.add(section, [] { return toShorts(false); });
    suite.add(section, toFloats);
#ifdef __x86_64__
    for (const Demands &demands : all)
        suite.add(section, [demands] { return split(demands, true); });
    for (const Demands &demands : all)
        suite.add(section, [demands] { return merge(demands, true); });
    suite.add(section, [] { return toShorts(true); });
#endif
}

} // namespace Bench
