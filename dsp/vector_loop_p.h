// SPDX-License-Identifier: MIT
// The loop that all vector kernels are made of, once for each kind of instructions: included again
// and again, by each kernel file (behind Highway) and for each target, hence the guard that
// toggles.
#if defined(QTOVELMIXER_DSP_VECTOR_LOOP_P_H) == defined(HWY_TARGET_TOGGLE)
#ifdef QTOVELMIXER_DSP_VECTOR_LOOP_P_H
#undef QTOVELMIXER_DSP_VECTOR_LOOP_P_H
#else
#define QTOVELMIXER_DSP_VECTOR_LOOP_P_H
#endif

#include <cstddef>

HWY_BEFORE_NAMESPACE();
namespace QTovelMixer::Kernels::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

using Lanes = hn::CappedTag<float, 8>;
using Quad = hn::CappedTag<float, 4>;
using Single = hn::CappedTag<float, 1>;

inline constexpr std::size_t lanes = hn::MaxLanes(Lanes());
inline constexpr std::size_t quad = 4;

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

} // namespace
} // namespace QTovelMixer::Kernels::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif
