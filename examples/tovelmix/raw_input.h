// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_RAW_INPUT_H
#define TOVELMIX_RAW_INPUT_H

#include <QtCore/QString>
#include <QtCore/QTemporaryFile>

#include <memory>
#include <vector>

namespace tovelmix {

/// An input in the form that the file backend plays: interleaved signed 16-bit samples at
/// 44100 Hz without a header. Raw files are taken as they are; audio files are converted into a
/// temporary file.
class RawInput
{
public:
    /// `channels` 0 means: as the audio file says. Look at `error` afterwards.
    RawInput(const QString &path, int channels);

    QString error() const { return m_error; } ///< one line; empty when usable
    QString path() const { return m_path; }   ///< the raw file; lives as long as this object
    int channels() const { return m_channels; }
    qint64 frames() const { return m_frames; }
    QString description() const { return m_description; } ///< one line for the user

    /// All samples of the raw file.
    std::vector<short> samples() const;

private:
    bool takeRaw(const QString &path);
    bool convert(const QString &path);
    bool store(std::vector<short> samples);

    QString m_error;
    QString m_path;
    QString m_description;
    int m_channels = 0;
    qint64 m_frames = 0;
    std::unique_ptr<QTemporaryFile> m_converted;
};

} // namespace tovelmix

#endif
