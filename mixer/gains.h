// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_GAINS_H
#define QTOVELMIXER_MIXER_GAINS_H

#include <base/export.h>

/// The default matrices that wire sources and sinks of any channel count to devices of any channel
/// count. All are row-major, rows × columns, of linear gains.
///
/// Up to 8 × 8 the answer is a built-in table that lives for ever and `buffer` is not touched;
/// beyond, all rows × columns floats of `buffer` are filled and it is the answer.
/// Errors: null for less than one row or column, and for a null buffer when one is needed.
/// Threads: any. Real-time: yes.
namespace QTovelMixer::Gains {

/// From device inputs (rows) to sink channels (columns).
QTOVELMIXER_EXPORT const float *inputMixerGains(int rows, int columns, float *buffer) noexcept;

/// From source channels (rows) to device outputs (columns).
QTOVELMIXER_EXPORT const float *outputMixerGains(int rows, int columns, float *buffer) noexcept;

} // namespace QTovelMixer::Gains

#endif
