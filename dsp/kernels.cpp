// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

// 512-bit vectors gain nothing in these loops and cost clock on some machines; vectors without a
// size known to the compiler cannot be counted in the tiles below.
#define HWY_DISABLED_TARGETS \
    (HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

using Lanes = hn::CappedTag<float, 8>;
using Quad = hn::CappedTag<float, 4>;
using Single = hn::CappedTag<float, 1>;

constexpr std::size_t lanes = hn::MaxLanes(Lanes());
constexpr std::size_t quad = 4;
constexpr std::size_t tileFrames = 16;

template <class D>
using Vector = hn::VFromD<D>;

/// Calls `step(d, i)` over all of `count`: with whole vectors first, two by two, then with less.
template <class Step>
HWY_INLINE void forEach(std::size_t count, const Step &step)
{
    std::size_t i = 0;
    for (; i + 4 * lanes <= count; i += 4 * lanes) {
        step(Lanes(), i);
        step(Lanes(), i + lanes);
        step(Lanes(), i + 2 * lanes);
        step(Lanes(), i + 3 * lanes);
    }
    for (; i + lanes <= count; i += lanes)
        step(Lanes(), i);
    if constexpr (lanes > quad) {
        for (; i + quad <= count; i += quad)
            step(Quad(), i);
    }
    for (; i < count; ++i)
        step(Single(), i);
}

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
    const float *from;
    float *to;
    float value;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Mul(hn::LoadU(d, from + i), hn::Set(d, value)), d, to + i);
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

void multiplyValue(const float *from, float *to, std::size_t count, float value)
{
    forEach(count, MultiplyValue{from, to, value});
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

// ---- layouts

struct Unscaled
{
    template <class D>
    HWY_INLINE Vector<D> operator()(D, Vector<D> v) const
    {
        return v;
    }
    HWY_INLINE float operator()(float x) const { return x; }
};

struct Scaled
{
    float gain;

    template <class D>
    HWY_INLINE Vector<D> operator()(D d, Vector<D> v) const
    {
        return hn::Mul(v, hn::Set(d, gain));
    }
    HWY_INLINE float operator()(float x) const { return x * gain; }
};

#if HWY_TARGET != HWY_SCALAR

/// Four samples from `low` and, where vectors hold eight, four from `high` behind them.
HWY_INLINE Vector<Lanes> loadBlocks(const float *low, [[maybe_unused]] const float *high)
{
#if HWY_MAX_BYTES == 16
    return hn::LoadU(Lanes(), low);
#else
    return hn::Combine(Lanes(), hn::LoadU(Quad(), high), hn::LoadU(Quad(), low));
#endif
}

HWY_INLINE void storeBlocks(Vector<Lanes> v, float *low, [[maybe_unused]] float *high)
{
#if HWY_MAX_BYTES == 16
    hn::StoreU(v, Lanes(), low);
#else
    hn::StoreU(hn::LowerHalf(Quad(), v), Quad(), low);
    hn::StoreU(hn::UpperHalf(Quad(), v), Quad(), high);
#endif
}

/// Transposes the 4 × 4 samples that the vectors hold in each of their blocks.
HWY_INLINE void transpose(Vector<Lanes> &a, Vector<Lanes> &b, Vector<Lanes> &c, Vector<Lanes> &e)
{
    const Lanes d;
    const hn::Repartition<std::uint64_t, Lanes> pairs;
    const auto ab0 = hn::BitCast(pairs, hn::InterleaveLower(d, a, b));
    const auto ab1 = hn::BitCast(pairs, hn::InterleaveUpper(d, a, b));
    const auto ce0 = hn::BitCast(pairs, hn::InterleaveLower(d, c, e));
    const auto ce1 = hn::BitCast(pairs, hn::InterleaveUpper(d, c, e));
    a = hn::BitCast(d, hn::InterleaveLower(pairs, ab0, ce0));
    b = hn::BitCast(d, hn::InterleaveUpper(pairs, ab0, ce0));
    c = hn::BitCast(d, hn::InterleaveLower(pairs, ab1, ce1));
    e = hn::BitCast(d, hn::InterleaveUpper(pairs, ab1, ce1));
}

/// Four channels of as many frames as a vector holds.
template <class Scale>
HWY_INLINE void splitBlock(const float *in, std::size_t stride, float *const *out, std::size_t i,
                           const Scale &scale)
{
    const Lanes d;
    const float *high = in + 4 * stride;
    auto a = loadBlocks(in, high);
    auto b = loadBlocks(in + stride, high + stride);
    auto c = loadBlocks(in + 2 * stride, high + 2 * stride);
    auto e = loadBlocks(in + 3 * stride, high + 3 * stride);
    transpose(a, b, c, e);
    hn::StoreU(scale(d, a), d, out[0] + i);
    hn::StoreU(scale(d, b), d, out[1] + i);
    hn::StoreU(scale(d, c), d, out[2] + i);
    hn::StoreU(scale(d, e), d, out[3] + i);
}

HWY_INLINE void mergeBlock(const float *const *in, std::size_t i, float *out, std::size_t stride)
{
    const Lanes d;
    auto a = hn::LoadU(d, in[0] + i);
    auto b = hn::LoadU(d, in[1] + i);
    auto c = hn::LoadU(d, in[2] + i);
    auto e = hn::LoadU(d, in[3] + i);
    transpose(a, b, c, e);
    float *high = out + 4 * stride;
    storeBlocks(a, out, high);
    storeBlocks(b, out + stride, high + stride);
    storeBlocks(c, out + 2 * stride, high + 2 * stride);
    storeBlocks(e, out + 3 * stride, high + 3 * stride);
}

#endif

template <class Scale>
HWY_INLINE void splitStereo(const float *in, float *left, float *right, std::size_t frames,
                            const Scale &scale)
{
    const Lanes d;
    std::size_t i = 0;
    for (; i + lanes <= frames; i += lanes) {
        Vector<Lanes> l, r;
        hn::LoadInterleaved2(d, in + 2 * i, l, r);
        hn::StoreU(scale(d, l), d, left + i);
        hn::StoreU(scale(d, r), d, right + i);
    }
    for (; i < frames; ++i) {
        left[i] = scale(in[2 * i]);
        right[i] = scale(in[2 * i + 1]);
    }
}

template <class Scale>
HWY_INLINE void split(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                      std::size_t frames, const Scale &scale)
{
    if (channels == 2 && stride == 2) {
        splitStereo(in, out[0], out[1], frames, scale);
        return;
    }
    std::size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
    if (channels >= quad) {
        for (; i + lanes <= frames; i += lanes) {
            const float *from = in + i * stride;
            std::size_t c = 0;
            for (; c + quad <= channels; c += quad)
                splitBlock(from + c, stride, out + c, i, scale);
            // The rest once more together with channels that are done: the same values.
            if (c < channels)
                splitBlock(from + channels - quad, stride, out + channels - quad, i, scale);
        }
    }
#endif
    for (; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c)
            out[c][i] = scale(in[i * stride + c]);
    }
}

void splitFrames(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                 std::size_t frames)
{
    split(in, stride, out, channels, frames, Unscaled{});
}

void splitFramesScaled(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                       std::size_t frames, float gain)
{
    split(in, stride, out, channels, frames, Scaled{gain});
}

HWY_INLINE void mergeStereo(const float *left, const float *right, float *out, std::size_t frames)
{
    const Lanes d;
    std::size_t i = 0;
    for (; i + lanes <= frames; i += lanes)
        hn::StoreInterleaved2(hn::LoadU(d, left + i), hn::LoadU(d, right + i), d, out + 2 * i);
    for (; i < frames; ++i) {
        out[2 * i] = left[i];
        out[2 * i + 1] = right[i];
    }
}

void mergeFrames(const float *const *in, float *out, std::size_t stride, std::size_t channels,
                 std::size_t frames)
{
    if (channels == 2 && stride == 2) {
        mergeStereo(in[0], in[1], out, frames);
        return;
    }
    std::size_t i = 0;
#if HWY_TARGET != HWY_SCALAR
    if (channels >= quad) {
        for (; i + lanes <= frames; i += lanes) {
            float *to = out + i * stride;
            std::size_t c = 0;
            for (; c + quad <= channels; c += quad)
                mergeBlock(in + c, i, to + c, stride);
            if (c < channels)
                mergeBlock(in + channels - quad, i, to + channels - quad, stride);
        }
    }
#endif
    for (; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c)
            out[i * stride + c] = in[c][i];
    }
}

// ---- integers

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

#if HWY_TARGET == HWY_AVX2

/// The instruction for this rounds ties to even and makes the lowest integer of what is no number
/// or far too high or low.
HWY_INLINE __m256i nearest(const float *in)
{
    const Lanes d;
    return _mm256_cvtps_epi32(hn::Mul(hn::LoadU(d, in), hn::Set(d, 32768.0f)).raw);
}

HWY_INLINE __m256i pack(__m256i low, __m256i high)
{
    return _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xd8);
}

/// Four vectors. Does nothing and returns false when one of the results is the lowest there is, for
/// which there is more than one reason.
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

#endif

void shorts(const float *in, short *out, std::size_t count)
{
#if HWY_TARGET == HWY_AVX2
    for (; count >= 4 * lanes; count -= 4 * lanes, in += 4 * lanes, out += 4 * lanes) {
        if (HWY_UNLIKELY(!packShorts(in, out)))
            forEach(4 * lanes, ToShort{in, out});
    }
#endif
    forEach(count, ToShort{in, out});
}

void floats(const short *in, float *out, std::size_t count)
{
    forEach(count, ToFloat{in, out});
}

// ---- mixing

/// Up to four inputs on their way into one output. The first batch begins at zero.
template <int Count, bool First>
struct Batch
{
    float *out;
    const float *x0, *x1, *x2, *x3;
    float g0, g1, g2, g3;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        Vector<D> sum = hn::Zero(d);
        if constexpr (!First)
            sum = hn::LoadU(d, out + i);
        if constexpr (Count > 0)
            sum = hn::Add(sum, hn::Mul(hn::Set(d, g0), hn::LoadU(d, x0 + i)));
        if constexpr (Count > 1)
            sum = hn::Add(sum, hn::Mul(hn::Set(d, g1), hn::LoadU(d, x1 + i)));
        if constexpr (Count > 2)
            sum = hn::Add(sum, hn::Mul(hn::Set(d, g2), hn::LoadU(d, x2 + i)));
        if constexpr (Count > 3)
            sum = hn::Add(sum, hn::Mul(hn::Set(d, g3), hn::LoadU(d, x3 + i)));
        hn::StoreU(sum, d, out + i);
    }
};

template <int Count, bool First>
HWY_INLINE void runBatch(float *out, const float *const *in, const float *gains, std::size_t frames)
{
    constexpr int second = Count > 1 ? 1 : 0;
    constexpr int third = Count > 2 ? 2 : 0;
    constexpr int fourth = Count > 3 ? 3 : 0;
    forEach(frames, Batch<Count, First>{out, in[0], in[second], in[third], in[fourth], gains[0],
                                        gains[second], gains[third], gains[fourth]});
}

template <bool First>
HWY_INLINE void runRest(float *out, const float *const *in, const float *gains, std::size_t inputs,
                        std::size_t frames)
{
    switch (inputs) {
    case 1:
        return runBatch<1, First>(out, in, gains, frames);
    case 2:
        return runBatch<2, First>(out, in, gains, frames);
    case 3:
        return runBatch<3, First>(out, in, gains, frames);
    default:
        return runBatch<4, First>(out, in, gains, frames);
    }
}

void mixOne(float *out, const float *const *in, const float *gains, std::size_t inputs,
            std::size_t frames)
{
    if (inputs == 0) {
        std::memset(out, 0, frames * sizeof(float));
        return;
    }
    runRest<true>(out, in, gains, inputs, frames);
    for (std::size_t j = 4; j < inputs; j += 4)
        runRest<false>(out, in + j, gains + j, inputs - j, frames);
}

/// Two outputs of the same inputs, over some vectors of frames at a time.
struct Pair
{
    float *out0, *out1;
    const float *const *in;
    const float *gains0, *gains1;
    std::size_t inputs;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        Vector<D> left = hn::Zero(d);
        Vector<D> right = hn::Zero(d);
        for (std::size_t j = 0; j < inputs; ++j) {
            const auto x = hn::LoadU(d, in[j] + i);
            left = hn::Add(left, hn::Mul(hn::Set(d, gains0[j]), x));
            right = hn::Add(right, hn::Mul(hn::Set(d, gains1[j]), x));
        }
        hn::StoreU(left, d, out0 + i);
        hn::StoreU(right, d, out1 + i);
    }

    /// Four vectors, so that the additions of one frame do not wait for each other.
    HWY_INLINE void wide(std::size_t i) const
    {
        const Lanes d;
        auto l0 = hn::Zero(d), l1 = l0, l2 = l0, l3 = l0;
        auto r0 = l0, r1 = l0, r2 = l0, r3 = l0;
        for (std::size_t j = 0; j < inputs; ++j) {
            const float *x = in[j] + i;
            const auto g = hn::Set(d, gains0[j]);
            const auto h = hn::Set(d, gains1[j]);
            const auto x0 = hn::LoadU(d, x);
            const auto x1 = hn::LoadU(d, x + lanes);
            l0 = hn::Add(l0, hn::Mul(g, x0));
            r0 = hn::Add(r0, hn::Mul(h, x0));
            l1 = hn::Add(l1, hn::Mul(g, x1));
            r1 = hn::Add(r1, hn::Mul(h, x1));
            const auto x2 = hn::LoadU(d, x + 2 * lanes);
            const auto x3 = hn::LoadU(d, x + 3 * lanes);
            l2 = hn::Add(l2, hn::Mul(g, x2));
            r2 = hn::Add(r2, hn::Mul(h, x2));
            l3 = hn::Add(l3, hn::Mul(g, x3));
            r3 = hn::Add(r3, hn::Mul(h, x3));
        }
        hn::StoreU(l0, d, out0 + i);
        hn::StoreU(l1, d, out0 + i + lanes);
        hn::StoreU(l2, d, out0 + i + 2 * lanes);
        hn::StoreU(l3, d, out0 + i + 3 * lanes);
        hn::StoreU(r0, d, out1 + i);
        hn::StoreU(r1, d, out1 + i + lanes);
        hn::StoreU(r2, d, out1 + i + 2 * lanes);
        hn::StoreU(r3, d, out1 + i + 3 * lanes);
    }
};

void mixTwo(float *out0, float *out1, const float *const *in, const float *gains0,
            const float *gains1, std::size_t inputs, std::size_t frames)
{
    const Pair pair{out0, out1, in, gains0, gains1, inputs};
    std::size_t i = 0;
    for (; i + 4 * lanes <= frames; i += 4 * lanes)
        pair.wide(i);
    for (; i + lanes <= frames; i += lanes)
        pair(Lanes(), i);
    if constexpr (lanes > quad) {
        for (; i + quad <= frames; i += quad)
            pair(Quad(), i);
    }
    for (; i < frames; ++i)
        pair(Single(), i);
}

/// Two vectors of frames of six outputs, from a tile that holds every input's frames in a row.
HWY_INLINE void mixSix(const float *tile, const float *gains, std::size_t inputs, float *const *out,
                       std::size_t i)
{
    const Lanes d;
    auto a0 = hn::Zero(d), b0 = a0, c0 = a0, d0 = a0, e0 = a0, f0 = a0;
    auto a1 = a0, b1 = a0, c1 = a0, d1 = a0, e1 = a0, f1 = a0;
    for (std::size_t j = 0; j < inputs; ++j, tile += tileFrames, gains += denseOutputs) {
        const auto x0 = hn::LoadU(d, tile);
        const auto x1 = hn::LoadU(d, tile + lanes);
        auto g = hn::Set(d, gains[0]);
        a0 = hn::Add(a0, hn::Mul(g, x0));
        a1 = hn::Add(a1, hn::Mul(g, x1));
        g = hn::Set(d, gains[1]);
        b0 = hn::Add(b0, hn::Mul(g, x0));
        b1 = hn::Add(b1, hn::Mul(g, x1));
        g = hn::Set(d, gains[2]);
        c0 = hn::Add(c0, hn::Mul(g, x0));
        c1 = hn::Add(c1, hn::Mul(g, x1));
        g = hn::Set(d, gains[3]);
        d0 = hn::Add(d0, hn::Mul(g, x0));
        d1 = hn::Add(d1, hn::Mul(g, x1));
        g = hn::Set(d, gains[4]);
        e0 = hn::Add(e0, hn::Mul(g, x0));
        e1 = hn::Add(e1, hn::Mul(g, x1));
        g = hn::Set(d, gains[5]);
        f0 = hn::Add(f0, hn::Mul(g, x0));
        f1 = hn::Add(f1, hn::Mul(g, x1));
    }
    hn::StoreU(a0, d, out[0] + i);
    hn::StoreU(a1, d, out[0] + i + lanes);
    hn::StoreU(b0, d, out[1] + i);
    hn::StoreU(b1, d, out[1] + i + lanes);
    hn::StoreU(c0, d, out[2] + i);
    hn::StoreU(c1, d, out[2] + i + lanes);
    hn::StoreU(d0, d, out[3] + i);
    hn::StoreU(d1, d, out[3] + i + lanes);
    hn::StoreU(e0, d, out[4] + i);
    hn::StoreU(e1, d, out[4] + i + lanes);
    hn::StoreU(f0, d, out[5] + i);
    hn::StoreU(f1, d, out[5] + i + lanes);
}

HWY_INLINE void mixTile(const float *tile, const float *gains, std::size_t inputs,
                        float *const *out, std::size_t i)
{
    for (std::size_t part = 0; part < tileFrames; part += 2 * lanes)
        mixSix(tile + part, gains, inputs, out, i + part);
}

HWY_INLINE void packTile(const float *const *in, std::size_t inputs, std::size_t i, float *tile)
{
    const Lanes d;
    for (std::size_t j = 0; j < inputs; ++j) {
        for (std::size_t part = 0; part < tileFrames; part += lanes)
            hn::StoreU(hn::LoadU(d, in[j] + i + part), d, tile + j * tileFrames + part);
    }
}

void mixSixes(float *const *out, std::size_t groups, const float *const *in, const float *gains,
              std::size_t groupStride, std::size_t inputs, std::size_t frames)
{
    HWY_ALIGN float tile[denseInputs * tileFrames];
    std::size_t i = 0;
    for (; i + tileFrames <= frames; i += tileFrames) {
        packTile(in, inputs, i, tile);
        for (std::size_t k = 0; k < groups; ++k)
            mixTile(tile, gains + k * groupStride, inputs, out + k * denseOutputs, i);
    }
    const std::size_t rest = frames - i;
    if (rest == 0)
        return;

    std::memset(tile, 0, inputs * tileFrames * sizeof(float));
    for (std::size_t j = 0; j < inputs; ++j)
        std::memcpy(tile + j * tileFrames, in[j] + i, rest * sizeof(float));
    HWY_ALIGN float mixed[denseOutputs][tileFrames];
    float *const mixedRows[denseOutputs] = {mixed[0], mixed[1], mixed[2],
                                            mixed[3], mixed[4], mixed[5]};
    for (std::size_t k = 0; k < groups; ++k) {
        mixTile(tile, gains + k * groupStride, inputs, mixedRows, 0);
        for (std::size_t o = 0; o < denseOutputs; ++o)
            std::memcpy(out[k * denseOutputs + o] + i, mixed[o], rest * sizeof(float));
    }
}

// ---- the rest

bool sameCells(const float *a, const float *b, std::size_t stride, std::size_t rows,
               std::size_t columns)
{
    const hn::RebindToUnsigned<Lanes> d;
    auto differing = hn::Zero(d);
    std::uint32_t rest = 0;
    for (std::size_t r = 0; r < rows; ++r, a += stride, b += stride) {
        std::size_t c = 0;
        for (; c + lanes <= columns; c += lanes) {
            const auto x = hn::BitCast(d, hn::LoadU(Lanes(), a + c));
            const auto y = hn::BitCast(d, hn::LoadU(Lanes(), b + c));
            differing = hn::Or(differing, hn::Xor(x, y));
        }
        for (; c < columns; ++c) {
            std::uint32_t x = 0;
            std::uint32_t y = 0;
            std::memcpy(&x, a + c, sizeof x);
            std::memcpy(&y, b + c, sizeof y);
            rest |= x ^ y;
        }
    }
    return rest == 0 && hn::AllTrue(d, hn::Eq(differing, hn::Zero(d)));
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
HWY_EXPORT(splitFrames);
HWY_EXPORT(splitFramesScaled);
HWY_EXPORT(mergeFrames);
HWY_EXPORT(shorts);
HWY_EXPORT(floats);
HWY_EXPORT(mixOne);
HWY_EXPORT(mixTwo);
HWY_EXPORT(mixSixes);
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
    HWY_DYNAMIC_DISPATCH(multiplyValue)(x, x, count, value);
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

void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames) noexcept
{
    if (channels == 1 && stride == 1) {
        if (frames > 0)
            std::memmove(out[0], in, frames * sizeof(float));
        return;
    }
    HWY_DYNAMIC_DISPATCH(splitFrames)(in, stride, out, channels, frames);
}

void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames, float gain) noexcept
{
    if (channels == 1 && stride == 1) {
        HWY_DYNAMIC_DISPATCH(multiplyValue)(in, out[0], frames, gain);
        return;
    }
    HWY_DYNAMIC_DISPATCH(splitFramesScaled)(in, stride, out, channels, frames, gain);
}

void interleave(const float *const *in, float *out, std::size_t stride, std::size_t channels,
                std::size_t frames) noexcept
{
    if (channels == 1 && stride == 1) {
        if (frames > 0)
            std::memmove(out, in[0], frames * sizeof(float));
        return;
    }
    HWY_DYNAMIC_DISPATCH(mergeFrames)(in, out, stride, channels, frames);
}

void toShort(const float *in, short *out, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(shorts)(in, out, count);
}

void toFloat(const short *in, float *out, std::size_t count) noexcept
{
    HWY_DYNAMIC_DISPATCH(floats)(in, out, count);
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

void mix(float *out, const float *const *in, const float *gains, std::size_t inputs,
         std::size_t frames) noexcept
{
    HWY_DYNAMIC_DISPATCH(mixOne)(out, in, gains, inputs, frames);
}

void mixPair(float *out0, float *out1, const float *const *in, const float *gains0,
             const float *gains1, std::size_t inputs, std::size_t frames) noexcept
{
    HWY_DYNAMIC_DISPATCH(mixTwo)(out0, out1, in, gains0, gains1, inputs, frames);
}

void mixDense(float *const *out, std::size_t groups, const float *const *in, const float *gains,
              std::size_t groupStride, std::size_t inputs, std::size_t frames) noexcept
{
    HWY_DYNAMIC_DISPATCH(mixSixes)(out, groups, in, gains, groupStride, inputs, frames);
}

bool sameBits(const float *a, const float *b, std::size_t stride, std::size_t rows,
              std::size_t columns) noexcept
{
    return HWY_DYNAMIC_DISPATCH(sameCells)(a, b, stride, rows, columns);
}

void cleanVectorState() noexcept
{
    HWY_DYNAMIC_DISPATCH(cleanState)();
}

} // namespace QTovelMixer::Kernels

#endif
