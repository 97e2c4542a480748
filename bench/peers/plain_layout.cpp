// SPDX-License-Identifier: MIT
#include "peers/plain.h"

#include <algorithm>
#include <cmath>

namespace Bench::Plain {

void split(const float *in, float *const *out, int channels, int frames, float gain)
{
    for (int c = 0; c < channels; ++c) {
        float *const to = out[c];
        for (int i = 0; i < frames; ++i)
            to[i] = in[i * channels + c] * gain;
    }
}

void split(const float *in, float *const *out, int channels, int frames)
{
    for (int c = 0; c < channels; ++c) {
        float *const to = out[c];
        for (int i = 0; i < frames; ++i)
            to[i] = in[i * channels + c];
    }
}

void merge(const float *const *in, float *out, int channels, int frames)
{
    for (int c = 0; c < channels; ++c) {
        const float *const from = in[c];
        for (int i = 0; i < frames; ++i)
            out[i * channels + c] = from[i];
    }
}

void toShort(const float *in, short *out, int count)
{
    for (int i = 0; i < count; ++i) {
        const float nearest = std::nearbyintf(in[i] * 32768.0f);
        out[i] = short(std::clamp(nearest, -32768.0f, 32767.0f));
    }
}

void toFloat(const short *in, float *out, int count)
{
    for (int i = 0; i < count; ++i)
        out[i] = float(in[i]) / 32768.0f;
}

} // namespace Bench::Plain
