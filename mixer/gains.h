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

/// From device inputs (rows) to sink channels (columns): each input into the channel of its number,
/// a single input into all. Beyond 8 × 8: each into the channel of its number when there are at
/// least as many inputs as channels, else every input into every channel.
///
/// | inputs x channels | gains, by input |
/// |---|---|
/// | 1 x 1 | [1] |
/// | 1 x 2 | [1, 1] |
/// | 1 x 6 | [1, 1, 1, 0, 1, 1] |
/// | 1 x 8 | [1, 1, 1, 1, 1, 1, 1, 1] |
/// | 2 x 1 | [1], [0] |
/// | 2 x 2 | [1, 0], [0, 1] |
/// | 2 x 6 | [1, 0, 0, 0, 0, 0], [0, 1, 0, 0, 0, 0] |
/// | 4 x 2 | [1, 0], [0, 1], [0, 0], [0, 0] |
/// | 9 x 1 | [1], [0], [0], [0], [0], [0], [0], [0], [0] |
/// | 1 x 9 | [1, 1, 1, 1, 1, 1, 1, 1, 1] |
QTOVELMIXER_EXPORT const float *inputMixerGains(int rows, int columns, float *buffer) noexcept;

/// From source channels (rows) to device outputs (columns). As many outputs as channels: each
/// channel to the output of its number. More outputs: the further ones carry the mean of all
/// channels, so that a stereo source is heard on every output. Fewer outputs (c) than channels (r):
/// the first channels scaled by c / r, the further ones by 1 / r to every output; but for three
/// down-mixes, of which that from six channels to two takes the surrounds out of phase. Beyond 8 ×
/// 8: each to the output of its number when there are outputs enough, else every channel to every
/// output at 1.
///
/// | channels x outputs | gains, by channel |
/// |---|---|
/// | 1 x 1 | [1] |
/// | 1 x 2 | [1, 1] |
/// | 1 x 6 | [1, 1, 1, 1, 1, 1] |
/// | 1 x 8 | [1, 1, 1, 1, 1, 1, 1, 1] |
/// | 2 x 1 | [0.5], [0.5] |
/// | 2 x 2 | [1, 0], [0, 1] |
/// | 2 x 4 | [1, 0, 0.5, 0.5], [0, 1, 0.5, 0.5] |
/// | 2 x 6 | [1, 0, 0.5, 0.5, 0.5, 0.5], [0, 1, 0.5, 0.5, 0.5, 0.5] |
/// | 2 x 8 | [1, 0, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5], [0, 1, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5] |
/// | 3 x 2 | [0.666667, 0], [0, 0.666667], [0.333333, 0.333333] |
/// | 4 x 1 | [0.25], [0.25], [0.25], [0.25] |
/// | 4 x 2 | [0.5, 0], [0, 0.5], [0.5, 0], [0, 0.5] |
/// | 6 x 2 | [0.266312, 0], [0, 0.266312], [0.188282, 0.188282], [0.188282, 0.188282] |
/// | | [-0.238083, -0.119041], [0.119041, 0.238083] |
/// | 6 x 4 | [0.571429, 0, 0, 0], [0, 0.571429, 0, 0], [0.285714, 0.285714, 0, 0] |
/// | | [0.142857, 0.142857, 0.2, 0.2], [0, 0, 0.8, 0], [0, 0, 0, 0.8] |
/// | 8 x 2 | [0.25, 0], [0, 0.25], [0.125, 0.125], [0.125, 0.125], [0.125, 0.125] |
/// | | [0.125, 0.125], [0.125, 0.125], [0.125, 0.125] |
/// | 9 x 2 | [1, 1], [1, 1], [1, 1], [1, 1], [1, 1], [1, 1], [1, 1], [1, 1], [1, 1] |
/// | 2 x 9 | [1, 0, 0, 0, 0, 0, 0, 0, 0], [0, 1, 0, 0, 0, 0, 0, 0, 0] |
QTOVELMIXER_EXPORT const float *outputMixerGains(int rows, int columns, float *buffer) noexcept;

} // namespace QTovelMixer::Gains

#endif
