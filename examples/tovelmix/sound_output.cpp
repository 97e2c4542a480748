// SPDX-License-Identifier: MIT
#include <tovelmix/sound_output.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace tovelmix {

SoundOutput::SoundOutput(const QString &path) : m_path(path) {}

SoundOutput::~SoundOutput()
{
    if (m_sound)
        sf_close(m_sound);
}

bool SoundOutput::fail(const QString &reason)
{
    if (m_error.isEmpty())
        m_error = QString("cannot write '%1': %2").arg(m_path, reason);
    return false;
}

bool SoundOutput::open(SF_INFO info)
{
    if (QFileInfo(m_path).isDir())
        return fail("it is a folder");
    if (QFileInfo(m_path).exists() && !QFileInfo(m_path).isFile())
        return fail("it is not a file");
    if (!sf_format_check(&info))
        return fail(QString("this format has no %1 channels at %2 Hz")
                        .arg(info.channels)
                        .arg(info.samplerate));
    m_file.setFileTemplate(m_path + ".XXXXXX.part");
    if (!m_file.open())
        return fail(m_file.errorString());
    m_sound = sf_open_fd(m_file.handle(), SFM_WRITE, &info, SF_FALSE);
    return m_sound || fail(sf_strerror(nullptr));
}

bool SoundOutput::commit()
{
    if (!m_error.isEmpty())
        return false;
    if (const int status = sf_close(std::exchange(m_sound, nullptr)))
        return fail(sf_error_number(status));
    // The name must not reach the disk before the samples do.
    if (fsync(m_file.handle()) != 0)
        return fail(std::strerror(errno));
    // Readable for those whom the user's mask allows, as a file written in place would be.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(m_file.handle(), 0666 & ~mask);
    const QByteArray from = QFile::encodeName(m_file.fileName());
    if (std::rename(from.constData(), QFile::encodeName(m_path).constData()) != 0)
        return fail(std::strerror(errno));
    m_file.setAutoRemove(false);
    return true;
}

} // namespace tovelmix
