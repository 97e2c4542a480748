// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_EFFECT_P_H
#define QTOVELMIXER_MIXER_IO_EFFECT_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/io/effect.h>

#include <atomic>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Effect::Data
{
    int sampleRate = 0;           // Hz
    unsigned int numChannels = 0; // interleaved channels per frame

    std::atomic<quint64> replacedSamples{0}; // of its output, written by the audio thread
};

/// The mixer's way to an effect.
struct EffectAccess
{
    /// Runs it on a block in place. Samples that are not finite then count as 0.
    static void run(Effect &effect, float *buffer, int channels,
                    int frames) noexcept QTOVELMIXER_NONBLOCKING;
};

} // namespace QTovelMixer

#endif
