// SPDX-License-Identifier: MIT
#include <tovelmix/verify.h>

#include <tovelmix/take.h>

#include <QtCore/QFile>

#include <sndfile.h>

namespace tovelmix {

namespace {

struct TakeReader
{
    SF_INFO info = {};
    SNDFILE *sound = nullptr;

    explicit TakeReader(const QString &path)
        : sound(sf_open(QFile::encodeName(path).constData(), SFM_READ, &info))
    {}
    ~TakeReader()
    {
        if (sound)
            sf_close(sound);
    }
    Q_DISABLE_COPY_MOVE(TakeReader)

    bool isPcm16() const { return (info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16; }
};

} // namespace

Verdict verify(const RawInput &input, const QString &takePath)
{
    TakeReader take(takePath);
    if (!take.sound)
        return {.error =
                    QString("cannot read the take '%1': %2").arg(takePath, sf_strerror(nullptr))};
    if (!take.isPcm16() || take.info.samplerate != sampleRate ||
        take.info.channels != input.channels()) {
        return {.text =
                    QString("different form: the take has %1 at %2 Hz, not %3 of 16 bit at %4 Hz")
                        .arg(channelCount(take.info.channels))
                        .arg(take.info.samplerate)
                        .arg(channelCount(input.channels()))
                        .arg(sampleRate)};
    }
    const std::vector<short> expected = input.samples();
    const int channels = input.channels();
    std::vector<short> chunk(4096 * size_t(channels));
    qint64 sample = 0;
    while (const sf_count_t frames = sf_readf_short(take.sound, chunk.data(), 4096)) {
        for (qint64 i = 0; i < frames * channels; ++i, ++sample) {
            const short wanted = expected[size_t(sample) % expected.size()];
            if (chunk[size_t(i)] == wanted)
                continue;
            return {.text =
                        QString("different at frame %1, channel %2: the take has %3, the input %4")
                            .arg(sample / channels)
                            .arg(sample % channels + 1)
                            .arg(chunk[size_t(i)])
                            .arg(wanted)};
        }
    }
    if (sample == 0)
        return {.text = "different: the take is empty"};
    return {.equal = true,
            .text = QString("equal: %1 frames of %2 match the looped input to the sample")
                        .arg(sample / channels)
                        .arg(channelCount(channels))};
}

} // namespace tovelmix
