// SPDX-License-Identifier: MIT
// This file is compiled once for each instruction set: foreach_target.h includes it again.

#include <dsp/statistics_kernel_p.h>

#include <algorithm>
#include <cmath>
#include <limits>

// 512-bit vectors gain nothing here.
#define HWY_DISABLED_TARGETS \
    (HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/statistics_kernel.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::CappedTag<float, 8>;
using Vector = hn::Vec<Floats>;
constexpr size_t lanes = hn::MaxLanes(Floats());

using Doubles = hn::CappedTag<double, 4>;
using DoubleVector = hn::Vec<Doubles>;
using Narrow = hn::Rebind<float, Doubles>;
constexpr int doubleLanes = int(hn::MaxLanes(Doubles()));

constexpr float bound = 1e30F;

/// Copies samples and tells whether all are finite and within the bound. The bits of magnitudes are
/// in the order of their values, with those that are not finite last.
bool copyWithin(const float *in, float *out, size_t count)
{
    const hn::RebindToSigned<Floats> integers;
    const auto withoutSign = hn::Set(integers, 0x7fffffff);
    auto largest = hn::Zero(integers);
    auto other = largest;
    size_t i = 0;
    for (; i + 2 * lanes <= count; i += 2 * lanes) {
        const auto a = hn::LoadU(Floats(), in + i);
        const auto b = hn::LoadU(Floats(), in + i + lanes);
        hn::StoreU(a, Floats(), out + i);
        hn::StoreU(b, Floats(), out + i + lanes);
        largest = hn::Max(largest, hn::And(hn::BitCast(integers, a), withoutSign));
        other = hn::Max(other, hn::And(hn::BitCast(integers, b), withoutSign));
    }
    const auto most = hn::BitCast(integers, hn::Set(Floats(), bound));
    bool within = hn::AllFalse(integers, hn::Gt(hn::Max(largest, other), most));
    for (; i < count; ++i) {
        out[i] = in[i];
        within = within && std::abs(in[i]) <= bound;
    }
    return within;
}

void copyBounded(const float *in, float *out, size_t count)
{
    if (copyWithin(in, out, count))
        return;
    const auto most = hn::Set(Floats(), std::numeric_limits<float>::max());
    size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        const auto samples = hn::LoadU(Floats(), in + i);
        const auto finite = hn::IfThenElseZero(hn::Le(hn::Abs(samples), most), samples);
        const auto held =
            hn::Max(hn::Min(finite, hn::Set(Floats(), bound)), hn::Set(Floats(), -bound));
        hn::StoreU(held, Floats(), out + i);
    }
    for (; i < count; ++i)
        out[i] = std::isfinite(in[i]) ? std::clamp(in[i], -bound, bound) : 0.0F;
}

/// Two vectors of neighbouring samples, worked on together so that they share coefficients.
struct Two
{
    Vector a, b;
};

HWY_INLINE Two loadTwo(const float *from)
{
    return {hn::LoadU(Floats(), from), hn::LoadU(Floats(), from + lanes)};
}

HWY_INLINE void storeTwo(Two values, float *to)
{
    hn::StoreU(values.a, Floats(), to);
    hn::StoreU(values.b, Floats(), to + lanes);
}

HWY_INLINE Two maxOf(Two x, Two y)
{
    return {hn::Max(x.a, y.a), hn::Max(x.b, y.b)};
}

/// Raises the peaks to what `magnitudes` gives for the samples of the run. All samples of some
/// peaks at a time, so that none waits for the store of the one before.
template <typename Magnitudes>
HWY_INLINE void raise(const StatisticsRun &run, FlatPeaks &peaks, const Magnitudes &magnitudes)
{
    const size_t count = size_t(run.frames) * size_t(run.channels);
    const size_t size = peaks.size();
    const size_t whole = count / (2 * lanes) * (2 * lanes);
    float *const first = peaks.data();
    for (size_t place = 0; place < std::min(size, whole); place += 2 * lanes) {
        Two held = loadTwo(first + place);
        for (size_t i = place; i < whole; i += size)
            held = maxOf(held, magnitudes(run.samples + i));
        storeTwo(held, first + place);
    }
    if (whole < count) {
        const size_t rest = count - whole;
        Two last = magnitudes(run.samples + whole);
        last.a = hn::IfThenElseZero(hn::FirstN(Floats(), std::min(rest, lanes)), last.a);
        last.b = hn::IfThenElseZero(hn::FirstN(Floats(), rest - std::min(rest, lanes)), last.b);
        float *const place = first + whole % size;
        storeTwo(maxOf(loadTwo(place), last), place);
    }
}

HWY_INLINE Two magnitudesOf(Two values)
{
    return {hn::Abs(values.a), hn::Abs(values.b)};
}

void samplePeaks(const StatisticsRun &run, FlatPeaks &peaks)
{
    raise(run, peaks, [](const float *samples) HWY_ATTR { return magnitudesOf(loadTwo(samples)); });
}

HWY_INLINE Two sumOf(Two x, Two y)
{
    return {hn::Add(x.a, y.a), hn::Add(x.b, y.b)};
}

HWY_INLINE Two differenceOf(Two x, Two y)
{
    return {hn::Sub(x.a, y.a), hn::Sub(x.b, y.b)};
}

/// Their sum to the last bit. Where additions have units of their own and are what a loop waits
/// for, the multipliers take some of them over.
template <class V>
HWY_INLINE V sumByMultipliers(V x, V y, [[maybe_unused]] V one)
{
#if HWY_NATIVE_FMA
    return hn::MulAdd(x, one, y);
#else
    return hn::Add(x, y);
#endif
}

HWY_INLINE Two weighted(float weight, Two values)
{
    const auto factor = hn::Set(Floats(), weight);
    return {hn::Mul(factor, values.a), hn::Mul(factor, values.b)};
}

HWY_INLINE void addWeighted(Two &total, float weight, Two values)
{
    const auto factor = hn::Set(Floats(), weight);
    total.a = hn::Add(total.a, hn::Mul(factor, values.a));
    total.b = hn::Add(total.b, hn::Mul(factor, values.b));
}

/// The three phases of 4 times: with S the part that multiplies sums and D the one that multiplies
/// differences, the larger magnitude of S + D and S - D is |S| + |D|.
HWY_INLINE Two fourTimes(const float *samples, ptrdiff_t channels, const TruePeakFilter &filter)
{
    const auto one = hn::Set(Floats(), filter.one);
    const Two newest = loadTwo(samples);
    const Two oldest = loadTwo(samples - 11 * channels);
    const Two outer = sumOf(newest, oldest);
    Two middle = weighted(filter.middle[0], outer);
    Two sums = weighted(filter.quarterSums[0], outer);
    Two differences = weighted(filter.quarterDifferences[0], differenceOf(newest, oldest));
    for (int k = 1; k < 6; ++k) {
        const Two near = loadTwo(samples - k * channels);
        const Two far = loadTwo(samples - (11 - k) * channels);
        const Two sum{sumByMultipliers(near.a, far.a, one), sumByMultipliers(near.b, far.b, one)};
        addWeighted(middle, filter.middle[size_t(k)], sum);
        addWeighted(sums, filter.quarterSums[size_t(k)], sum);
        addWeighted(differences, filter.quarterDifferences[size_t(k)], differenceOf(near, far));
    }
    const Two quarters = sumOf(magnitudesOf(sums), magnitudesOf(differences));
    return maxOf(magnitudesOf(middle), quarters);
}

HWY_INLINE Two twoTimes(const float *samples, ptrdiff_t channels, const TruePeakFilter &filter)
{
    const auto zero = hn::Zero(Floats());
    Two middle{zero, zero};
    for (int k = 0; k < 12; ++k) {
        const Two near = loadTwo(samples - k * channels);
        const Two far = loadTwo(samples - (23 - k) * channels);
        addWeighted(middle, filter.middle[size_t(k)], sumOf(near, far));
    }
    return magnitudesOf(middle);
}

void truePeaks(const StatisticsRun &run, const TruePeakFilter &filter, FlatPeaks &peaks)
{
    const ptrdiff_t channels = run.channels;
    // A copy that nobody else can write to: the loop need not read it again.
    const TruePeakFilter local = filter;
    if (filter.factor == 4)
        raise(run, peaks,
              [&](const float *samples) HWY_ATTR { return fourTimes(samples, channels, local); });
    else
        raise(run, peaks,
              [&](const float *samples) HWY_ATTR { return twoTimes(samples, channels, local); });
}

/// A section over its b0, with its feedback folded in, so that each state waits for one
/// multiplication and one addition only: y = x + p, p' = c1 x + q - a1 p, q' = c2 x - a2 p.
struct Section
{
    DoubleVector c1, c2, a1, a2;
};

HWY_INLINE Section section(const Biquad &biquad)
{
    const Doubles tag;
    return {hn::Set(tag, biquad.b1 / biquad.b0 - biquad.a1),
            hn::Set(tag, biquad.b2 / biquad.b0 - biquad.a2), hn::Set(tag, biquad.a1),
            hn::Set(tag, biquad.a2)};
}

HWY_INLINE void next(const Section &s, DoubleVector x, DoubleVector &p, DoubleVector &q)
{
    const auto newP = hn::Sub(hn::Add(hn::Mul(s.c1, x), q), hn::Mul(s.a1, p));
    q = hn::Sub(hn::Mul(s.c2, x), hn::Mul(s.a2, p));
    p = newP;
}

/// The state of as many channels as a vector has lanes.
struct ChannelState
{
    DoubleVector p1, q1, p2, q2, energy;
};

HWY_INLINE ChannelState load(KWeightingState &state, int channel)
{
    const Doubles tag;
    return {hn::LoadU(tag, state.field(0) + channel), hn::LoadU(tag, state.field(1) + channel),
            hn::LoadU(tag, state.field(2) + channel), hn::LoadU(tag, state.field(3) + channel),
            hn::LoadU(tag, state.field(4) + channel)};
}

/// What has died away is cleared: numbers near the smallest possible ones are slow.
HWY_INLINE DoubleVector withoutResidue(DoubleVector value)
{
    const auto audible = hn::Gt(hn::Abs(value), hn::Set(Doubles(), 1e-40));
    return hn::IfThenElseZero(audible, value);
}

HWY_INLINE void store(const ChannelState &from, KWeightingState &state, int channel)
{
    const Doubles tag;
    hn::StoreU(withoutResidue(from.p1), tag, state.field(0) + channel);
    hn::StoreU(withoutResidue(from.q1), tag, state.field(1) + channel);
    hn::StoreU(withoutResidue(from.p2), tag, state.field(2) + channel);
    hn::StoreU(withoutResidue(from.q2), tag, state.field(3) + channel);
    hn::StoreU(from.energy, tag, state.field(4) + channel);
}

HWY_INLINE void advance(ChannelState &state, const float *samples, const Section &shelf,
                        const Section &lowCut, DoubleVector one)
{
    const auto x = hn::PromoteTo(Doubles(), hn::LoadU(Narrow(), samples));
    const auto shelved = hn::Add(x, state.p1);
    const auto y = sumByMultipliers(shelved, state.p2, one);
    next(shelf, x, state.p1, state.q1);
    next(lowCut, shelved, state.p2, state.q2);
    state.energy = hn::Add(state.energy, hn::Mul(y, y));
}

void weigh(const StatisticsRun &run, const KWeighting &weighting, KWeightingState &state)
{
    const Section shelf = section(weighting.shelf);
    const Section lowCut = section(weighting.lowCut);
    const auto one = hn::Set(Doubles(), weighting.one);
    int channel = 0;
    // Two vectors side by side hide how long one waits for its own last frame.
    for (; run.channels - channel > doubleLanes; channel += 2 * doubleLanes) {
        ChannelState first = load(state, channel);
        ChannelState second = load(state, channel + doubleLanes);
        const float *samples = run.samples + channel;
        for (int frame = 0; frame < run.frames; ++frame, samples += run.channels) {
            advance(first, samples, shelf, lowCut, one);
            advance(second, samples + doubleLanes, shelf, lowCut, one);
        }
        store(first, state, channel);
        store(second, state, channel + doubleLanes);
    }
    if (channel < run.channels) {
        ChannelState last = load(state, channel);
        const float *samples = run.samples + channel;
        for (int frame = 0; frame < run.frames; ++frame, samples += run.channels)
            advance(last, samples, shelf, lowCut, one);
        store(last, state, channel);
    }
}

} // namespace
} // namespace HWY_NAMESPACE
} // namespace QTovelMixer
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace QTovelMixer {

HWY_EXPORT(copyBounded);
HWY_EXPORT(samplePeaks);
HWY_EXPORT(truePeaks);
HWY_EXPORT(weigh);

KWeightingState::KWeightingState(int channels) : lanes((size_t(channels) + 15) / 8 * 8)
{
    values.resize(lanes * fields);
}

void copyBounded(const float *in, float *out, size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(copyBounded)(in, out, count);
}

void samplePeaks(const StatisticsRun &run, FlatPeaks &peaks) noexcept
{
    HWY_DYNAMIC_DISPATCH(samplePeaks)(run, peaks);
}

void truePeaks(const StatisticsRun &run, const TruePeakFilter &filter, FlatPeaks &peaks) noexcept
{
    HWY_DYNAMIC_DISPATCH(truePeaks)(run, filter, peaks);
}

void weigh(const StatisticsRun &run, const KWeighting &weighting, KWeightingState &state) noexcept
{
    HWY_DYNAMIC_DISPATCH(weigh)(run, weighting, state);
}

} // namespace QTovelMixer
#endif
