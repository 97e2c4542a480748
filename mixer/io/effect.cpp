// SPDX-License-Identifier: MIT
#include <mixer/io/effect.h>

#include <base/hidden_p.h>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Effect::Data
{
    int sampleRate = 0;           // Hz
    unsigned int numChannels = 0; // interleaved channels per frame
};

Effect::Effect(int sampleRate, unsigned int numChannels) : d(new Data{sampleRate, numChannels}) {}

Effect::~Effect() = default;

QString Effect::name() const
{
    return objectName();
}

int Effect::process(float *buffer, int channels, int frames)
{
    return buffer ? processBuffers(buffer, buffer, channels, frames) : 0;
}

void Effect::reset() {}

int Effect::tailSize() const
{
    return 0;
}

void Effect::onReplaced() {}

unsigned int Effect::numChannels() const
{
    return d->numChannels;
}

int Effect::sampleRate() const
{
    return d->sampleRate;
}

} // namespace QTovelMixer
