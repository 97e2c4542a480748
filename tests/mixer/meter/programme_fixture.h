// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_METER_PROGRAMME_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_METER_PROGRAMME_FIXTURE_H

#include "meter_fixture.h"

#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <vector>

inline constexpr double noSignal = -std::numeric_limits<double>::infinity(); // dBFS

/// Tones of 1 kHz as the EBU's technical documents describe them, measured by an idle meter in
/// blocks of 42 ms, as its own thread does. Lengths are multiples of 10 ms, in which the tone has
/// whole periods at every rate.
class Tones
{
public:
    Tones(QTovelMixer::Meter &meter, int rate, int channels)
        : m_meter(meter), m_channels(size_t(channels)), m_unitFrames(size_t(rate / 100)),
          m_blockFrames(size_t(rate * 42 / 1000))
    {
        for (size_t frame = 0; frame < m_unitFrames; ++frame)
            m_period.push_back(
                std::sin(20.0 * std::numbers::pi * double(frame) / double(m_unitFrames)));
    }

    /// Levels in dBFS per channel; one level serves all channels.
    Tones &tone(double seconds, const std::vector<double> &levels)
    {
        std::vector<float> unit;
        for (const double value : m_period) {
            for (size_t channel = 0; channel < m_channels; ++channel) {
                const double level = levels[std::min(channel, levels.size() - 1)];
                unit.push_back(float(linear(level) * value));
            }
        }
        for (long left = std::lround(seconds * 100.0); left > 0; --left) {
            m_pending.insert(m_pending.end(), unit.begin(), unit.end());
            while (m_pending.size() >= m_blockFrames * m_channels)
                measureFirst(m_blockFrames);
        }
        return *this;
    }
    Tones &tone(double seconds, double level) { return tone(seconds, std::vector{level}); }
    Tones &pause(double seconds) { return tone(seconds, noSignal); }

    /// Measures what does not fill a block.
    void end()
    {
        if (!m_pending.empty())
            measureFirst(m_pending.size() / m_channels);
    }

    /// Called after each measured block.
    std::function<void()> look;

private:
    void measureFirst(size_t frames)
    {
        m_meter.updateStatistics(m_pending.data(), int(frames));
        m_pending.erase(m_pending.begin(), m_pending.begin() + ptrdiff_t(frames * m_channels));
        if (look)
            look();
    }

    QTovelMixer::Meter &m_meter;
    size_t m_channels;
    size_t m_unitFrames;
    size_t m_blockFrames;
    std::vector<double> m_period;
    std::vector<float> m_pending;
};

#endif
