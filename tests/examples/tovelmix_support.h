// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_EXAMPLES_TOVELMIX_SUPPORT_H
#define QTOVELMIXER_TESTS_EXAMPLES_TOVELMIX_SUPPORT_H

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <sndfile.h>

#include <vector>

inline constexpr int timeoutMs = 60000;

struct Run
{
    int status = -1;
    QString output;
    QString errors;

    bool complainedOnce() const
    {
        return errors.startsWith("tovelmix: ") && errors.endsWith('\n') && errors.count('\n') == 1;
    }
};

/// The errors without what the database below JACK says about its state, which all clients share.
inline QString ownErrors(const QByteArray &errors)
{
    QByteArray own;
    for (const QByteArray &line : errors.split('\n')) {
        if (!line.startsWith("BDB"))
            own += line + '\n';
    }
    own.chop(1);
    return own;
}

inline Run finish(QProcess &process)
{
    if (!process.waitForFinished(timeoutMs))
        return {};
    Run run;
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.output = process.readAllStandardOutput();
    run.errors = ownErrors(process.readAllStandardError());
    return run;
}

inline Run tovelmix(const QStringList &arguments)
{
    QProcess process;
    process.start(TOVELMIX, arguments);
    return finish(process);
}

/// Distinct samples at every position, so that a lost or doubled frame shows.
inline std::vector<short> counting(int count)
{
    std::vector<short> samples(static_cast<size_t>(count));
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = short(i * 7919 % 65536 - 32768);
    return samples;
}

inline bool writeRaw(const QString &path, const std::vector<short> &samples)
{
    QFile file(path);
    const auto bytes = qint64(samples.size() * sizeof(short));
    return file.open(QIODevice::WriteOnly) &&
           file.write(reinterpret_cast<const char *>(samples.data()), bytes) == bytes;
}

inline bool writeSound(const QString &path, int format, int rate, int channels,
                       const std::vector<short> &samples)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *sound = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!sound)
        return false;
    sf_command(sound, SFC_SET_SCALE_INT_FLOAT_WRITE, nullptr, SF_TRUE);
    const auto count = sf_count_t(samples.size());
    const bool written = sf_write_short(sound, samples.data(), count) == count;
    return sf_close(sound) == 0 && written;
}

struct Sound
{
    SF_INFO info = {};
    std::vector<short> samples;
};

inline Sound readSound(const QString &path)
{
    Sound result;
    if (SNDFILE *sound = sf_open(QFile::encodeName(path).constData(), SFM_READ, &result.info)) {
        result.samples.resize(size_t(result.info.frames * result.info.channels));
        sf_read_short(sound, result.samples.data(), sf_count_t(result.samples.size()));
        sf_close(sound);
    }
    return result;
}

#endif
