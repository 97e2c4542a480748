// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_TRUE_PEAK_P_H
#define QTOVELMIXER_DSP_TRUE_PEAK_P_H

#include <array>

namespace QTovelMixer {

/// The oversampling filter of a true-peak meter (BS.1770-4 Annex 2): a windowed sinc over 48
/// oversampled frames, 4 times below 96 kHz, 2 times below 192 kHz, none from there on.
///
/// Its first phase repeats the samples. The other phases are symmetric, alone or in pairs, and are
/// kept as what multiplies sums and differences of two samples at equal distance from the middle:
/// that halves the multiplications.
struct TruePeakFilter
{
    int factor = 1;  ///< 4, 2 or 1
    int history = 0; ///< frames before a frame that its oversampled values need
    int delay = 0;   ///< frames by which the oversampled values come late

    /// Phase at the middle between two frames; multiplies sums. 6 values at 4 times, 12 at 2.
    std::array<float, 12> middle{};
    /// Phases at a quarter and three quarters: sums plus or minus differences. 4 times only.
    std::array<float, 6> quarterSums{};
    std::array<float, 6> quarterDifferences{};

    float one = 1.0F; ///< for multiplications that only add; no constant, so that they stay

    static TruePeakFilter forRate(int sampleRate);
};

} // namespace QTovelMixer

#endif
