// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_MIXER_NOISE_SOURCE_H
#define QTOVELMIXER_BENCH_MIXER_NOISE_SOURCE_H

#include <mixer/io/source.h>

#include <algorithm>
#include <vector>

/// Endless stereo noise out of memory, as a host plays a clip: the samples are neither denormal nor
/// predictable.
class NoiseSource : public QTovelMixer::Source
{
public:
    explicit NoiseSource(QTovelMixer::Engine *engine, int rate = 48000)
        : Source(engine, rate, 2, 5.0f), m_clip(clipFrames * 2)
    {
        quint32 state = 1;
        for (float &sample : m_clip) {
            state = state * 1664525u + 1013904223u;
            sample = float(qint32(state)) / 2147483648.0f;
        }
    }
    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        const int count = std::min(frames, clipFrames - m_frame);
        std::copy_n(m_clip.data() + m_frame * 2, count * channels, buffer);
        m_frame = (m_frame + count) % clipFrames;
        return count;
    }

private:
    static constexpr int clipFrames = 16384;
    std::vector<float> m_clip;
    int m_frame = 0;
};

#endif
