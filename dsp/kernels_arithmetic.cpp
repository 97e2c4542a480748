// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <dsp/vector_targets_p.h>

#include <cmath>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernels_arithmetic.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <dsp/vector_loop_p.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

struct Fill
{
    float *x;
    float value;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Set(d, value), d, x + i);
    }
};

struct AddValue
{
    float *x;
    float value;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Add(hn::LoadU(d, x + i), hn::Set(d, value)), d, x + i);
    }
};

struct MultiplyValue
{
    float *x;
    float value;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Mul(hn::LoadU(d, x + i), hn::Set(d, value)), d, x + i);
    }
};

struct AddVector
{
    float *x;
    const float *y;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Add(hn::LoadU(d, x + i), hn::LoadU(d, y + i)), d, x + i);
    }
};

struct MultiplyVector
{
    float *x;
    const float *y;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Mul(hn::LoadU(d, x + i), hn::LoadU(d, y + i)), d, x + i);
    }
};

struct MultiplyAdd
{
    float *x;
    const float *y;
    float gain;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        const auto product = hn::Mul(hn::Set(d, gain), hn::LoadU(d, y + i));
        hn::StoreU(hn::Add(hn::LoadU(d, x + i), product), d, x + i);
    }
};

void fillLanes(float *x, std::size_t count, float value)
{
    forEach(count, Fill{x, value});
}

void addValue(float *x, std::size_t count, float value)
{
    forEach(count, AddValue{x, value});
}

void multiplyValue(float *x, std::size_t count, float value)
{
    forEach(count, MultiplyValue{x, value});
}

void addVector(float *x, const float *y, std::size_t count)
{
    forEach(count, AddVector{x, y});
}

void multiplyVector(float *x, const float *y, std::size_t count)
{
    forEach(count, MultiplyVector{x, y});
}

void multiplyAddVector(float *x, float gain, const float *y, std::size_t count)
{
    forEach(count, MultiplyAdd{x, y, gain});
}

/// Calls `step(d, i)`, which returns samples, over all of `count`. Returns whether all of them are
/// finite: the difference of a sample to itself is 0 then, and else no number.
template <class Step>
HWY_INLINE bool allFinite(std::size_t count, const Step &step)
{
    const Lanes d;
    auto even = hn::Zero(d);
    auto odd = even;
    std::size_t i = 0;
    for (; i + 2 * lanes <= count; i += 2 * lanes) {
        const auto first = step(d, i);
        const auto second = step(d, i + lanes);
        even = hn::Or(even, hn::Sub(first, first));
        odd = hn::Or(odd, hn::Sub(second, second));
    }
    auto rest = hn::Zero(Single());
    for (; i < count; ++i) {
        const auto sample = step(Single(), i);
        rest = hn::Or(rest, hn::Sub(sample, sample));
    }
    return hn::AllTrue(d, hn::Eq(hn::Or(even, odd), hn::Zero(d))) &&
           hn::AllTrue(Single(), hn::Eq(rest, hn::Zero(Single())));
}

bool multiplyAllFinite(float *x, std::size_t count, float value)
{
    return allFinite(count, [=](auto d, std::size_t i) HWY_ATTR {
        const auto product = hn::Mul(hn::LoadU(d, x + i), hn::Set(d, value));
        hn::StoreU(product, d, x + i);
        return product;
    });
}

bool isAllFinite(const float *x, std::size_t count)
{
    return allFinite(count, [=](auto d, std::size_t i) HWY_ATTR { return hn::LoadU(d, x + i); });
}

/// The bits that differ in a vector of cells.
template <class D>
HWY_INLINE auto differences(D d, const float *a, const float *b)
{
    const hn::RebindToUnsigned<D> bits;
    return hn::Xor(hn::BitCast(bits, hn::LoadU(d, a)), hn::BitCast(bits, hn::LoadU(d, b)));
}

/// The last columns of all rows, fewer than a vector holds, of which the rows have room for one.
HWY_INLINE auto differencesOfRest(const float *a, std::size_t strideA, const float *b,
                                  std::size_t strideB, std::size_t rows, std::size_t columns)
{
    const Lanes d;
    const hn::RebindToUnsigned<Lanes> bits;
    auto even = hn::Zero(bits);
    auto odd = even;
    std::size_t r = 0;
    for (; r + 2 <= rows; r += 2, a += 2 * strideA, b += 2 * strideB) {
        even = hn::Or(even, differences(d, a, b));
        odd = hn::Or(odd, differences(d, a + strideA, b + strideB));
    }
    if (r < rows)
        even = hn::Or(even, differences(d, a, b));
    return hn::IfThenElseZero(hn::FirstN(bits, columns), hn::Or(even, odd));
}

bool sameCells(const float *a, std::size_t strideA, const float *b, std::size_t strideB,
               std::size_t rows, std::size_t columns)
{
    const hn::RebindToUnsigned<Lanes> bits;
    const std::size_t whole = columns / lanes * lanes;
    auto differing = hn::Zero(bits);
    if (whole < columns)
        differing =
            differencesOfRest(a + whole, strideA, b + whole, strideB, rows, columns - whole);
    for (std::size_t r = 0; whole > 0 && r < rows; ++r, a += strideA, b += strideB) {
        for (std::size_t c = 0; c < whole; c += lanes)
            differing = hn::Or(differing, differences(Lanes(), a + c, b + c));
    }
    return hn::AllTrue(bits, hn::Eq(differing, hn::Zero(bits)));
}

void cleanState()
{
#if HWY_TARGET == HWY_AVX2
    _mm256_zeroupper();
#endif
}

} // namespace
} // namespace QTovelMixer::Kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace QTovelMixer::Kernels {

namespace {

HWY_EXPORT(fillLanes);
HWY_EXPORT(addValue);
HWY_EXPORT(multiplyValue);
HWY_EXPORT(addVector);
HWY_EXPORT(multiplyVector);
HWY_EXPORT(multiplyAddVector);
HWY_EXPORT(multiplyAllFinite);
HWY_EXPORT(isAllFinite);
HWY_EXPORT(sameCells);
HWY_EXPORT(cleanState);

// Looks at the machine while the library is loaded, not in the first audio callback.
[[maybe_unused]] const bool chosen = (hwy::GetChosenTarget().Update(hwy::SupportedTargets()), true);

} // namespace

void fill(float *x, std::size_t count, float value) noexcept
{
    HWY_DYNAMIC_DISPATCH(fillLanes)(x, count, value);
}

void add(float *x, std::size_t count, float value) noexcept
{
    HWY_DYNAMIC_DISPATCH(addValue)(x, count, value);
}

void multiply(float *x, std::size_t count, float value) noexcept
{
    HWY_DYNAMIC_DISPATCH(multiplyValue)(x, count, value);
}

void add(float *x, const float *y, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(addVector)(x, y, count);
}

void multiply(float *x, const float *y, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(multiplyVector)(x, y, count);
}

void multiplyAdd(float *x, float gain, const float *y, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(multiplyAddVector)(x, gain, y, count);
}

bool multiplyFinite(float *x, std::size_t count, float value) noexcept
{
    return HWY_DYNAMIC_DISPATCH(multiplyAllFinite)(x, count, value);
}

bool isFinite(const float *x, std::size_t count) noexcept
{
    return HWY_DYNAMIC_DISPATCH(isAllFinite)(x, count);
}

std::size_t replaceNotFinite(float *x, std::size_t count) noexcept
{
    if (isFinite(x, count))
        return 0;
    std::size_t replaced = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (std::isfinite(x[i]))
            continue;
        x[i] = 0.0f;
        ++replaced;
    }
    return replaced;
}

void rampGain(float *block, std::size_t frames, std::size_t channels, float applied,
              float target) noexcept
{
    const double step = (double(applied) - double(target)) / double(frames);
    for (std::size_t i = 0; i < frames; ++i, block += channels) {
        for (std::size_t c = 0; c < channels; ++c)
            block[c] *= applied;
        applied = float(double(applied) - step);
    }
}

bool sameBits(const float *a, std::size_t strideA, const float *b, std::size_t strideB,
              std::size_t rows, std::size_t columns) noexcept
{
    return HWY_DYNAMIC_DISPATCH(sameCells)(a, strideA, b, strideB, rows, columns);
}

void cleanVectorState() noexcept
{
    HWY_DYNAMIC_DISPATCH(cleanState)();
}

} // namespace QTovelMixer::Kernels

#endif
