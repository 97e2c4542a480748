// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_PEAK_READING_H
#define QTOVELMIXER_MIXER_METER_PEAK_READING_H

#include <base/export.h>

#include <QtCore/QtGlobal>

#include <vector>

namespace QTovelMixer {

/// The peaks of one channel, not clamped: what is above full scale reads so.
///
/// Units: linear amplitude, 1.0 is full scale; `PeakReading::decibels` gives dBFS (dBTP for true
/// peaks, which follow ITU-R BS.1770-5 Annex 2). Seconds of measured signal since the holds were
/// reset.
struct ChannelPeaks
{
    int channel = 0; ///< of the device

    /// The readings of `MeterValues`, with their ballistics.
    double level = 0.0;
    double holdLevel = 0.0;
    double truePeakLevel = 0.0; ///< 0 while true peaks are not measured, as the next
    double truePeakHoldLevel = 0.0;

    /// The largest since the holds were reset. The time is that of the sample.
    double maxLevel = 0.0;
    double maxLevelTime = 0.0; ///< seconds
    /// The largest true peak since the holds were reset, of the time in which true peaks were
    /// measured. The time is that of the beginning of the measured block, 42 ms at most early.
    double maxTruePeak = 0.0;
    double maxTruePeakTime = 0.0; ///< seconds
    /// Overs since the holds were reset: runs of `Meter::overLength` or more samples of at least
    /// `Meter::overLevel`.
    qint64 overs = 0;

    bool operator==(const ChannelPeaks &other) const = default;
};

/// A snapshot of a meter's peaks, filled by `Meter::getPeaks`: one entry for each enabled channel,
/// in their order. A plain value that can be copied.
///
/// Threads: any, one at a time per value.
struct QTOVELMIXER_EXPORT PeakReading
{
    std::vector<ChannelPeaks> channels;
    bool hasTruePeak = false; ///< true peaks are measured
    double seconds = 0.0;     ///< measured since the holds were reset

    /// 20 lg of a linear amplitude. Units: dB; -120.0 for silence and all below, no upper bound.
    static double decibels(double linear);

    bool operator==(const PeakReading &other) const = default;
};

} // namespace QTovelMixer

#endif
