// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_MIXER_NOISE_SOURCE_H
#define QTOVELMIXER_BENCH_MIXER_NOISE_SOURCE_H

#include <mixer/io/source.h>

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

#endif
