// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_VECTOR_TARGETS_P_H
#define QTOVELMIXER_DSP_VECTOR_TARGETS_P_H

// For the top of every kernel file. 512-bit vectors gain nothing in these loops and cost clock on
// some machines; vectors without a size known to the compiler cannot be counted in them.
#define HWY_DISABLED_TARGETS \
    (HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)

#endif
