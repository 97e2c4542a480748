// SPDX-License-Identifier: MIT
#include <dsp/kernels_p.h>

#include <dsp/vector_targets_p.h>

#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernels_mix.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <dsp/vector_loop_p.h>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

constexpr std::size_t tileFrames = 16;

constexpr std::size_t batch = 8; // inputs whose gains stay in registers

/// Some inputs on their way into one output. The first batch begins at zero.
template <std::size_t Count, bool First>
struct Batch
{
    float *out;
    const float *in[Count];
    float gains[Count];

    Batch(float *to, const float *const *from, const float *by) : out(to)
    {
        for (std::size_t j = 0; j < Count; ++j) {
            in[j] = from[j];
            gains[j] = by[j];
        }
    }

    template <class D>
    HWY_INLINE void operator()(D d, std::size_t i) const
    {
        Vector<D> sum = hn::Zero(d);
        if constexpr (!First)
            sum = hn::LoadU(d, out + i);
        addFrom<0>(d, sum, i);
        hn::StoreU(sum, d, out + i);
    }

    template <std::size_t J, class D>
    HWY_INLINE void addFrom(D d, Vector<D> &sum, std::size_t i) const
    {
        if constexpr (J < Count) {
            sum = hn::Add(sum, hn::Mul(hn::Set(d, gains[J]), hn::LoadU(d, in[J] + i)));
            addFrom<J + 1>(d, sum, i);
        }
    }
};

template <std::size_t Count, bool First>
void runBatch(float *out, const float *const *in, const float *gains, std::size_t frames)
{
    forEach(frames, Batch<Count, First>(out, in, gains));
}

/// As many of the inputs as make one batch.
template <bool First>
void runSome(float *out, const float *const *in, const float *gains, std::size_t inputs,
             std::size_t frames)
{
    switch (inputs) {
    case 1:
        return runBatch<1, First>(out, in, gains, frames);
    case 2:
        return runBatch<2, First>(out, in, gains, frames);
    case 3:
        return runBatch<3, First>(out, in, gains, frames);
    case 4:
        return runBatch<4, First>(out, in, gains, frames);
    case 5:
        return runBatch<5, First>(out, in, gains, frames);
    case 6:
        return runBatch<6, First>(out, in, gains, frames);
    case 7:
        return runBatch<7, First>(out, in, gains, frames);
    default:
        return runBatch<batch, First>(out, in, gains, frames);
    }
}

void mixOne(float *out, const float *const *in, const float *gains, std::size_t inputs,
            std::size_t frames)
{
    if (inputs == 0) {
        std::memset(out, 0, frames * sizeof(float));
        return;
    }
    runSome<true>(out, in, gains, inputs, frames);
    for (std::size_t j = batch; j < inputs; j += batch)
        runSome<false>(out, in + j, gains + j, inputs - j, frames);
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

} // namespace
} // namespace QTovelMixer::Kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

#include <dsp/choose_kernel_p.h>

namespace QTovelMixer::Kernels {

namespace {

HWY_EXPORT(mixOne);
HWY_EXPORT(mixTwo);
HWY_EXPORT(mixSixes);

} // namespace

void mix(float *out, const float *const *in, const float *gains, std::size_t inputs,
         std::size_t frames) noexcept
{
    QTOVELMIXER_CHOOSE(mixOne)(out, in, gains, inputs, frames);
}

void mixPair(float *out0, float *out1, const float *const *in, const float *gains0,
             const float *gains1, std::size_t inputs, std::size_t frames) noexcept
{
    QTOVELMIXER_CHOOSE(mixTwo)(out0, out1, in, gains0, gains1, inputs, frames);
}

void mixDense(float *const *out, std::size_t groups, const float *const *in, const float *gains,
              std::size_t groupStride, std::size_t inputs, std::size_t frames) noexcept
{
    QTOVELMIXER_CHOOSE(mixSixes)(out, groups, in, gains, groupStride, inputs, frames);
}

} // namespace QTovelMixer::Kernels

#endif
