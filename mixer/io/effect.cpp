// SPDX-License-Identifier: MIT
#include <mixer/io/effect_p.h>

#include <base/debug.h>
#include <base/nonblocking_p.h>
#include <dsp/kernels_p.h>

namespace QTovelMixer {

void EffectAccess::run(Effect &effect, float *buffer, int channels, int frames) noexcept
{
    effect.process(buffer, channels, frames);
    if (channels < 1 || frames < 1)
        return;
    const quint64 replaced =
        Kernels::replaceNotFinite(buffer, static_cast<size_t>(channels) * size_t(frames));
    if (replaced == 0) [[likely]]
        return;
    if (effect.d->replacedSamples.fetch_add(replaced, std::memory_order_relaxed) > 0)
        return;
    // Inside a callback it goes the way of trace lines.
    assumeNonblocking([&effect] {
        BLDEBUG_Error(-1, "QTovelMixer::Effect: Samples that are not finite count as 0 (%p)!!",
                      static_cast<void *>(&effect));
    });
}

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

quint64 Effect::replacedSamples() const
{
    return d->replacedSamples.load(std::memory_order_relaxed);
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
