// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_SOUND_OUTPUT_H
#define TOVELMIX_SOUND_OUTPUT_H

#include <QtCore/QString>
#include <QtCore/QTemporaryFile>

#include <sndfile.h>

namespace tovelmix {

/// A sound file that gets its name only when it is whole; until then it removes itself.
class SoundOutput
{
public:
    /// Samples that a WAV file can hold, in bytes: its sizes have 32 bits, headers included.
    static constexpr qint64 wavLimit = 0xffffffffLL - 4096;

    explicit SoundOutput(const QString &path);
    ~SoundOutput();
    Q_DISABLE_COPY_MOVE(SoundOutput)

    /// Notes the first error; always false.
    bool fail(const QString &reason);
    bool open(SF_INFO info);
    bool commit();

    /// Null until it is open.
    SNDFILE *sound() const { return m_sound; }
    const QString &path() const { return m_path; }
    const QString &error() const { return m_error; }

private:
    QString m_path;
    QTemporaryFile m_file;
    SNDFILE *m_sound = nullptr;
    QString m_error;
};

} // namespace tovelmix

#endif
