// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_RAMP_H
#define QTOVELMIXER_TESTS_SUPPORT_RAMP_H

#include <QtCore/QString>

/// A signal whose every sample tells where it belongs: frame and channel can be read back from the
/// value, which a float holds exactly. Frames count modulo 2^15 and channels modulo 2^8, samples
/// lie in (0, 1), and neither silence nor a sample of another frame or channel passes for the right
/// one.
namespace Ramp {

inline constexpr qint64 frameCycle = qint64{1} << 15;
inline constexpr int channelCycle = 1 << 8;

/// The sample of a frame (any sign) and a channel (0 and above).
inline float sample(qint64 frame, int channel)
{
    const qint64 inCycle = ((frame % frameCycle) + frameCycle) % frameCycle;
    const qint64 code = inCycle * channelCycle + channel % channelCycle;
    return static_cast<float>(2 * code + 1) / static_cast<float>(2 * frameCycle * channelCycle);
}

/// Writes frames [first, first + frames) interleaved.
inline void fill(float *interleaved, qint64 first, qint64 frames, int channels)
{
    for (qint64 frame = 0; frame < frames; ++frame) {
        for (int channel = 0; channel < channels; ++channel)
            interleaved[frame * channels + channel] = sample(first + frame, channel);
    }
}

/// Says where interleaved samples first differ from frames [first, first + frames); empty when
/// they do not. `gain` must be a power of two, so that scaling is exact.
inline QString mismatch(const float *interleaved, qint64 first, qint64 frames, int channels,
                        float gain = 1.0f)
{
    for (qint64 frame = 0; frame < frames; ++frame) {
        for (int channel = 0; channel < channels; ++channel) {
            const float got = interleaved[frame * channels + channel];
            const float expected = gain * sample(first + frame, channel);
            if (got != expected) {
                return QStringLiteral("frame %1 channel %2: %3 instead of %4")
                    .arg(first + frame)
                    .arg(channel)
                    .arg(static_cast<double>(got), 0, 'g', 9)
                    .arg(static_cast<double>(expected), 0, 'g', 9);
            }
        }
    }
    return QString();
}

} // namespace Ramp

#endif
