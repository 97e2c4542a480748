// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_BALLISTICS_P_H
#define QTOVELMIXER_MIXER_METER_BALLISTICS_P_H

#include <algorithm>
#include <limits>

namespace QTovelMixer {

/// The number of blocks of `frames` frames (1 or more) that a level stays for, rounded down.
inline int holdBlocks(double seconds, int sampleRate, int frames) noexcept
{
    const double blocks = sampleRate * seconds / frames;
    return int(std::min(blocks, double(std::numeric_limits<int>::max())));
}

/// Moves a level on by one measured block: it jumps up at once, stays while `hold` counts down and
/// then falls by 2.5 dB per block. `level` and `peak` are linear; `holdTime` is that of a new peak,
/// in blocks.
inline void followPeak(double &level, int &hold, double peak, int holdTime) noexcept
{
    if (hold < 1)
        level *= 0.75;
    if (peak > level) {
        level = peak;
        hold = holdTime;
    } else {
        hold = std::max(hold, 1) - 1;
    }
}

} // namespace QTovelMixer

#endif
