// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_CHOOSE_KERNEL_P_H
#define QTOVELMIXER_DSP_CHOOSE_KERNEL_P_H

/// As HWY_DYNAMIC_DISPATCH, without a call of its library for every call of a kernel. A build for
/// one kind of processor has no table to look into.
#if (HWY_TARGETS & (HWY_TARGETS - 1)) == 0
#define QTOVELMIXER_CHOOSE(kernel) HWY_STATIC_DISPATCH(kernel)
#else
#define QTOVELMIXER_CHOOSE(kernel) \
    (HWY_DISPATCH_TABLE(kernel)[QTovelMixer::Kernels::chosenTarget.GetIndex()])

namespace QTovelMixer::Kernels {

inline hwy::ChosenTarget &chosenTarget = hwy::GetChosenTarget();

} // namespace QTovelMixer::Kernels
#endif

#endif
