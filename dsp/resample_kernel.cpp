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
constexpr int blockRows = ResampleFilter::rowsPerBlock;

/// Eight partial sums: the k-th adds every eighth product, beginning with the k-th.
struct Sum
{
    // The one that gcc makes belongs to no instruction set, and cannot make vectors on ARM.
    HWY_INLINE Sum() {}

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

/// One output frame: row `row` of a block whose window begins at `window`.
HWY_INLINE float one(const float *block, int row, const float *window, int depth)
{
    Sum sum;
    clear(sum);
    for (int k = 0; k < depth; k += 8)
        addProducts(sum, loadEight(block + k * blockRows + row * 8), window + k);
    return total(sum);
}

#if HWY_TARGET == HWY_SCALAR

HWY_INLINE void oneBlock(const float *block, const float *window, int depth, float *out)
{
    for (int row = 0; row < blockRows; ++row)
        out[row] = one(block, row, window, depth);
}

#else

struct FourSums
{
    HWY_INLINE FourSums() {}

    Sum a, b, c, d;
};

HWY_INLINE void clear(FourSums &sums)
{
    clear(sums.a);
    clear(sums.b);
    clear(sums.c);
    clear(sums.d);
}

HWY_INLINE void addProducts(FourSums &sums, const float *coefficients, const Sum &samples)
{
    addProducts(sums.a, samples, coefficients);
    addProducts(sums.b, samples, coefficients + 8);
    addProducts(sums.c, samples, coefficients + 16);
    addProducts(sums.d, samples, coefficients + 24);
}

HWY_INLINE void storeTotals(const FourSums &sums, float *out)
{
    hn::StoreU(total(fold(sums.a.part), fold(sums.b.part), fold(sums.c.part), fold(sums.d.part)),
               Four(), out);
}

/// The four output frames of a block share each load of the input.
HWY_INLINE void oneBlock(const float *block, const float *window, int depth, float *out)
{
    FourSums sums;
    clear(sums);
    for (int k = 0; k < depth; k += 8)
        addProducts(sums, block + k * blockRows, loadEight(window + k));
    storeTotals(sums, out);
}

#endif

/// Where the passes of a block lie: the first one, and from each to the next.
struct Passes
{
    const float *window;
    float *out;
    int64_t count;
    int64_t windowStep;
    int64_t outStep;
};

#if HWY_ARCH_X86 && HWY_TARGET <= HWY_AVX2 && (HWY_COMPILER_GCC || HWY_COMPILER_CLANG)

/// Hides where a value comes from: left alone, g++ makes memory operands of all uses of a
/// coefficient and registers of all uses of a sample. Loads and registers are both scarce below.
HWY_INLINE const float *hidden(const float *value)
{
    asm("" : "+r"(value));
    return value;
}
HWY_INLINE hn::Vec<Wide> inRegister(hn::Vec<Wide> value)
{
    asm("" : "+x"(value.raw));
    return value;
}

/// Eight coefficients of one row, for three passes. `third` is hidden and not what it points to:
/// the address is then computed once.
HWY_INLINE void addToThree(Sum &sum, Sum &secondSum, Sum &thirdSum, const float *coefficients,
                           hn::Vec<Wide> samples, hn::Vec<Wide> secondSamples, const float *&third,
                           int k)
{
    const auto factors = inRegister(hn::Load(Wide(), coefficients));
    third = hidden(third);
    sum.part[0] = hn::Add(sum.part[0], hn::Mul(factors, samples));
    secondSum.part[0] = hn::Add(secondSum.part[0], hn::Mul(factors, secondSamples));
    thirdSum.part[0] = hn::Add(thirdSum.part[0], hn::Mul(factors, hn::LoadU(Wide(), third + k)));
}

/// Three passes of the same block share each load of the coefficients. Twelve sums, the samples of
/// two passes, a coefficient and a product are all the registers there are.
HWY_INLINE void threeBlocks(const float *block, const Passes &passes, int64_t pass, int depth)
{
    const float *const window = passes.window + pass * passes.windowStep;
    const float *const second = window + passes.windowStep;
    const float *third = second + passes.windowStep;
    FourSums sums;
    FourSums secondSums;
    FourSums thirdSums;
    clear(sums);
    clear(secondSums);
    clear(thirdSums);
    for (int k = 0; k < depth; k += 8) {
        const auto a = inRegister(hn::LoadU(Wide(), window + k));
        const auto b = inRegister(hn::LoadU(Wide(), second + k));
        const float *const rows = block + k * blockRows;
        addToThree(sums.a, secondSums.a, thirdSums.a, rows, a, b, third, k);
        addToThree(sums.b, secondSums.b, thirdSums.b, rows + 8, a, b, third, k);
        addToThree(sums.c, secondSums.c, thirdSums.c, rows + 16, a, b, third, k);
        addToThree(sums.d, secondSums.d, thirdSums.d, rows + 24, a, b, third, k);
    }
    float *const out = passes.out + pass * passes.outStep;
    storeTotals(sums, out);
    storeTotals(secondSums, out + passes.outStep);
    storeTotals(thirdSums, out + 2 * passes.outStep);
}

/// Answers how many passes are done.
HWY_INLINE int64_t passesTogether(const float *block, int depth, const Passes &passes)
{
    int64_t i = 0;
    for (; i + 3 <= passes.count; i += 3)
        threeBlocks(block, passes, i, depth);
    return i;
}

#else

HWY_INLINE int64_t passesTogether(const float * /*block*/, int /*depth*/, const Passes & /*passes*/)
{
    return 0;
}

#endif

HWY_INLINE void wholeBlocks(const float *block, int depth, const Passes &passes)
{
    for (int64_t i = passesTogether(block, depth, passes); i < passes.count; ++i)
        oneBlock(block, passes.window + i * passes.windowStep, depth,
                 passes.out + i * passes.outStep);
}

/// Output frames of a block that the run or the cycle cuts.
HWY_INLINE void rowByRow(const ResampleFilter &filter, const ResampleRun &run, int64_t begin,
                         int64_t end)
{
    for (int64_t i = begin; i < end; ++i) {
        const int64_t position = (run.position + i) % filter.cycle;
        const int64_t first = position / blockRows * blockRows;
        const int64_t ahead = filter.windowOf(run.position + i) - filter.windowOf(run.position) -
                              (filter.windowOf(position) - filter.windowOf(first));
        run.out[i] = one(filter.block(position / blockRows), int(position - first),
                         run.window + ahead, filter.depth);
    }
}

void runExact(const ResampleFilter &filter, const ResampleRun &run)
{
    const int64_t cycle = filter.cycle;
    const int64_t cycleWindow = filter.windowOf(cycle);
    const int64_t begin = run.position;
    const int64_t end = begin + run.frames;
    const int64_t wholeBegin =
        std::min({(begin + blockRows - 1) / blockRows * blockRows, cycle, end});
    rowByRow(filter, run, 0, wholeBegin - begin);
    for (int64_t index = 0; index < filter.blocks(); ++index) {
        const int64_t rows = std::min<int64_t>(blockRows, cycle - index * blockRows);
        const int64_t inCycle = index * blockRows;
        const int64_t first = inCycle >= wholeBegin ? inCycle : inCycle + cycle;
        if (first + rows > end)
            continue;
        const int64_t count = (end - rows - first) / cycle + 1;
        if (rows == blockRows) {
            wholeBlocks(filter.block(index), filter.depth,
                        {run.window + filter.windowOf(first) - filter.windowOf(begin),
                         run.out + first - begin, count, cycleWindow, cycle});
        } else {
            for (int64_t i = 0; i < count; ++i)
                rowByRow(filter, run, first + i * cycle - begin, first + i * cycle + rows - begin);
        }
    }
    const int64_t cut = end % cycle % blockRows;
    rowByRow(filter, run, std::max(end - cut, wholeBegin) - begin, run.frames);
}

void runInterpolated(const ResampleFilter &filter, const ResampleRun &run)
{
    const int64_t whole = filter.step / filter.phases;
    const int64_t part = filter.step % filter.phases;
    const float *window = run.window;
    int64_t phase = filter.phaseOf(run.position);
    for (int64_t i = 0; i < run.frames; ++i) {
        const int64_t position = phase * filter.parts;
        const float *row = filter.rows.data() + position / filter.phases * filter.taps();
        const float weight = float(double(position % filter.phases) / double(filter.phases));
        Sum below;
        Sum above;
        clear(below);
        clear(above);
        for (int k = 0; k < filter.taps(); k += 8) {
            const Sum samples = loadEight(window + k);
            addProducts(below, samples, row + k);
            addProducts(above, samples, row + filter.taps() + k);
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
