// SPDX-License-Identifier: MIT
#include <tovelmix/wav_writer.h>

#include <tovelmix/take.h>

#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryFile>

#include <sndfile.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace tovelmix {

namespace {

constexpr qint64 wavLimit = 0xffffffffLL - 4096; // headers included, the 32-bit sizes must hold

} // namespace

struct WavWriter::Data
{
    QString path;
    int channels = 0;
    QTemporaryFile file; ///< removes itself unless it got the take's name
    SNDFILE *sound = nullptr;
    std::vector<short> samples;
    QString error;

    bool fail(const QString &reason)
    {
        if (error.isEmpty())
            error = QString("cannot write '%1': %2").arg(path, reason);
        return false;
    }
};

WavWriter::WavWriter(const QString &path, int channels, int rate, qint64 expectedFrames)
    : d(std::make_unique<Data>())
{
    d->path = path;
    d->channels = channels;
    if (QFileInfo(path).isDir()) {
        d->fail("it is a folder");
        return;
    }
    d->file.setFileTemplate(path + ".XXXXXX.part");
    if (!d->file.open()) {
        d->fail(d->file.errorString());
        return;
    }
    const qint64 bytes = expectedFrames * channels * qint64(sizeof(short));
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = (bytes < wavLimit ? SF_FORMAT_WAV : SF_FORMAT_RF64) | SF_FORMAT_PCM_16;
    d->sound = sf_open_fd(d->file.handle(), SFM_WRITE, &info, SF_FALSE);
    if (!d->sound)
        d->fail(sf_strerror(nullptr));
    else if (bytes >= wavLimit)
        sf_command(d->sound, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
}

WavWriter::~WavWriter()
{
    if (d->sound)
        sf_close(d->sound);
}

QString WavWriter::error() const
{
    return d->error;
}

bool WavWriter::write(const float *frames, qint64 count)
{
    if (!d->error.isEmpty())
        return false;
    d->samples.resize(size_t(count * d->channels));
    for (size_t i = 0; i < d->samples.size(); ++i)
        d->samples[i] = toSample16(frames[i]);
    if (sf_writef_short(d->sound, d->samples.data(), count) != count)
        return d->fail(sf_strerror(d->sound));
    return true;
}

bool WavWriter::commit()
{
    if (!d->error.isEmpty())
        return false;
    SNDFILE *const sound = std::exchange(d->sound, nullptr);
    if (const int status = sf_close(sound))
        return d->fail(sf_error_number(status));
    // The name must not reach the disk before the samples do.
    if (fsync(d->file.handle()) != 0)
        return d->fail(std::strerror(errno));
    // Readable for those whom the user's mask allows, as a file written in place would be.
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
