// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_RAMP_SOURCE_H
#define QTOVELMIXER_TESTS_SUPPORT_RAMP_SOURCE_H

#include <mixer/engine.h>
#include <mixer/io/source.h>

#include <atomic>
#include <cmath>

/// Material that tells its own position: the sample of channel c at `time` is
/// time × 48000 + c / 4, that is the frame number at 48 kHz. Exact in a float below 2^22.
class RampSource : public QTovelMixer::Source
{
public:
    static constexpr double unit = 48000.0;
    static constexpr float ringSeconds = 5.0f; // no source gets less

    RampSource(QTovelMixer::Engine *engine, int rate, int channels, double seconds)
        : Source(engine, rate, channels, ringSeconds), m_seconds(seconds)
    {}
    RampSource(QTovelMixer::Engine *engine, int rate, int channels, double seconds,
               const QTovelMixer::Range &range)
        : Source(engine, rate, channels, range, ringSeconds), m_seconds(seconds)
    {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return m_seconds; }
    double pausePosition() const override { return pauseAt; }

    bool acceptPause(QTovelMixer::PauseMode) override { return acceptsPause; }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        const double rate = sampleRate();
        const double first = std::floor(time * rate + 0.5);
        for (int frame = 0; frame < frames; ++frame) {
            const double value = (first + frame) / rate * unit;
            for (int channel = 0; channel < channels; ++channel)
                buffer[frame * channels + channel] = float(value + channel * 0.25);
        }
        framesRead += frames;
        return frames;
    }

    double pauseAt = -1.0;
    std::atomic<bool> acceptsPause{true};
    std::atomic<qint64> framesRead{0};

private:
    double m_seconds;
};

#endif
