// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_MIX_WRITER_H
#define TOVELMIX_MIX_WRITER_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <memory>

namespace tovelmix {

/// Writes a mix into an audio file, which appears under its name only when it is whole: 32-bit
/// float samples for .wav, 24-bit ones for .flac. One thread at a time.
class MixWriter
{
    Q_DISABLE_COPY_MOVE(MixWriter)

public:
    /// `expectedFrames` chooses the form of a .wav: beyond 4 GiB the 64-bit one (RF64).
    MixWriter(const QString &path, int channels, int rate, qint64 expectedFrames);
    /// Without `commit` nothing remains.
    ~MixWriter();

    /// One line that names the file; empty when all is well.
    const QString &error() const;
    /// Appends interleaved frames. Answers false after an error.
    bool write(const float *frames, qint64 count);
    /// Finishes the file and gives it its name. Answers false after an error.
    bool commit();

private:
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace tovelmix

#endif
