// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_VALUES_H
#define QTOVELMIXER_MIXER_METER_METER_VALUES_H

#include <base/export.h>

namespace QTovelMixer {

/// A snapshot of a meter's readings, filled by `Meter::getValues`. Slots are dense: slot k is the
/// k-th enabled channel. A plain value. Threads: one at a time. Real-time: yes.
class QTOVELMIXER_EXPORT MeterValues
{
public:
    /// Slots that `Meter::getValues` fills at most.
    static constexpr int capacity = 128;

    /// All readings are zero, the loudness −120.
    explicit MeterValues(int numChannels = 0);

    /// True when there is at least one slot.
    bool isValid() const;
    /// Number of filled slots.
    int numChannels() const;

    /// Loudness of the last 400 ms over all enabled channels, LUFS (ITU-R BS.1770-4, EBU Tech
    /// 3341); −120.0 without a slot.
    double momentaryLoudness() const;
    /// Loudness of the last 3 s, as `momentaryLoudness`.
    double shortTermLoudness() const;

    /// The device channel that a slot shows; −1 for a slot that is not filled.
    int channelIndex(int slot) const;

    /// Readings of a slot in dBFS, from −120.0 to 0.0; −120.0 for a negative slot or one beyond
    /// `numChannels`. The slot that equals `numChannels` is read like a filled one.
    double level(int index) const;
    double hold_level(int index) const;
    double true_peak_level(int index) const;
    double true_peak_hold_level(int index) const;

private:
    friend class Meter;
    friend struct MeterValuesAccess;

    // One more than can be filled: the slot behind the last one may be read.
    static constexpr int slotCount = capacity + 1;

    double toDecibels(const float (&values)[slotCount], int index) const;

    int m_numChannels;
    double m_momentaryLoudness = -120.0;
    double m_shortTermLoudness = -120.0;
    int m_channelIndex[slotCount] = {};
    float m_level[slotCount] = {};
    float m_holdLevel[slotCount] = {};
    float m_truePeakLevel[slotCount] = {};
    float m_truePeakHoldLevel[slotCount] = {};
};

} // namespace QTovelMixer

#endif
