// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_LOUDNESS_TARGET_H
#define QTOVELMIXER_MIXER_METER_LOUDNESS_TARGET_H

#include <base/export.h>
#include <mixer/meter/loudness_reading.h>

#include <QtCore/QString>

#include <optional>
#include <vector>

namespace QTovelMixer {

/// A figure that a target asks for.
enum LoudnessFigure : qint32 {
    IntegratedLoudness, ///< LUFS
    MaxShortTerm,       ///< LUFS
    MaxTruePeak         ///< dBTP
};

/// A figure that is not what a target asks for.
struct LoudnessMiss
{
    LoudnessFigure figure = IntegratedLoudness;
    double value = 0.0; ///< as measured
    double limit = 0.0; ///< the bound that it lies beyond
};

/// What a recommendation asks of a programme, as data. A plain value that can be copied; hosts may
/// make their own.
///
/// Threads: any.
struct QTOVELMIXER_EXPORT LoudnessTarget
{
    QString name;     ///< "r128", for options and files
    QString title;    ///< for people
    QString document; ///< with its number; empty where there is none
    QString date;     ///< of the edition that the figures are from

    double lowest = -23.0;              ///< of the integrated loudness, LUFS
    double highest = -23.0;             ///< LUFS
    std::optional<double> maxShortTerm; ///< LUFS
    double maxTruePeak = -1.0;          ///< dBTP

    /// The figures that miss, to a tenth as meters show them. A programme that nothing is known of
    /// misses the integrated loudness.
    std::vector<LoudnessMiss> misses(const LoudnessReading &reading) const;

    /// Those that the library knows: "r128", "r128-live", "r128-s1", "r128-s2", "a85",
    /// "aes77-music", "aes77-speech", "streaming-14".
    static const std::vector<LoudnessTarget> &all();
    /// One of them. Errors: null for another name.
    static const LoudnessTarget *find(const QString &name);
};

} // namespace QTovelMixer

#endif
