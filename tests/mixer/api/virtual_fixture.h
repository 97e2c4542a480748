// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_VIRTUAL_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_API_VIRTUAL_FIXTURE_H

#include <base/trace_p.h>
#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <support/rtguard.h>

#include <QtCore/QMutex>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>

#include <atomic>
#include <cmath>
#include <vector>

/// Frame `frame` of channel `channel` of a source with this seed: a value that no other frame
/// nearby has, and never 0.
inline float noiseSample(unsigned seed, qint64 frame, int channel)
{
    quint32 x =
        quint32(frame) * 2654435761u ^ seed * 2246822519u ^ quint32(channel + 1) * 3266489917u;
    x ^= x >> 15;
    x *= 2246822519u;
    x ^= x >> 13;
    return (float(x >> 8) + 1.0f) / 33554432.0f - 0.25f + 0.5f / 33554432.0f;
}

/// Material of `noiseSample`, with a host that may dawdle.
class NoiseSource : public QTovelMixer::Source
{
public:
    NoiseSource(QTovelMixer::Engine *engine, int rate, int channels, qint64 frames, unsigned seed)
        : Source(engine, rate, channels, 5.0f), m_frames(frames), m_seed(seed)
    {}
    ~NoiseSource() override
    {
        stop(QTovelMixer::NoReason);
        wait();
    }

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return double(m_frames) / sampleRate(); }
    double pausePosition() const override { return pauseAt; }
    bool acceptPause(QTovelMixer::PauseMode mode) override
    {
        return mode == QTovelMixer::PauseSoft;
    }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        // Slow hosts are the subject here.
        if (dawdle > 0 && m_reads++ % 3 == 2)
            QThread::msleep(static_cast<unsigned long>(dawdle));
        const qint64 first = std::llround(time * sampleRate());
        for (int frame = 0; frame < frames; ++frame) {
            for (int channel = 0; channel < channels; ++channel)
                *buffer++ = noiseSample(m_seed, first + frame, channel);
        }
        return frames;
    }

    double pauseAt = -1.0;
    int dawdle = 0; ///< ms, in every third read

private:
    qint64 m_frames;
    unsigned m_seed;
    int m_reads = 0;
};

/// Keeps what it is handed, with a host that may dawdle.
class KeepingSink : public QTovelMixer::Sink
{
public:
    KeepingSink(QTovelMixer::Engine *engine, int rate, int channels)
        : Sink(engine, 5.0f), m_rate(rate), m_channels(channels)
    {}
    ~KeepingSink() override
    {
        stop(QTovelMixer::NoReason);
        wait();
    }

    int numChannels() const override { return m_channels; }
    int sampleRate() const override { return m_rate; }
    void writeSamples(float *buffer, int frames, int channels, double) override
    {
        if (dawdle > 0)
            QThread::msleep(static_cast<unsigned long>(dawdle));
        const QMutexLocker lock(&m_mutex);
        m_samples.insert(m_samples.end(), buffer, buffer + qint64(frames) * channels);
        keptFrames += frames;
    }
    std::vector<float> samples() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_samples;
    }

    std::atomic<qint64> keptFrames{0};
    int dawdle = 0; ///< ms, in every write

private:
    int m_rate;
    int m_channels;
    mutable QMutex m_mutex;
    std::vector<float> m_samples;
};

/// An engine on a virtual device "Speaker", whose output is kept up to `wanted` frames.
class VirtualSession
{
    /// Lines that blocks have left behind are out before the test is over.
    struct TraceEnd
    {
        ~TraceEnd() { QTovelMixer::flushTrace(); }
    };

    TraceEnd m_traceEnd; // goes after the engine

public:
    using VirtualApi = QTovelMixerApiVirtual;

    explicit VirtualSession(VirtualApi::Pacing pacing, qint64 wantedFrames, unsigned outputs = 2,
                            unsigned inputs = 0, unsigned rate = 48000, unsigned block = 256)
        : wanted(wantedFrames), api(new VirtualApi(pacing, block)), engine(api)
    {
        kept.reserve(size_t(wanted * outputs));
        api->plug({.name = "Speaker",
                   .inputChannels = inputs,
                   .outputChannels = outputs,
                   .sampleRates = {rate},
                   .preferedSampleRate = rate});
        api->setOutputHandler([this](const float *samples, unsigned frames, unsigned width,
                                     quint64) { keep(samples, frames, width); });
        api->updateDeviceList();
        engine.activate();
    }

    NoiseSource *add(int rate, int sourceChannels, qint64 frames, unsigned seed)
    {
        auto *source = new NoiseSource(&engine, rate, sourceChannels, frames, seed);
        if (!engine.addSource(source)) {
            delete source;
            return nullptr;
        }
        return source;
    }

    /// Waits for the wanted frames.
    bool finish(int milliseconds = 60000) { return done.tryAcquire(1, milliseconds); }

    // The audio thread uses these until the engine is gone.
    const qint64 wanted;
    std::vector<float> kept; ///< complete after `finish`
    QSemaphore done;

private:
    qint64 m_keptFrames = 0;

public:
    VirtualApi *api;
    QTovelMixer::Engine engine;

private:
    // Real-time streams run before the transport does: what is wanted begins with the first sound.
    void keep(const float *samples, unsigned frames, unsigned width)
    {
        if (m_keptFrames == wanted)
            return;
        unsigned first = 0;
        while (m_keptFrames == 0 && first < frames && samples[size_t(first) * width] == 0.0f)
            ++first;
        const qint64 some = std::min<qint64>(frames - first, wanted - m_keptFrames);
        kept.insert(kept.end(), samples + size_t(first) * width,
                    samples + (first + size_t(some)) * width);
        m_keptFrames += some;
        if (m_keptFrames == wanted) {
            const RealtimeGuardExemption wakesTheTest;
            done.release();
        }
    }
};

#endif
