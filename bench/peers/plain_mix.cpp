// SPDX-License-Identifier: MIT
#include "peers/plain.h"

namespace Bench::Plain {

void mix(Cells gain, Cells enable, const float *const *in, int rows, float *const *out, int columns,
         int frames)
{
    for (int k = 0; k < columns; ++k) {
        float *__restrict to = out[k];
        for (int i = 0; i < frames; ++i)
            to[i] = 0.0f;
        for (int j = 0; j < rows; ++j) {
            const float g = gain[j][k] * enable[j][k];
            if (g == 0.0f)
                continue;
            const float *__restrict from = in[j];
            for (int i = 0; i < frames; ++i)
                to[i] += g * from[i];
        }
    }
}

void scale(float *x, float gain, int count)
{
    for (int i = 0; i < count; ++i)
        x[i] *= gain;
}

} // namespace Bench::Plain
