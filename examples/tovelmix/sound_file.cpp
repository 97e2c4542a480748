// SPDX-License-Identifier: MIT
#include <tovelmix/sound_file.h>

#include <tovelmix/take.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <sndfile.h>

#include <algorithm>

namespace tovelmix {

struct SoundFile::Data
{
    QString path;
    QString error;
    SF_INFO info = {};
    SNDFILE *sound = nullptr;
    qint64 position = 0; ///< of the next frame, −1 after an error

    QString open();
};

QString SoundFile::Data::open()
{
    const QFileInfo file(path);
    if (!file.exists())
        return "there is no such file";
    if (!file.isFile())
        return "it is not a file";
    sound = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!sound)
        return QString(sf_strerror(nullptr)).remove('\n').trimmed();
    if (info.frames < 1)
        return "it holds no audio";
    if (info.channels > maxChannels)
        return QString("it has %1 channels, more than %2").arg(info.channels).arg(maxChannels);
    if (!info.seekable)
        return "it cannot be read from any position";
    return {};
}

SoundFile::SoundFile(const QString &path) : d(std::make_unique<Data>())
{
    d->path = path;
    if (const QString reason = d->open(); !reason.isEmpty())
        d->error = QString("cannot read '%1': %2").arg(path, reason);
}

SoundFile::~SoundFile()
{
    if (d->sound)
        sf_close(d->sound);
}

const QString &SoundFile::error() const
{
    return d->error;
}

const QString &SoundFile::path() const
{
    return d->path;
}

int SoundFile::channels() const
{
    return d->info.channels;
}

int SoundFile::rate() const
{
    return d->info.samplerate;
}

qint64 SoundFile::frames() const
{
    return d->info.frames;
}

qint64 SoundFile::read(float *buffer, qint64 first, qint64 count)
{
    if (first < 0 || first >= frames())
        return 0;
    if (first != d->position && sf_seek(d->sound, first, SEEK_SET) != first) {
        d->position = -1;
        return 0;
    }
    const qint64 got = sf_readf_float(d->sound, buffer, std::min(count, frames() - first));
    d->position = first + got;
    return got;
}

} // namespace tovelmix
