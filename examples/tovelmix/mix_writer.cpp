// SPDX-License-Identifier: MIT
#include <tovelmix/mix_writer.h>

#include <tovelmix/sound_output.h>

#include <QtCore/QFileInfo>

namespace tovelmix {

struct MixWriter::Data
{
    explicit Data(const QString &path) : output(path) {}
    bool open(int channels, int rate, qint64 expectedFrames);

    SoundOutput output;
};

bool MixWriter::Data::open(int channels, int rate, qint64 expectedFrames)
{
    const QString suffix = QFileInfo(output.path()).suffix().toLower();
    if (suffix != "flac" && suffix != "wav")
        return output.fail("the name must end in .wav or .flac");
    const bool large = expectedFrames * channels * qint64(sizeof(float)) >= SoundOutput::wavLimit;
    SF_INFO info = {};
    info.channels = channels;
    info.samplerate = rate;
    info.format = suffix == "flac" ? SF_FORMAT_FLAC | SF_FORMAT_PCM_24
                                   : (large ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | SF_FORMAT_FLOAT;
    if (!output.open(info))
        return false;
    // The chunk holds the time of day: equal mixes would be different files.
    sf_command(output.sound(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    sf_command(output.sound(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
    return true;
}

MixWriter::MixWriter(const QString &path, int channels, int rate, qint64 expectedFrames)
    : d(std::make_unique<Data>(path))
{
    d->open(channels, rate, expectedFrames);
}

MixWriter::~MixWriter() = default;

const QString &MixWriter::error() const
{
    return d->output.error();
}

bool MixWriter::write(const float *frames, qint64 count)
{
    if (!d->output.error().isEmpty())
        return false;
    SNDFILE *const sound = d->output.sound();
    return sf_writef_float(sound, frames, count) == count || d->output.fail(sf_strerror(sound));
}

bool MixWriter::commit()
{
    return d->output.commit();
}

} // namespace tovelmix
