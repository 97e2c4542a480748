// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_MEASURE_H
#define TOVELMIX_MEASURE_H

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/loudness_target.h>
#include <mixer/meter/peak_reading.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <optional>

namespace tovelmix {

/// The loudness and peaks of an audio file.
struct Measurement
{
    QString path;
    QString error; ///< one line; empty when the file was measured
    int rate = 0;  ///< Hz
    int channels = 0;
    qint64 frames = 0;
    QTovelMixer::LoudnessReading loudness;
    QTovelMixer::PeakReading peaks;
};

/// Measures a file as fast as it can be read. A layout of another number of channels is not for it.
Measurement measureFile(const QString &path, const QTovelMixer::ChannelLayout &layout);

bool meets(const Measurement &measurement, const QTovelMixer::LoudnessTarget *target);

/// For people; with a verdict when there is a target.
QString table(const Measurement &measurement, const QTovelMixer::LoudnessTarget *target);
/// An array with an object for each file.
QByteArray json(const QList<Measurement> &measurements, const QTovelMixer::LoudnessTarget *target);

} // namespace tovelmix

#endif
