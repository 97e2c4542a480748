// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_WAV_WRITER_H
#define TOVELMIX_WAV_WRITER_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <memory>

namespace tovelmix {

/// Writes 16-bit samples into a WAV file that appears under its name only when it is whole:
/// until `commit` the samples are in a temporary file beside it, which disappears otherwise.
class WavWriter
{
    Q_DISABLE_COPY_MOVE(WavWriter)

public:
    /// `expectedFrames` chooses the form: when it could grow beyond 4 GiB the 64-bit one
    /// (RF64), which a file that stays below gives up again.
    WavWriter(const QString &path, int channels, int rate, qint64 expectedFrames);
    ~WavWriter();

    /// One line about what went wrong first; empty when all is well.
    QString error() const;

    /// Appends interleaved frames, −1 … 1. Answers false after an error.
    bool write(const float *frames, qint64 count);

    /// Finishes the file and gives it its name. Answers false after an error.
    bool commit();

private:
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace tovelmix

#endif
