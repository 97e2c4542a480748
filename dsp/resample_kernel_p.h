// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_RESAMPLE_KERNEL_P_H
#define QTOVELMIXER_DSP_RESAMPLE_KERNEL_P_H

#include <dsp/resample_filter_p.h>

namespace QTovelMixer {

/// A run of output frames to compute. The input must reach from `lead` frames before `window` to
/// `depth` frames behind the beginning of the last frame's window.
struct ResampleRun
{
    const float *window; ///< first input frame under the filter of the first output frame
    float *out;
    int64_t frames;   ///< output frames
    int64_t position; ///< of the first output frame in the filter's cycle
};

/// Computes the run. Each output frame is summed in one fixed order (eight interleaved partial
/// sums, multiplication and addition rounded apart), so that its bits depend neither on its place
/// in the run nor on the processor. Threads: any. Real-time: yes.
void resampleRun(const ResampleFilter &filter, const ResampleRun &run) noexcept;

/// Copies `count` samples; those that are not finite become 0. Threads: any. Real-time: yes.
void copyFinite(const float *in, float *out, int64_t count) noexcept;

} // namespace QTovelMixer

#endif
