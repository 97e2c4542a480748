// SPDX-License-Identifier: MIT
// Rendering faster than real time beside one thread that decodes the same files with miniaudio and
// adds them up.
#include "cases/cases.h"
#include "cases/host.h"
#include "peers/miniaudio.h"

#include <QtCore/QDataStream>
#include <QtCore/QIODevice>
#include <QtCore/QThread>

#include <algorithm>
#include <atomic>
#include <memory>

using namespace QTovelMixer;

namespace Bench {

namespace {

constexpr int tracks = 32;
constexpr unsigned blockFrames = 1024;
constexpr qint64 renderedFrames = qint64(mixerRate) * 60;

/// Ten seconds of stereo at 16 bits, as a file.
std::vector<char> makeWav()
{
    constexpr quint32 frames = mixerRate * 10;
    constexpr quint32 bytes = frames * 4;
    QByteArray file;
    QDataStream stream(&file, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream.writeRawData("RIFF", 4);
    stream << quint32(36 + bytes);
    stream.writeRawData("WAVEfmt ", 8);
    stream << quint32(16) << quint16(1) << quint16(2) << quint32(mixerRate)
           << quint32(mixerRate * 4) << quint16(4) << quint16(16);
    stream.writeRawData("data", 4);
    stream << bytes;
    for (const float sample : noise(size_t(frames) * 2, 1))
        stream << qint16(sample * 32767.0f);
    return {file.begin(), file.end()};
}

class DecodingSource : public Source
{
public:
    DecodingSource(Engine *engine, std::unique_ptr<MiniaudioDecoder> decoder)
        : Source(engine, mixerRate, 2, 5.0f), m_decoder(std::move(decoder))
    {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0e6; }
    bool acceptPause(PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int, double) override
    {
        m_decoder->read(buffer, unsigned(frames));
        return frames;
    }

private:
    const std::unique_ptr<MiniaudioDecoder> m_decoder;
};

struct Cost
{
    double wall;      ///< ns
    double processor; ///< ns
};

template <class Operation>
Cost costOf(Operation operation)
{
    const double used = processTime();
    const int64_t begin = now();
    operation();
    return {double(now() - begin), processTime() - used};
}

/// The tracks one after the other, block by block.
Cost pullDecoders(const std::vector<char> &wav)
{
    std::vector<std::unique_ptr<MiniaudioDecoder>> decoders;
    for (int i = 0; i < tracks; ++i)
        decoders.push_back(MiniaudioDecoder::create(wav));
    std::vector<float> track(blockFrames * 2);
    std::vector<float> mix(blockFrames * 2);
    return costOf([&] {
        for (qint64 frame = 0; frame < renderedFrames; frame += blockFrames) {
            std::fill(mix.begin(), mix.end(), 0.0f);
            for (const auto &decoder : decoders) {
                decoder->read(track.data(), blockFrames);
                for (size_t i = 0; i < mix.size(); ++i)
                    mix[i] += track[i] * Host::gain;
            }
            keep(mix[0]);
        }
    });
}

Cost render(const std::vector<char> &wav)
{
    std::atomic<qint64> delivered{0};
    auto *const api =
        new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::FreeWheel, blockFrames);
    api->plug({.name = QStringLiteral("bench"), .outputChannels = 2, .sampleRates = {mixerRate}});
    api->setOutputHandler(
        [&](const float *, unsigned count, unsigned, quint64) { delivered += count; });
    api->updateDeviceList();
    HostEngine engine(api);
    engine.activate();
    for (int i = 0; i < tracks; ++i)
        engine.addSource(new DecodingSource(&engine, MiniaudioDecoder::create(wav)), Host::gain);
    const Cost cost = costOf([&] {
        engine.start(0.0);
        while (delivered < renderedFrames)
            QThread::usleep(500);
    });
    engine.deactivate(UserStopAction);
    return cost;
}

std::vector<Figure> offline()
{
    const std::vector<char> wav = makeWav();
    if (!MiniaudioDecoder::create(wav))
        return {};
    Engine::Initialize();
    std::vector<double> wall;
    std::vector<double> processor;
    for (int i = 0; i < 3; ++i) {
        const Cost theirs = pullDecoders(wav);
        const Cost ours = render(wav);
        wall.push_back(ours.wall / theirs.wall);
        processor.push_back(ours.processor / theirs.processor);
    }
    const QString section = QStringLiteral("I. A host");
    const QString name = QStringLiteral("offline, 32 tracks, beside one thread that pulls "
                                        "miniaudio's decoders: ");
    const QString unit = QStringLiteral("× its time");
    return {{section, name + QStringLiteral("wall"), median(wall), unit, 1.0},
            {section, name + QStringLiteral("processor"), median(processor), unit, 1.2}};
}

} // namespace

void addOfflineFigures(Suite &suite)
{
    suite.addFigures(QStringLiteral("I. A host"), offline);
}

} // namespace Bench
