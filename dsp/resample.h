// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_RESAMPLE_H
#define QTOVELMIXER_DSP_RESAMPLE_H

#include <base/export.h>

#include <cstdint>

/// A streaming sample-rate converter for one channel.
///
/// Band-limited interpolation: a linear-phase polyphase filter of 124 taps per phase, a few more
/// where rates have few factors in common (longer in proportion when the rate goes down), cut off
/// at 0.958 of the lower Nyquist frequency. The output is aligned in time with the input: output
/// frame n lies at the moment n / outRate, as if half a filter of silence had stood before the
/// first input frame. So the first call returns fewer frames than the ratio says, by half a filter;
/// what is held back is never drained.
///
/// The output depends on nothing but the input and the two rates: not on how the input is cut into
/// calls, not on the processor. Converters of equal rates that are fed equal frame counts return
/// equal frame counts.
///
/// Threads: any, one at a time per converter.
struct DSPB_Resampler;

extern "C" {

/// Makes a converter from `inRate` to `outRate`. The first converter of a pair of rates builds the
/// filter table, the following ones share it; the table lives until the process ends.
///
/// Units: Hz, 1 … 1 536 000; the output rate at most 256 times, at least 1/256 of the input rate.
/// `preset` names the quality; there is one ("none"), so every text and null mean the same.
/// Errors: null for rates outside these ranges.
/// Threads: any. Real-time: no.
QTOVELMIXER_EXPORT DSPB_Resampler *DSPB_ResampleInit(int32_t inRate, int32_t outRate,
                                                     const char *preset);

/// Takes `frames` input frames and writes what they complete of the output; returns the number of
/// output frames written. `in` and `out` must not overlap.
///
/// `out` must have room for (int)(outRate / inRate * 4096.0 * 1.5) frames when `frames` is at most
/// 4096, and for that many per started 4096 input frames otherwise; no call ever writes more.
/// Input that is not finite counts as silence.
///
/// Errors: returns 0 and does nothing for a null converter, a null pointer or `frames` < 1.
/// Threads: the converter's user. Real-time: yes (no allocation, no lock), though its cost
/// grows with the filter's length.
QTOVELMIXER_EXPORT int32_t DSPB_Resample(DSPB_Resampler *resampler, const float *in, float *out,
                                         int32_t frames);

/// Input frames taken so far that the output does not yet represent: frames in minus frames out
/// times inRate / outRate. About 62 (in proportion more when the rate goes down) after the first
/// call. 0.0 for a null converter.
///
/// Units: input frames, with fractions.
/// Threads: the converter's user. Real-time: yes.
QTOVELMIXER_EXPORT double DSPB_ResampleWithheld(const DSPB_Resampler *resampler);

/// Brings the converter back to where it stood after DSPB_ResampleInit: what it held back is
/// forgotten. Null is allowed.
///
/// Threads: the converter's user. Real-time: yes.
QTOVELMIXER_EXPORT void DSPB_ResampleRestart(DSPB_Resampler *resampler);

/// Frees the converter. Null is allowed.
///
/// Threads: any, after the last use. Real-time: no.
QTOVELMIXER_EXPORT void DSPB_ResampleDestroy(DSPB_Resampler *resampler);
}

#endif
