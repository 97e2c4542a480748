// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_METER_READING_H
#define TOVELMIX_METER_READING_H

#include <mixer/meter/meter_values.h>

#include <vector>

namespace QTovelMixer {
class Meter;
}

namespace tovelmix {

struct Take;

/// The latest readings of a meter, per channel of its device.
class MeterReading
{
public:
    /// Silence on so many channels.
    void reset(int channels);
    /// Takes over what the meter shows. A null meter shows nothing new.
    void read(QTovelMixer::Meter *meter);
    /// Brings a take's loudness and true peaks up to the readings.
    void addTo(Take &take) const;

    const std::vector<double> &levels() const { return m_levels; }
    const std::vector<double> &holdLevels() const { return m_holdLevels; }

private:
    std::vector<double> m_levels;     ///< dB
    std::vector<double> m_holdLevels; ///< dB
    QTovelMixer::MeterValues m_values;
};

} // namespace tovelmix

#endif
