// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <dsp/vector_targets_p.h>

#include <cstdint>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernels_integer.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <dsp/vector_loop_p.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

struct ToShort
{
    const float *in;
    short *out;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        // Adding 1.5 × 2^23 leaves the nearest integer, ties to even, in the low mantissa bits.
        constexpr float magic = 12582912.0f;
        const hn::RebindToSigned<D> integers;
        const hn::Rebind<std::int16_t, D> shorts;
        auto v = hn::Mul(hn::LoadU(d, in + i), hn::Set(d, 32768.0f));
        v = hn::IfThenElseZero(hn::Eq(v, v), v);
        v = hn::Max(hn::Min(v, hn::Set(d, 32767.0f)), hn::Set(d, -32768.0f));
        const auto bits = hn::BitCast(integers, hn::Add(v, hn::Set(d, magic)));
        const auto rounded = hn::Sub(bits, hn::BitCast(integers, hn::Set(d, magic)));
        hn::StoreU(hn::DemoteTo(shorts, rounded), shorts, out + i);
    }
};

struct ToFloat
{
    const short *in;
    float *out;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        const hn::RebindToSigned<D> integers;
        const hn::Rebind<std::int16_t, D> shorts;
        const auto wide = hn::PromoteTo(integers, hn::LoadU(shorts, in + i));
        hn::StoreU(hn::Mul(hn::ConvertTo(d, wide), hn::Set(d, 1.0f / 32768.0f)), d, out + i);
    }
};

// The instruction for this rounds ties to even and makes the lowest integer of what is no number or
// far too high or low. Whatever gives the lowest there is, for which there is more than one reason,
// is converted once more with care.

#if HWY_TARGET == HWY_AVX2

constexpr std::size_t packed = 32;

HWY_INLINE __m256i nearest(const float *in)
{
    const Lanes d;
    return _mm256_cvtps_epi32(hn::Mul(hn::LoadU(d, in), hn::Set(d, 32768.0f)).raw);
}

HWY_INLINE __m256i pack(__m256i low, __m256i high)
{
    return _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xd8);
}

/// False, and nothing done, when one of the results is the lowest.
HWY_INLINE bool packShorts(const float *in, short *out)
{
    const __m256i a = pack(nearest(in), nearest(in + lanes));
    const __m256i b = pack(nearest(in + 2 * lanes), nearest(in + 3 * lanes));
    const __m256i lowest = _mm256_set1_epi16(-32768);
    if (_mm256_movemask_epi8(_mm256_cmpeq_epi16(_mm256_min_epi16(a, b), lowest)) != 0)
        return false;
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), a);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 2 * lanes), b);
    return true;
}

#elif HWY_TARGET == HWY_SSSE3 || HWY_TARGET == HWY_SSE4

constexpr std::size_t packed = 32;

HWY_INLINE __m128i pack(const float *in)
{
    const Lanes d;
    const auto scale = hn::Set(d, 32768.0f);
    return _mm_packs_epi32(_mm_cvtps_epi32(hn::Mul(hn::LoadU(d, in), scale).raw),
                           _mm_cvtps_epi32(hn::Mul(hn::LoadU(d, in + lanes), scale).raw));
}

HWY_INLINE bool packShorts(const float *in, short *out)
{
    const __m128i a = pack(in);
    const __m128i b = pack(in + 2 * lanes);
    const __m128i c = pack(in + 4 * lanes);
    const __m128i e = pack(in + 6 * lanes);
    const __m128i least = _mm_min_epi16(_mm_min_epi16(a, b), _mm_min_epi16(c, e));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(least, _mm_set1_epi16(-32768))) != 0)
        return false;
    auto *to = reinterpret_cast<__m128i *>(out);
    _mm_storeu_si128(to, a);
    _mm_storeu_si128(to + 1, b);
    _mm_storeu_si128(to + 2, c);
    _mm_storeu_si128(to + 3, e);
    return true;
}

#else

constexpr std::size_t packed = 0;

[[maybe_unused]] HWY_INLINE bool packShorts(const float *, short *)
{
    return false;
}

#endif

void shorts(const float *in, short *out, std::size_t count)
{
    if constexpr (packed > 0) {
        for (; count >= packed; count -= packed, in += packed, out += packed) {
            if (HWY_UNLIKELY(!packShorts(in, out)))
                forEach(packed, ToShort{in, out});
        }
    }
    forEach(count, ToShort{in, out});
}

void floats(const short *in, float *out, std::size_t count)
{
    forEach(count, ToFloat{in, out});
}

} // namespace
} // namespace QTovelMixer::Kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace QTovelMixer::Kernels {

namespace {

HWY_EXPORT(shorts);
HWY_EXPORT(floats);

} // namespace

void toShort(const float *in, short *out, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(shorts)(in, out, count);
}

void toFloat(const short *in, float *out, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(floats)(in, out, count);
}

} // namespace QTovelMixer::Kernels

#endif
