// SPDX-License-Identifier: MIT
// This file is compiled once for each instruction set: foreach_target.h includes it again.

// 512-bit vectors gain nothing here, and the arrays of vectors below need vectors of known size.
#undef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS \
    (HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/resample_kernel.cpp"

#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include <dsp/resample_kernel_p.h>

#include <algorithm>
#include <cstddef>
#include <limits>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

using Wide = hn::CappedTag<float, 8>;

constexpr size_t lanes = hn::MaxLanes(Wide());
constexpr size_t vectorsPerSum = 8 / lanes;
constexpr int groupFrames = lanes == 8 ? 8 : 4; // as many sums as the registers hold

/// Eight partial sums: the k-th adds every eighth product, beginning with the k-th.
struct Sum
{
    hn::Vec<Wide> part[vectorsPerSum];
};

HWY_INLINE void clear(Sum &sum)
{
    for (size_t i = 0; i < vectorsPerSum; ++i)
        sum.part[i] = hn::Zero(Wide());
}

HWY_INLINE Sum loadEight(const float *from)
{
    Sum loaded;
    for (size_t i = 0; i < vectorsPerSum; ++i)
        loaded.part[i] = hn::LoadU(Wide(), from + i * lanes);
    return loaded;
}

HWY_INLINE void addProducts(Sum &sum, const Sum &coefficients, const float *input)
{
    for (size_t i = 0; i < vectorsPerSum; ++i) {
        const auto samples = hn::LoadU(Wide(), input + i * lanes);
        sum.part[i] = hn::Add(sum.part[i], hn::Mul(coefficients.part[i], samples));
    }
}

#if HWY_TARGET == HWY_SCALAR

HWY_INLINE float total(const Sum &sum)
{
    float folded[4];
    for (size_t i = 0; i < 4; ++i)
        folded[i] = hn::GetLane(sum.part[i]) + hn::GetLane(sum.part[i + 4]);
    return (folded[0] + folded[2]) + (folded[1] + folded[3]);
}

#else

using Four = hn::CappedTag<float, 4>;
using FourFloats = hn::Vec<Four>;

/// Partial sums k and k + 4 added. A template only so that the branch not taken is not compiled.
template <typename Vector, size_t count>
HWY_INLINE FourFloats fold(const Vector (&part)[count])
{
    if constexpr (count == 1)
        return hn::Add(hn::LowerHalf(Four(), part[0]), hn::UpperHalf(Four(), part[0]));
    else
        return hn::Add(part[0], part[1]);
}

/// (0 + 2) + (1 + 3) of each of the four.
HWY_INLINE FourFloats total(FourFloats a, FourFloats b, FourFloats c, FourFloats d)
{
    const Four tag;
    const auto ab = hn::Add(hn::InterleaveLower(tag, a, b), hn::InterleaveUpper(tag, a, b));
    const auto cd = hn::Add(hn::InterleaveLower(tag, c, d), hn::InterleaveUpper(tag, c, d));
    return hn::Add(hn::ConcatLowerLower(tag, cd, ab), hn::ConcatUpperUpper(tag, cd, ab));
}

/// The same sum for one.
HWY_INLINE float total(const Sum &sum)
{
    HWY_ALIGN float folded[4];
    hn::Store(fold(sum.part), Four(), folded);
    return (folded[0] + folded[2]) + (folded[1] + folded[3]);
}

#endif

HWY_INLINE float one(const float *row, const float *window, int taps)
{
    Sum sum;
    clear(sum);
    for (int k = 0; k < taps; k += 8)
        addProducts(sum, loadEight(row + k), window + k);
    return total(sum);
}

#if HWY_TARGET == HWY_SCALAR

template <int frames>
HWY_INLINE void group(const float *row, const float *window, ptrdiff_t step, int taps, float *out,
                      ptrdiff_t stride)
{
    for (int i = 0; i < frames; ++i)
        out[i * stride] = one(row, window + i * step, taps);
}

#else

struct FourSums
{
    Sum a, b, c, d;
};

HWY_INLINE void clear(FourSums &sums)
{
    clear(sums.a);
    clear(sums.b);
    clear(sums.c);
    clear(sums.d);
}

HWY_INLINE void addProducts(FourSums &sums, const Sum &coefficients, const float *input,
                            ptrdiff_t step)
{
    addProducts(sums.a, coefficients, input);
    addProducts(sums.b, coefficients, input + step);
    addProducts(sums.c, coefficients, input + 2 * step);
    addProducts(sums.d, coefficients, input + 3 * step);
}

HWY_INLINE void storeTotals(const FourSums &sums, float *out, ptrdiff_t stride)
{
    HWY_ALIGN float totals[4];
    hn::Store(total(fold(sums.a.part), fold(sums.b.part), fold(sums.c.part), fold(sums.d.part)),
              Four(), totals);
    out[0] = totals[0];
    out[stride] = totals[1];
    out[2 * stride] = totals[2];
    out[3 * stride] = totals[3];
}

/// Several output frames of equal phase share each load of the coefficients.
template <int frames>
HWY_INLINE void group(const float *row, const float *window, ptrdiff_t step, int taps, float *out,
                      ptrdiff_t stride)
{
    FourSums first;
    clear(first);
    if constexpr (frames == 4) {
        for (int k = 0; k < taps; k += 16) {
            addProducts(first, loadEight(row + k), window + k, step);
            addProducts(first, loadEight(row + k + 8), window + k + 8, step);
        }
    } else {
        FourSums second;
        clear(second);
        const float *const later = window + 4 * step;
        for (int k = 0; k < taps; k += 16) {
            const Sum coefficients = loadEight(row + k);
            addProducts(first, coefficients, window + k, step);
            addProducts(second, coefficients, later + k, step);
            const Sum following = loadEight(row + k + 8);
            addProducts(first, following, window + k + 8, step);
            addProducts(second, following, later + k + 8, step);
        }
        storeTotals(second, out + 4 * stride, stride);
    }
    storeTotals(first, out, stride);
}

#endif

/// All output frames of one phase: `count` of them, `stride` apart.
HWY_INLINE void onePhase(const float *row, const float *window, const ResampleFilter &filter,
                         float *out, int64_t count)
{
    const ptrdiff_t step = filter.step;
    const ptrdiff_t stride = filter.phases;
    if (count < 4) {
        for (int64_t i = 0; i < count; ++i)
            out[i * stride] = one(row, window + i * step, filter.taps);
        return;
    }
    int64_t i = 0;
    for (; groupFrames > 4 && count - i > 4 && count >= groupFrames; i += groupFrames) {
        i = std::min(i, count - groupFrames);
        group<groupFrames>(row, window + i * step, step, filter.taps, out + i * stride, stride);
    }
    // The last group may repeat some frames: computed twice, they come out the same.
    for (; i < count; i += 4) {
        i = std::min(i, count - 4);
        group<4>(row, window + i * step, step, filter.taps, out + i * stride, stride);
    }
}

void runExact(const ResampleFilter &filter, const ResampleRun &run)
{
    const int64_t whole = filter.step / filter.phases;
    const int64_t part = filter.step % filter.phases;
    const int64_t rounds = run.frames / filter.phases;
    const int64_t rest = run.frames % filter.phases;
    const int64_t phases = rounds > 0 ? filter.phases : rest;
    const float *window = run.window;
    int64_t phase = run.phase;
    for (int64_t i = 0; i < phases; ++i) {
        const float *row = filter.rows.data() + phase * filter.taps;
        onePhase(row, window, filter, run.out + i, rounds + (i < rest ? 1 : 0));
        window += whole;
        phase += part;
        if (phase >= filter.phases) {
            phase -= filter.phases;
            ++window;
        }
    }
}

void runInterpolated(const ResampleFilter &filter, const ResampleRun &run)
{
    const int64_t whole = filter.step / filter.phases;
    const int64_t part = filter.step % filter.phases;
    const float *window = run.window;
    int64_t phase = run.phase;
    for (int64_t i = 0; i < run.frames; ++i) {
        const int64_t position = phase * filter.parts;
        const float *row = filter.rows.data() + position / filter.phases * filter.taps;
        const float weight = float(double(position % filter.phases) / double(filter.phases));
        Sum below;
        Sum above;
        clear(below);
        clear(above);
        for (int k = 0; k < filter.taps; k += 8) {
            const Sum samples = loadEight(window + k);
            addProducts(below, samples, row + k);
            addProducts(above, samples, row + filter.taps + k);
        }
        const float low = total(below);
        run.out[i] = low + weight * (total(above) - low);
        window += whole;
        phase += part;
        if (phase >= filter.phases) {
            phase -= filter.phases;
            ++window;
        }
    }
}

void copyFinite(const float *in, float *out, int64_t count)
{
    const Wide tag;
    const auto most = hn::Set(tag, std::numeric_limits<float>::max());
    int64_t i = 0;
    for (; i + int64_t(lanes) <= count; i += int64_t(lanes)) {
        const auto samples = hn::LoadU(tag, in + i);
        const auto finite = hn::Le(hn::Abs(samples), most);
        hn::StoreU(hn::IfThenElseZero(finite, samples), tag, out + i);
    }
    for (; i < count; ++i)
        out[i] = in[i] >= -std::numeric_limits<float>::max() &&
                         in[i] <= std::numeric_limits<float>::max()
                     ? in[i]
                     : 0.0F;
}

} // namespace
} // namespace HWY_NAMESPACE
} // namespace QTovelMixer
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace QTovelMixer {

HWY_EXPORT(runExact);
HWY_EXPORT(runInterpolated);
HWY_EXPORT(copyFinite);

void resampleRun(const ResampleFilter &filter, const ResampleRun &run) noexcept
{
    if (filter.parts == 0)
        HWY_DYNAMIC_DISPATCH(runExact)(filter, run);
    else
        HWY_DYNAMIC_DISPATCH(runInterpolated)(filter, run);
}

void copyFinite(const float *in, float *out, int64_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(copyFinite)(in, out, count);
}

} // namespace QTovelMixer
#endif
