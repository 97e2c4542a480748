// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_SOUND_FILE_H
#define TOVELMIX_SOUND_FILE_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <memory>

namespace tovelmix {

/// An audio file, read frame by frame from anywhere. One thread at a time.
class SoundFile
{
    Q_DISABLE_COPY_MOVE(SoundFile)

public:
    explicit SoundFile(const QString &path);
    ~SoundFile();

    /// One line that names the file; empty when it can be played.
    const QString &error() const;
    const QString &path() const;
    int channels() const;
    int rate() const; ///< Hz
    qint64 frames() const;

    /// Reads up to `count` interleaved frames from frame `first` on, and answers how many.
    qint64 read(float *buffer, qint64 first, qint64 count);

private:
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace tovelmix

#endif
