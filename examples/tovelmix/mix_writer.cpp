// SPDX-License-Identifier: MIT
#include <tovelmix/mix_writer.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryFile>

#include <sndfile.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace tovelmix {

namespace {

constexpr qint64 wavLimit = 0xffffffffLL - 4096; // headers included, the 32-bit sizes must hold

} // namespace

struct MixWriter::Data
{
    QString path;
    QTemporaryFile file; ///< removes itself unless it got the mix's name
    SNDFILE *sound = nullptr;
    QString error;

    bool fail(const QString &reason)
    {
        if (error.isEmpty())
            error = QString("cannot write '%1': %2").arg(path, reason);
        return false;
    }
    bool open(int channels, int rate, qint64 expectedFrames);
};

bool MixWriter::Data::open(int channels, int rate, qint64 expectedFrames)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    SF_INFO info = {};
    info.channels = channels;
    info.samplerate = rate;
    const bool large = expectedFrames * channels * qint64(sizeof(float)) >= wavLimit;
    info.format = suffix == "flac" ? SF_FORMAT_FLAC | SF_FORMAT_PCM_24
                                   : (large ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | SF_FORMAT_FLOAT;
    if (suffix != "flac" && suffix != "wav")
        return fail("the name must end in .wav or .flac");
    if (QFileInfo(path).isDir())
        return fail("it is a folder");
    if (!sf_format_check(&info))
        return fail(QString("this format has no %1 channels at %2 Hz").arg(channels).arg(rate));
    file.setFileTemplate(path + ".XXXXXX.part");
    if (!file.open())
        return fail(file.errorString());
    sound = sf_open_fd(file.handle(), SFM_WRITE, &info, SF_FALSE);
    if (!sound)
        return fail(sf_strerror(nullptr));
    // The chunk holds the time of day: equal mixes would be different files.
    sf_command(sound, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    sf_command(sound, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    return true;
}

MixWriter::MixWriter(const QString &path, int channels, int rate, qint64 expectedFrames)
    : d(std::make_unique<Data>())
{
    d->path = path;
    d->open(channels, rate, expectedFrames);
}

MixWriter::~MixWriter()
{
    if (d->sound)
        sf_close(d->sound);
}

const QString &MixWriter::error() const
{
    return d->error;
}

bool MixWriter::write(const float *frames, qint64 count)
{
    if (!d->error.isEmpty())
        return false;
    return sf_writef_float(d->sound, frames, count) == count || d->fail(sf_strerror(d->sound));
}

bool MixWriter::commit()
{
    if (!d->error.isEmpty())
        return false;
    if (const int status = sf_close(std::exchange(d->sound, nullptr)))
        return d->fail(sf_error_number(status));
    // The name must not reach the disk before the samples do.
    if (fsync(d->file.handle()) != 0)
        return d->fail(std::strerror(errno));
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(d->file.handle(), 0666 & ~mask);
    const QByteArray from = QFile::encodeName(d->file.fileName());
    if (std::rename(from.constData(), QFile::encodeName(d->path).constData()) != 0)
        return d->fail(std::strerror(errno));
    d->file.setAutoRemove(false);
    return true;
}

} // namespace tovelmix
