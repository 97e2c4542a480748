// SPDX-License-Identifier: MIT
#include <tovelmix/meter_reading.h>

#include <tovelmix/take.h>

#include <mixer/meter/meter.h>

#include <algorithm>

namespace tovelmix {

void MeterReading::reset(int channels)
{
    m_levels.assign(size_t(channels), silenceDb);
    m_holdLevels.assign(size_t(channels), silenceDb);
    m_values = QTovelMixer::MeterValues();
}

void MeterReading::read(QTovelMixer::Meter *meter)
{
    if (!meter)
        return;
    meter->getValues(m_values);
    for (int slot = 0; slot < m_values.numChannels(); ++slot) {
        const auto channel = size_t(m_values.channelIndex(slot));
        if (channel >= m_levels.size())
            continue;
        m_levels[channel] = m_values.level(slot);
        m_holdLevels[channel] = m_values.hold_level(slot);
    }
}

void MeterReading::addTo(Take &take) const
{
    if (!m_values.isValid())
        return;
    for (int slot = 0; slot < m_values.numChannels(); ++slot) {
        const auto channel = size_t(m_values.channelIndex(slot));
        // The hold lasts 2 s, so no maximum passes between two readings.
        if (channel < take.truePeakDb.size())
            take.truePeakDb[channel] =
                std::max(take.truePeakDb[channel], m_values.true_peak_hold_level(slot));
    }
    take.momentary = m_values.momentaryLoudness();
    take.shortTerm = m_values.shortTermLoudness();
    take.highestMomentary = std::max(take.highestMomentary, take.momentary);
    take.highestShortTerm = std::max(take.highestShortTerm, take.shortTerm);
}

} // namespace tovelmix
