// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_values.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {
constexpr double silence = -120.0; // dB
}

MeterValues::MeterValues(int numChannels) : numFilled(numChannels) {}

bool MeterValues::isValid() const
{
    return numFilled > 0;
}

int MeterValues::numChannels() const
{
    return numFilled;
}

double MeterValues::momentaryLoudness() const
{
    return isValid() ? momentary : silence;
}

double MeterValues::shortTermLoudness() const
{
    return isValid() ? shortTerm : silence;
}

int MeterValues::channelIndex(int slot) const
{
    return slot >= 0 && slot < std::min(numFilled, capacity) ? channels[slot] : -1;
}

double MeterValues::toDecibels(const float (&values)[slotCount], int index) const
{
    if (numFilled <= 0 || numFilled < index || index < 0 || index >= slotCount)
        return silence;
    const double value = double(values[index]);
    const double decibels = value <= 0.0 ? silence : 20.0 * std::log10(value);
    return std::clamp(decibels, silence, 0.0);
}

double MeterValues::level(int index) const
{
    return toDecibels(levels, index);
}

double MeterValues::hold_level(int index) const
{
    return toDecibels(holdLevels, index);
}

double MeterValues::true_peak_level(int index) const
{
    return toDecibels(truePeaks, index);
}

double MeterValues::true_peak_hold_level(int index) const
{
    return toDecibels(truePeakHolds, index);
}

} // namespace QTovelMixer
