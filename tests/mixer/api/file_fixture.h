// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_FILE_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_API_FILE_FIXTURE_H

#include <mixer/api/api_file.h>
#include <mixer/api/file_device.h>
#include <mixer/engine_p.h>
#include <mixer/io/effect.h>
#include <support/log_capture.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

inline constexpr int blockSamples = 1024 * 2;
inline constexpr int blockBytes = blockSamples * 2;

/// Stands on the device's input: keeps what the backend has read, and may put something else in
/// its place.
class Probe : public QTovelMixer::Effect
{
public:
    Probe() : Effect(44100, 2) {}

    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        const size_t count = size_t(channels) * size_t(frames);
        if (m_blocks < int(m_ends.size()) && m_kept + count <= m_samples.size()) {
            std::copy_n(input, count, m_samples.data() + m_kept);
            m_kept += count;
            m_ends[size_t(m_blocks++)] = m_kept;
        }
        std::copy_n(m_replacement.data(), m_replaced, output);
        return 1;
    }

    /// The first blocks, as many as there is room for.
    QList<QList<float>> blocks() const
    {
        QList<QList<float>> all;
        size_t begin = 0;
        for (int i = 0; i < m_blocks; ++i) {
            const size_t end = m_ends[size_t(i)];
            all.append(QList<float>(m_samples.data() + begin, m_samples.data() + end));
            begin = end;
        }
        return all;
    }

    void setReplacement(const QList<float> &samples)
    {
        m_replacement.assign(samples.begin(), samples.end());
        m_replaced = m_replacement.size();
    }

private:
    std::vector<float> m_samples = std::vector<float>(16 * 8192);
    std::array<size_t, 16> m_ends{};
    size_t m_kept = 0;
    int m_blocks = 0;
    std::vector<float> m_replacement;
    size_t m_replaced = 0;
};

/// An engine with two inputs, heard one to one on as many outputs.
class Desk : public QTovelMixer::Engine
{
public:
    explicit Desk(unsigned outputs = 0) : Engine(nullptr)
    {
        constexpr unsigned frames = 4096;
        Data &data = QTovelMixer::EngineAccess::shipped(*this);
        data.numInputChannels = 2;
        data.numOutputChannels = outputs;
        data.inputBuses = Data::makeBuses(2, frames);
        data.outputBuses = Data::makeBuses(outputs, frames);
        for (unsigned channel = 0; channel < outputs; ++channel)
            data.matrix.setCell(channel, channel, 1.0f);
        data.planMix();
        data.inputEffect = &probe;
    }
    ~Desk() override { QTovelMixer::EngineAccess::shipped(*this).inputEffect = nullptr; }

    Probe probe;
};

/// The file backend with an output file that can be played to.
class DuplexApi : public QTovelMixerApiFile
{
public:
    DuplexApi(const QString &inputPath, const QString &outputPath)
        : QTovelMixerApiFile(inputPath, 2, outputPath, 2, 44100, "Duplex"),
          input(new QTovelMixerFileDevice(this, QTovelMixer::DeviceKind::Input, inputPath, 44100, 2,
                                          0)),
          output(new QTovelMixerFileDevice(this, QTovelMixer::DeviceKind::Output, outputPath, 44100,
                                           2, 0))
    {
        const LogCapture log;
        beginDeviceUpdate();
        addDevice(input);
        addDevice(output);
        endDeviceUpdate();
    }

    QTovelMixerFileDevice *input;
    QTovelMixerFileDevice *output;
};

inline QByteArray bytesOf(const QList<qint16> &samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.constData()),
                      samples.size() * qsizetype(sizeof(qint16)));
}

inline QList<qint16> samplesOf(const QByteArray &bytes)
{
    QList<qint16> samples(bytes.size() / qsizetype(sizeof(qint16)));
    std::memcpy(samples.data(), bytes.constData(), size_t(samples.size()) * sizeof(qint16));
    return samples;
}

inline void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), bytes.size());
}

inline QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// 1, 2, 3 …
inline QList<qint16> counting(int count)
{
    QList<qint16> samples;
    for (int i = 1; i <= count; ++i)
        samples.append(qint16(i));
    return samples;
}

/// Two paths in a directory that goes with them.
struct FilePair
{
    QTemporaryDir directory;
    QString in = directory.filePath("in.raw");
    QString out = directory.filePath("out.raw");
};

#endif
