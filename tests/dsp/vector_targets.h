// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_DSP_VECTOR_TARGETS_H
#define QTOVELMIXER_TESTS_DSP_VECTOR_TARGETS_H

#include <hwy/targets.h>

#include <cstdint>
#include <vector>

/// Runs the vector code of one instruction set while it lives, then the processor's best again.
class OnlyTarget
{
public:
    explicit OnlyTarget(int64_t target)
    {
        hwy::SetSupportedTargetsForTest(target);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    }
    ~OnlyTarget()
    {
        hwy::SetSupportedTargetsForTest(0);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    }
    OnlyTarget(const OnlyTarget &) = delete;
    OnlyTarget &operator=(const OnlyTarget &) = delete;
};

/// The instruction sets for which the library holds code and that this processor has.
inline std::vector<int64_t> vectorTargets()
{
    std::vector<int64_t> targets;
    const int64_t compiled = HWY_TARGETS & ~int64_t(HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 |
                                                    HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV);
    for (int64_t rest = hwy::SupportedTargets() & compiled; rest != 0; rest &= rest - 1)
        targets.push_back(rest & -rest);
    return targets;
}

#endif
