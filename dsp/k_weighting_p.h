// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_K_WEIGHTING_P_H
#define QTOVELMIXER_DSP_K_WEIGHTING_P_H

namespace QTovelMixer {

/// A second-order filter section, a0 = 1: y = (b0 + b1/z + b2/z²) / (1 + a1/z + a2/z²) · x.
struct Biquad
{
    double b0 = 1.0;
    double b1 = 0.0;
    double b2 = 0.0;
    double a1 = 0.0;
    double a2 = 0.0;
};

/// The K-weighting of ITU-R BS.1770-4 Annex 1: the head's shelf, then the low cut.
struct KWeighting
{
    Biquad shelf;
    Biquad lowCut;
    double one = 1.0; ///< for multiplications that only add; no constant, so that they stay

    /// What the first coefficients amplify an energy by.
    double gain() const { return shelf.b0 * shelf.b0 * lowCut.b0 * lowCut.b0; }

    /// For any rate in Hz. At 48 kHz exactly the standard's tables; at other rates the digital
    /// filters of the same analogue ones. A stage that lies above what a low rate can carry is
    /// left out.
    static KWeighting forRate(int sampleRate);
};

/// Weight of a channel's energy in the sum over `channels` channels.
double loudnessWeight(int channel, int channels);

} // namespace QTovelMixer

#endif
