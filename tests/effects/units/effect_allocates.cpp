// SPDX-License-Identifier: MIT
#include <mixer/io/effect.h>

#include <vector>

class Collector : public QTovelMixer::Effect
{
public:
    using Effect::Effect;
    int processBuffers(const float *input, float *, int, int) override
    {
        collected.push_back(*input);
        return 1;
    }

    std::vector<float> collected;
};
