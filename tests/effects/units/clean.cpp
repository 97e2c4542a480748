// SPDX-License-Identifier: MIT
#include <mixer/engine.h>
#include <mixer/io/effect.h>
#include <mixer/io/sink.h>

class Halve : public QTovelMixer::Effect
{
public:
    using Effect::Effect;
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        for (int i = 0; i < channels * frames; ++i)
            output[i] = 0.5f * input[i];
        return 1;
    }
};

int block(QTovelMixer::Engine &engine, QTovelMixer::aligned_vector<float, 16> &in,
          QTovelMixer::aligned_vector<float, 16> &out) noexcept QTOVELMIXER_NONBLOCKING
{
    return engine.isPaused() ? 0 : engine.mixerCallback(in, out, 256, 0.0, 0);
}
