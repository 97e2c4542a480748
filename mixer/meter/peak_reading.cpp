// SPDX-License-Identifier: MIT
#include <mixer/meter/peak_reading.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

double PeakReading::decibels(double linear)
{
    constexpr double silence = -120.0; // dB
    return linear > 0.0 ? std::max(silence, 20.0 * std::log10(linear)) : silence;
}

} // namespace QTovelMixer
