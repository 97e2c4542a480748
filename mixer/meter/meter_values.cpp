// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_values.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {
constexpr double silence = -120.0; // dB
}

MeterValues::MeterValues(int numChannels) : m_numChannels(numChannels) {}

bool MeterValues::isValid() const
{
    return m_numChannels > 0;
}

int MeterValues::numChannels() const
{
    return m_numChannels;
}

double MeterValues::momentaryLoudness() const
{
    return isValid() ? m_momentaryLoudness : silence;
}

double MeterValues::shortTermLoudness() const
{
    return isValid() ? m_shortTermLoudness : silence;
}

int MeterValues::channelIndex(int slot) const
{
    return slot >= 0 && slot < std::min(m_numChannels, capacity) ? m_channelIndex[slot] : -1;
}

double MeterValues::toDecibels(const float (&values)[slotCount], int index) const
{
    if (m_numChannels <= 0 || m_numChannels < index || index < 0 || index >= slotCount)
        return silence;
    const double value = values[index];
    if (!(value > 0.0))
        return silence;
    return std::clamp(20.0 * std::log10(value), silence, 0.0);
}

double MeterValues::level(int index) const
{
    return toDecibels(m_level, index);
}

double MeterValues::hold_level(int index) const
{
    return toDecibels(m_holdLevel, index);
}

double MeterValues::true_peak_level(int index) const
{
    return toDecibels(m_truePeakLevel, index);
}

double MeterValues::true_peak_hold_level(int index) const
{
    return toDecibels(m_truePeakHoldLevel, index);
}

} // namespace QTovelMixer
