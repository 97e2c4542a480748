// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_BALLISTICS_P_H
#define QTOVELMIXER_MIXER_METER_BALLISTICS_P_H

#include <algorithm>

namespace QTovelMixer {

/// One step of a level that jumps up at once, stays for its hold time and then falls by a factor
/// of 0.75 (2.5 dB) per step. `peak` and `level` are linear, `hold` counts steps.
inline void followPeak(double &level, int &hold, double peak, double holdSeconds, int sampleRate,
                       int frames)
{
    if (hold < 1)
        level *= 0.75;
    if (peak > level) {
        level = peak;
        hold = int(sampleRate * holdSeconds / frames);
    } else {
        hold = std::max(hold, 1) - 1;
    }
}

} // namespace QTovelMixer

#endif
