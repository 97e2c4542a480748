// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_RESAMPLE_RATES_P_H
#define QTOVELMIXER_DSP_RESAMPLE_RATES_P_H

#include <cstdint>

namespace QTovelMixer {

/// Whether `DSPB_ResampleInit` makes a converter between these rates (Hz). Takes no memory.
bool isConvertible(int32_t inRate, int32_t outRate) noexcept;

} // namespace QTovelMixer

#endif
