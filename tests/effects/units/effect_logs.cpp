// SPDX-License-Identifier: MIT
#include <mixer/io/effect.h>

class Talker : public QTovelMixer::Effect
{
public:
    using Effect::Effect;
    int processBuffers(const float *, float *, int, int) override
    {
        qWarning("a block");
        return 1;
    }
};
