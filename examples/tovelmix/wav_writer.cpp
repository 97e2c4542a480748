// SPDX-License-Identifier: MIT
#include <tovelmix/wav_writer.h>

#include <tovelmix/sound_output.h>
#include <tovelmix/take.h>

#include <vector>

namespace tovelmix {

struct WavWriter::Data
{
    Data(const QString &path, int count) : output(path), channels(count) {}

    SoundOutput output;
    int channels;
    std::vector<short> samples;
};

WavWriter::WavWriter(const QString &path, int channels, int rate, qint64 expectedFrames)
    : d(std::make_unique<Data>(path, channels))
{
    const bool large = expectedFrames * channels * qint64(sizeof(short)) >= SoundOutput::wavLimit;
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = (large ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | SF_FORMAT_PCM_16;
    if (d->output.open(info) && large)
        sf_command(d->output.sound(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
}

WavWriter::~WavWriter() = default;

QString WavWriter::error() const
{
    return d->output.error();
}

bool WavWriter::write(const float *frames, qint64 count)
{
    if (!d->output.error().isEmpty())
        return false;
    d->samples.resize(size_t(count * d->channels));
    for (size_t i = 0; i < d->samples.size(); ++i)
        d->samples[i] = toSample16(frames[i]);
    SNDFILE *const sound = d->output.sound();
    return sf_writef_short(sound, d->samples.data(), count) == count ||
           d->output.fail(sf_strerror(sound));
}

bool WavWriter::commit()
{
    return d->output.commit();
}

} // namespace tovelmix
