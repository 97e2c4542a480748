// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_CASES_LIVE_MIXER_H
#define QTOVELMIXER_BENCH_CASES_LIVE_MIXER_H

#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <mixer/io/source.h>

#include <atomic>

namespace Bench {

/// Endless stereo noise, so that the samples are neither denormal nor predictable.
class NoiseSource : public QTovelMixer::Source
{
public:
    explicit NoiseSource(QTovelMixer::Engine *engine, int rate = 48000)
        : Source(engine, rate, 2, 5.0f)
    {}
    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        for (int i = 0; i < frames * channels; ++i) {
            m_state = m_state * 1664525u + 1013904223u;
            buffer[i] = float(qint32(m_state)) / 2147483648.0f;
        }
        return frames;
    }

private:
    quint32 m_state = 1;
};

/// An engine with workers, meters and a stereo device without hardware.
class LiveMixer
{
public:
    LiveMixer(QTovelMixerApiVirtual::Pacing pacing, unsigned frames, int sources,
              int sourceRate = 48000);
    ~LiveMixer();

    /// Until so many frames in all have been delivered.
    void waitFor(qint64 frames) const;
    qint64 delivered() const { return m_delivered.load(std::memory_order_relaxed); }

private:
    std::atomic<qint64> m_delivered{0};

public:
    QTovelMixerApiVirtual *api; ///< the engine's
    QTovelMixer::Engine engine;
};

} // namespace Bench

#endif
