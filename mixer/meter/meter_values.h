// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_VALUES_H
#define QTOVELMIXER_MIXER_METER_METER_VALUES_H

#include <base/export.h>

namespace QTovelMixer {

/// A snapshot of a meter's readings, filled by `Meter::getValues`. Slots are dense: slot k shows
/// the k-th enabled channel. A plain value that can be copied.
///
/// Threads: any, one at a time per value. Real-time: yes.
class QTOVELMIXER_EXPORT MeterValues
{
public:
    /// Slots that `Meter::getValues` fills at most.
    static constexpr int capacity = 128;

    /// Says how many slots count as filled; all readings are 0, the loudness is -120.0 and every
    /// slot shows channel 0.
    explicit MeterValues(int numChannels = 0);

    /// True when there is at least one slot.
    bool isValid() const;
    /// Number of filled slots.
    int numChannels() const;

    /// Loudness of the last 400 ms over all enabled channels together.
    /// Units: LUFS (ITU-R BS.1770-4), not clamped. Errors: -120.0 without a slot.
    double momentaryLoudness() const;
    /// Loudness of the last 3 s; otherwise as `momentaryLoudness`.
    double shortTermLoudness() const;

    /// The device channel that a slot shows. Errors: -1 for a slot that is not filled.
    int channelIndex(int slot) const;

    /// The sample peak of a slot.
    /// Units: dBFS, clamped to -120.0 … 0.0. Errors: -120.0 for a negative slot, one beyond
    /// `numChannels` or 128, and without slots. The slot that equals `numChannels` is read like a
    /// filled one.
    double level(int index) const;
    /// The held sample peak of a slot; otherwise as `level`.
    double hold_level(int index) const;
    /// The true peak of a slot, filled while the meter measures it; otherwise as `level`.
    double true_peak_level(int index) const;
    /// The held true peak of a slot, filled while the meter measures it; otherwise as `level`.
    double true_peak_hold_level(int index) const;

private:
    friend class Meter;

    // One more than can be filled: the slot behind the last one may be read.
    static constexpr int slotCount = capacity + 1;

    double toDecibels(const float (&values)[slotCount], int index) const;

    int numFilled;
    double momentary = -120.0; // LUFS
    double shortTerm = -120.0; // LUFS
    int channels[slotCount] = {};
    // Linear amplitude, 1.0 is full scale.
    float levels[slotCount] = {};
    float holdLevels[slotCount] = {};
    float truePeaks[slotCount] = {};
    float truePeakHolds[slotCount] = {};
};

} // namespace QTovelMixer

#endif
