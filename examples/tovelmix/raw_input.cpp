// SPDX-License-Identifier: MIT
#include <tovelmix/raw_input.h>

#include <tovelmix/take.h>

#include <dsp/resample.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <sndfile.h>

#include <algorithm>
#include <array>

namespace tovelmix {

namespace {

// The file backend fills a block from at most two reads: a shorter file would leave gaps.
constexpr qint64 minFrames = 4096;

constexpr int chunkFrames = 4096;

struct SoundCloser
{
    void operator()(SNDFILE *sound) const { sf_close(sound); }
};
using Sound = std::unique_ptr<SNDFILE, SoundCloser>;

struct ConverterDeleter
{
    void operator()(DSPB_Resampler *resampler) const { DSPB_ResampleDestroy(resampler); }
};
using Converter = std::unique_ptr<DSPB_Resampler, ConverterDeleter>;

bool isRawName(const QString &path)
{
    static const std::array suffixes = {"raw", "pcm", "s16"};
    const QString suffix = QFileInfo(path).suffix().toLower();
    return std::any_of(suffixes.begin(), suffixes.end(),
                       [&](const char *name) { return suffix == name; });
}

/// One channel of an interleaved signal at the rate of the file backend; empty when the rates
/// cannot be converted.
std::vector<float> resampled(const std::vector<float> &interleaved, int channel, int channels,
                             int rate)
{
    const qint64 frames = qint64(interleaved.size()) / channels;
    const qint64 wanted = qint64(double(frames) * sampleRate / rate + 0.5);
    const Converter converter(DSPB_ResampleInit(rate, sampleRate, "none"));
    if (!converter)
        return {};
    std::vector<float> in(chunkFrames);
    std::vector<float> out(size_t(double(sampleRate) / rate * chunkFrames * 1.5) + 1);
    std::vector<float> result;
    result.reserve(size_t(wanted) + out.size());
    // Silence behind the end brings out what the converter holds back.
    for (qint64 first = 0; qint64(result.size()) < wanted; first += chunkFrames) {
        for (qint64 i = 0; i < chunkFrames; ++i) {
            const qint64 frame = first + i;
            in[size_t(i)] = frame < frames ? interleaved[size_t(frame * channels + channel)] : 0.0f;
        }
        const int produced = DSPB_Resample(converter.get(), in.data(), out.data(), chunkFrames);
        result.insert(result.end(), out.begin(), out.begin() + produced);
    }
    result.resize(size_t(wanted));
    return result;
}

/// The interleaved signal at the rate of the file backend; empty when the rates cannot be
/// converted.
std::vector<float> resampled(const std::vector<float> &interleaved, int channels, int rate)
{
    std::vector<float> result;
    for (int c = 0; c < channels; ++c) {
        const std::vector<float> channel = resampled(interleaved, c, channels, rate);
        result.resize(channel.size() * size_t(channels));
        for (size_t i = 0; i < channel.size(); ++i)
            result[i * size_t(channels) + size_t(c)] = channel[i];
    }
    return result;
}

} // namespace

RawInput::RawInput(const QString &path, int channels) : m_channels(channels)
{
    const QFileInfo info(path);
    QFile file(path);
    if (!info.exists())
        m_error = QString("'%1' does not exist").arg(path);
    else if (info.isDir())
        m_error = QString("'%1' is a folder").arg(path);
    else if (!file.open(QIODevice::ReadOnly))
        m_error = QString("cannot read '%1': %2").arg(path, file.errorString());
    else if (isRawName(path))
        takeRaw(path);
    else
        convert(path);
}

bool RawInput::takeRaw(const QString &path)
{
    if (m_channels == 0) {
        m_error = QString("raw input '%1' needs --channels N").arg(path);
        return false;
    }
    const qint64 bytes = QFileInfo(path).size();
    const qint64 frameBytes = m_channels * qint64(sizeof(short));
    if (bytes == 0) {
        m_error = QString("'%1' is empty").arg(path);
        return false;
    }
    if (bytes % frameBytes != 0) {
        m_error = QString("'%1' is not a whole number of frames of %2")
                      .arg(path, channelCount(m_channels));
        return false;
    }
    m_path = path;
    m_frames = bytes / frameBytes;
    m_description = QString("%1: raw, %2, %3 frames")
                        .arg(path, channelCount(m_channels), QString::number(m_frames));
    return m_frames >= minFrames || store(samples());
}

bool RawInput::convert(const QString &path)
{
    SF_INFO info = {};
    const Sound sound(sf_open(QFile::encodeName(path).constData(), SFM_READ, &info));
    // Some name endings make the reader take any file for headerless samples.
    if (!sound || (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW || info.channels < 1) {
        m_error = QString("'%1' is no audio file").arg(path);
        return false;
    }
    if (info.channels > maxChannels) {
        m_error = QString("'%1' has %2 channels, more than %3")
                      .arg(path, QString::number(info.channels), QString::number(maxChannels));
        return false;
    }
    if (m_channels != 0 && m_channels != info.channels) {
        m_error = QString("'%1' has %2, not %3")
                      .arg(path, channelCount(info.channels), QString::number(m_channels));
        return false;
    }
    m_channels = info.channels;
    std::vector<float> interleaved;
    std::vector<float> chunk(size_t(chunkFrames) * size_t(m_channels));
    while (const sf_count_t frames = sf_readf_float(sound.get(), chunk.data(), chunkFrames))
        interleaved.insert(interleaved.end(), chunk.begin(), chunk.begin() + frames * m_channels);
    if (interleaved.empty()) {
        m_error = QString("'%1' holds no samples").arg(path);
        return false;
    }
    if (info.samplerate != sampleRate)
        interleaved = resampled(interleaved, m_channels, info.samplerate);
    if (interleaved.empty()) {
        m_error = QString("'%1' has a rate of %2 Hz, which cannot be converted")
                      .arg(path, QString::number(info.samplerate));
        return false;
    }
    std::vector<short> samples(interleaved.size());
    std::transform(interleaved.begin(), interleaved.end(), samples.begin(), toSample16);
    m_frames = qint64(samples.size()) / m_channels;
    m_description = QString("%1: %2, %3 Hz, %4 frames at %5 Hz")
                        .arg(path, channelCount(m_channels), QString::number(info.samplerate),
                             QString::number(m_frames), QString::number(sampleRate));
    return store(std::move(samples));
}

bool RawInput::store(std::vector<short> samples)
{
    const std::vector<short> once = samples;
    while (qint64(samples.size()) < minFrames * m_channels)
        samples.insert(samples.end(), once.begin(), once.end());
    m_frames = qint64(samples.size()) / m_channels;
    m_converted = std::make_unique<QTemporaryFile>();
    const qint64 bytes = qint64(samples.size() * sizeof(short));
    if (!m_converted->open() ||
        m_converted->write(reinterpret_cast<const char *>(samples.data()), bytes) != bytes ||
        !m_converted->flush()) {
        m_error = QString("cannot write a temporary file: %1").arg(m_converted->errorString());
        return false;
    }
    m_path = m_converted->fileName();
    return true;
}

std::vector<short> RawInput::samples() const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    const auto *first = reinterpret_cast<const short *>(bytes.constData());
    return {first, first + size_t(bytes.size()) / sizeof(short)};
}

} // namespace tovelmix
