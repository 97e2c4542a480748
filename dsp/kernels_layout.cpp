// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <dsp/vector_targets_p.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernels_layout.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <dsp/vector_loop_p.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

constexpr std::size_t tile = 64; // frames, whole vectors

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

/// The rows of four channels, close at hand.
template <class Sample>
struct FourRows
{
    Sample *a, *b, *c, *e;

    explicit FourRows(Sample *const *rows) : a(rows[0]), b(rows[1]), c(rows[2]), e(rows[3]) {}
};
using Four = FourRows<float>;
using FourIn = FourRows<const float>;

/// Four channels of as many frames as a vector holds.
template <class Scale>
HWY_INLINE void splitBlock(const float *in, std::size_t stride, const Four &out, std::size_t i,
                           const Scale &scale)
{
    const Lanes d;
    const float *high = in + 4 * stride;
    auto a = loadBlocks(in, high);
    auto b = loadBlocks(in + stride, high + stride);
    auto c = loadBlocks(in + 2 * stride, high + 2 * stride);
    auto e = loadBlocks(in + 3 * stride, high + 3 * stride);
    transpose(a, b, c, e);
    hn::StoreU(scale(d, a), d, out.a + i);
    hn::StoreU(scale(d, b), d, out.b + i);
    hn::StoreU(scale(d, c), d, out.c + i);
    hn::StoreU(scale(d, e), d, out.e + i);
}

HWY_INLINE void mergeBlock(const FourIn &in, std::size_t i, float *out, std::size_t stride)
{
    const Lanes d;
    auto a = hn::LoadU(d, in.a + i);
    auto b = hn::LoadU(d, in.b + i);
    auto c = hn::LoadU(d, in.c + i);
    auto e = hn::LoadU(d, in.e + i);
    transpose(a, b, c, e);
    float *high = out + 4 * stride;
    storeBlocks(a, out, high);
    storeBlocks(b, out + stride, high + stride);
    storeBlocks(c, out + 2 * stride, high + 2 * stride);
    storeBlocks(e, out + 3 * stride, high + 3 * stride);
}

#if HWY_MAX_BYTES == 32

/// Eight channels of four frames: the samples of a frame leave in one piece.
HWY_INLINE void mergeEight(const FourIn &low, const FourIn &high, std::size_t i, float *out,
                           std::size_t stride)
{
    const Lanes d;
    auto a = loadBlocks(low.a + i, high.a + i);
    auto b = loadBlocks(low.b + i, high.b + i);
    auto c = loadBlocks(low.c + i, high.c + i);
    auto e = loadBlocks(low.e + i, high.e + i);
    transpose(a, b, c, e);
    hn::StoreU(a, d, out);
    hn::StoreU(b, d, out + stride);
    hn::StoreU(c, d, out + 2 * stride);
    hn::StoreU(e, d, out + 3 * stride);
}

#endif
#endif

/// As many frames of two channels as a vector holds.
template <class Scale>
HWY_INLINE void splitPairs(const float *in, float *left, float *right, const Scale &scale)
{
    const Lanes d;
#if HWY_TARGET == HWY_AVX2
    const auto front = hn::LoadU(d, in);
    const auto back = hn::LoadU(d, in + lanes);
    const auto a = hn::ConcatLowerLower(d, back, front);
    const auto b = hn::ConcatUpperUpper(d, back, front);
    const Vector<Lanes> l{_mm256_shuffle_ps(a.raw, b.raw, 0x88)};
    const Vector<Lanes> r{_mm256_shuffle_ps(a.raw, b.raw, 0xdd)};
#elif HWY_TARGET == HWY_SSSE3 || HWY_TARGET == HWY_SSE4
    const auto a = hn::LoadU(d, in);
    const auto b = hn::LoadU(d, in + 4);
    const Vector<Lanes> l{_mm_shuffle_ps(a.raw, b.raw, 0x88)};
    const Vector<Lanes> r{_mm_shuffle_ps(a.raw, b.raw, 0xdd)};
#else
    Vector<Lanes> l, r;
    hn::LoadInterleaved2(d, in, l, r);
#endif
    hn::StoreU(scale(d, l), d, left);
    hn::StoreU(scale(d, r), d, right);
}

template <class Scale>
HWY_INLINE void splitStereo(const float *in, float *left, float *right, std::size_t frames,
                            const Scale &scale)
{
    std::size_t i = 0;
    for (; i + 4 * lanes <= frames; i += 4 * lanes) {
        splitPairs(in + 2 * i, left + i, right + i, scale);
        splitPairs(in + 2 * i + 2 * lanes, left + i + lanes, right + i + lanes, scale);
        splitPairs(in + 2 * i + 4 * lanes, left + i + 2 * lanes, right + i + 2 * lanes, scale);
        splitPairs(in + 2 * i + 6 * lanes, left + i + 3 * lanes, right + i + 3 * lanes, scale);
    }
    for (; i + lanes <= frames; i += lanes)
        splitPairs(in + 2 * i, left + i, right + i, scale);
    for (; i < frames; ++i) {
        left[i] = scale(in[2 * i]);
        right[i] = scale(in[2 * i + 1]);
    }
}

/// Whole vectors of frames of four channels or more, `tile` frames at a time: these stay in the
/// nearest cache while their channels are done four by four. Answers the frames done.
#if HWY_TARGET == HWY_SCALAR

template <class Scale>
HWY_INLINE std::size_t splitMany(const float *, std::size_t, float *const *, std::size_t,
                                 std::size_t, const Scale &)
{
    return 0;
}

#else

template <class Scale>
HWY_INLINE std::size_t splitMany(const float *in, std::size_t stride, float *const *out,
                                 std::size_t channels, std::size_t frames, const Scale &scale)
{
    const std::size_t whole = frames / lanes * lanes;
    for (std::size_t first = 0; first < whole; first += tile) {
        const std::size_t end = std::min(first + tile, whole);
        for (std::size_t c = 0; c < channels; c += quad) {
            // The last four once more together with channels that are done: the same values.
            const std::size_t from = std::min(c, channels - quad);
            const Four to(out + from);
            for (std::size_t i = first; i < end; i += lanes)
                splitBlock(in + i * stride + from, stride, to, i, scale);
        }
    }
    return whole;
}

#endif

template <class Scale>
HWY_INLINE void split(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                      std::size_t frames, const Scale &scale)
{
    std::size_t i = 0;
    if (channels >= quad)
        i = splitMany(in, stride, out, channels, frames, scale);
    for (; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c)
            out[c][i] = scale(in[i * stride + c]);
    }
}

// Two channels are what nearly all material has: a way of their own, without detours.

void splitTwo(const float *in, float *left, float *right, std::size_t frames)
{
    splitStereo(in, left, right, frames, Unscaled{});
}

void splitTwoScaled(const float *in, float *left, float *right, std::size_t frames, float gain)
{
    splitStereo(in, left, right, frames, Scaled{gain});
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

/// As many frames of two channels as a vector holds.
HWY_INLINE void mergePairs(const float *left, const float *right, float *out)
{
    const Lanes d;
#if HWY_TARGET == HWY_AVX2
    const auto l = hn::LoadU(d, left);
    const auto r = hn::LoadU(d, right);
    const auto a = hn::InterleaveLower(d, l, r);
    const auto b = hn::InterleaveUpper(d, l, r);
    hn::StoreU(hn::ConcatLowerLower(d, b, a), d, out);
    hn::StoreU(hn::ConcatUpperUpper(d, b, a), d, out + lanes);
#else
    hn::StoreInterleaved2(hn::LoadU(d, left), hn::LoadU(d, right), d, out);
#endif
}

void mergeTwo(const float *left, const float *right, float *out, std::size_t frames)
{
    std::size_t i = 0;
    for (; i + 4 * lanes <= frames; i += 4 * lanes) {
        mergePairs(left + i, right + i, out + 2 * i);
        mergePairs(left + i + lanes, right + i + lanes, out + 2 * i + 2 * lanes);
        mergePairs(left + i + 2 * lanes, right + i + 2 * lanes, out + 2 * i + 4 * lanes);
        mergePairs(left + i + 3 * lanes, right + i + 3 * lanes, out + 2 * i + 6 * lanes);
    }
    for (; i + lanes <= frames; i += lanes)
        mergePairs(left + i, right + i, out + 2 * i);
    for (; i < frames; ++i) {
        out[2 * i] = left[i];
        out[2 * i + 1] = right[i];
    }
}

#if HWY_TARGET != HWY_SCALAR

/// Frames from `first` to `end` of all channels; the last four channels once more together with
/// some that are done.
HWY_INLINE void mergeTile(const float *const *in, float *out, std::size_t stride,
                          std::size_t channels, std::size_t first, std::size_t end)
{
    std::size_t c = 0;
#if HWY_MAX_BYTES == 32
    for (; c + 2 * quad <= channels; c += 2 * quad) {
        const FourIn low(in + c);
        const FourIn high(in + c + quad);
        for (std::size_t i = first; i < end; i += quad)
            mergeEight(low, high, i, out + i * stride + c, stride);
    }
#endif
    for (; c < channels; c += quad) {
        const std::size_t from = std::min(c, channels - quad);
        const FourIn rows(in + from);
        for (std::size_t i = first; i < end; i += lanes)
            mergeBlock(rows, i, out + i * stride + from, stride);
    }
}

#endif

/// As splitMany.
#if HWY_TARGET == HWY_SCALAR

HWY_INLINE std::size_t mergeMany(const float *const *, float *, std::size_t, std::size_t,
                                 std::size_t)
{
    return 0;
}

#else

HWY_INLINE std::size_t mergeMany(const float *const *in, float *out, std::size_t stride,
                                 std::size_t channels, std::size_t frames)
{
    const std::size_t whole = frames / lanes * lanes;
    for (std::size_t first = 0; first < whole; first += tile)
        mergeTile(in, out, stride, channels, first, std::min(first + tile, whole));
    return whole;
}

#endif

void mergeFrames(const float *const *in, float *out, std::size_t stride, std::size_t channels,
                 std::size_t frames)
{
    std::size_t i = 0;
    if (channels >= quad)
        i = mergeMany(in, out, stride, channels, frames);
    for (; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c)
            out[i * stride + c] = in[c][i];
    }
}

struct ScaleFrames
{
    const float *from;
    float *to;
    float gain;

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        hn::StoreU(hn::Mul(hn::LoadU(d, from + i), hn::Set(d, gain)), d, to + i);
    }
};

/// A single channel.
void scaleFrames(const float *from, float *to, std::size_t count, float gain)
{
    forEach(count, ScaleFrames{from, to, gain});
}

} // namespace
} // namespace QTovelMixer::Kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

#include <dsp/choose_kernel_p.h>

namespace QTovelMixer::Kernels {

namespace {

HWY_EXPORT(splitTwo);
HWY_EXPORT(splitTwoScaled);
HWY_EXPORT(mergeTwo);
HWY_EXPORT(splitFrames);
HWY_EXPORT(splitFramesScaled);
HWY_EXPORT(mergeFrames);
HWY_EXPORT(scaleFrames);

} // namespace

void deinterleave(const float *in, float *left, float *right, std::size_t frames) noexcept
{
    QTOVELMIXER_CHOOSE(splitTwo)(in, left, right, frames);
}

void deinterleave(const float *in, float *left, float *right, std::size_t frames,
                  float gain) noexcept
{
    QTOVELMIXER_CHOOSE(splitTwoScaled)(in, left, right, frames, gain);
}

void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames) noexcept
{
    if (channels == 1 && stride == 1) {
        if (frames > 0)
            std::memmove(out[0], in, frames * sizeof(float));
        return;
    }
    if (channels == 2 && stride == 2)
        return deinterleave(in, out[0], out[1], frames);
    QTOVELMIXER_CHOOSE(splitFrames)(in, stride, out, channels, frames);
}

void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames, float gain) noexcept
{
    if (channels == 1 && stride == 1) {
        QTOVELMIXER_CHOOSE(scaleFrames)(in, out[0], frames, gain);
        return;
    }
    if (channels == 2 && stride == 2)
        return deinterleave(in, out[0], out[1], frames, gain);
    QTOVELMIXER_CHOOSE(splitFramesScaled)(in, stride, out, channels, frames, gain);
}

void interleave(const float *const *in, float *out, std::size_t stride, std::size_t channels,
                std::size_t frames) noexcept
{
    if (channels == 1 && stride == 1) {
        if (frames > 0)
            std::memmove(out, in[0], frames * sizeof(float));
        return;
    }
    if (channels == 2 && stride == 2)
        return QTOVELMIXER_CHOOSE(mergeTwo)(in[0], in[1], out, frames);
    QTOVELMIXER_CHOOSE(mergeFrames)(in, out, stride, channels, frames);
}

} // namespace QTovelMixer::Kernels

#endif
