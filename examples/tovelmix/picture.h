// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_PICTURE_H
#define TOVELMIX_PICTURE_H

#include <QtCore/QSaveFile>
#include <QtCore/QString>

#include <vector>

namespace tovelmix {

/// A PNG of a mix: the waveform of all channels together, above it the true peak (red) and the
/// short-term loudness (green) on a scale of 0 to -60 dB, with a line every 10 dB.
class Picture
{
public:
    static constexpr int width = 1200;
    static constexpr int waveHeight = 320;
    static constexpr int curveHeight = 160;
    static constexpr int height = curveHeight + waveHeight;

    /// Opens the file at once, so that what cannot be written fails before the work. `frames`: of
    /// the whole mix.
    Picture(const QString &path, qint64 frames, int channels);

    /// The next frames, interleaved, with the true peak (linear) and loudness (LUFS) measured
    /// there.
    void add(const float *samples, qint64 frames, double truePeak, double loudness);
    /// Draws and writes. Until then the file is as it was.
    bool commit();
    /// Empty when all is well.
    QString error() const;

private:
    struct Column
    {
        float lowest = 0.0f;
        float highest = 0.0f;
        double truePeak = 0.0;
        double loudness = -200.0;
    };

    QByteArray drawn() const;

    QSaveFile m_file;
    QString m_error;
    qint64 m_frames;
    int m_channels;
    qint64 m_position = 0;
    std::vector<Column> m_columns{width};
};

} // namespace tovelmix

#endif
