// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_LOUDNESS_READING_H
#define QTOVELMIXER_MIXER_METER_LOUDNESS_READING_H

#include <QtCore/QtGlobal>

namespace QTovelMixer {

/// Whether a meter measures the loudness of a programme.
enum MeasurementState : qint32 {
    MeasurementOff,     ///< nothing is measured, and nothing is spent on it
    MeasurementRunning, ///< everything that comes is taken in
    MeasurementPaused   ///< momentary and short-term loudness go on, the rest stands
};

/// The loudness of a programme as EBU R 128 describes it, filled by `Meter::loudness`. A plain
/// value that can be copied.
///
/// Units: LUFS (ITU-R BS.1770-5 Annex 1), -120.0 for silence and for what is not known yet; LU;
/// dBTP (BS.1770-5 Annex 2). Times are seconds of measured signal since the measurement was reset,
/// pauses left out.
struct LoudnessReading
{
    MeasurementState state = MeasurementOff;
    double seconds = 0.0; ///< measured so far

    /// Of the last 400 ms and of the last 3 s (EBU Tech 3341), in all states but off.
    double momentary = -120.0;
    double shortTerm = -120.0;

    /// The gated loudness of everything measured (BS.1770-5 Annex 1): blocks of 400 ms, one
    /// every 100 ms, above -70 LUFS and above `relativeThreshold`.
    double integrated = -120.0;
    double relativeThreshold = -120.0;

    /// LU between the 10th and the 95th percentile of the short-term loudness (Tech 3342, 3.1), and
    /// the two themselves. 0 before the first 3 s.
    double range = 0.0;
    double rangeLow = -120.0;
    double rangeHigh = -120.0;

    /// The largest values of windows that move in hops of 5 ms and 10 ms, and when those ended.
    double maxMomentary = -120.0;
    double maxMomentaryTime = 0.0;
    double maxShortTerm = -120.0;
    double maxShortTermTime = 0.0;

    /// The largest true peak of any channel, and when the block began that holds it. A start amid
    /// signal takes in the 12 frames before it that the filter holds.
    double maxTruePeak = -120.0;
    double maxTruePeakTime = 0.0;
    /// Peak to loudness ratio: `maxTruePeak` less `integrated`. LU; 0 without either.
    double peakToLoudness = 0.0;

    bool operator==(const LoudnessReading &other) const = default;
};

} // namespace QTovelMixer

#endif
