// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SOAK_MATERIAL_H
#define QTOVELMIXER_TESTS_SOAK_MATERIAL_H

#include <QtCore/QtGlobal>

#include <array>
#include <cmath>
#include <vector>

/// What the sources play: of every sample it can be told which source and which frame it is.
namespace Material {

inline constexpr int mixerRate = 48000; // Hz
/// Every position is a multiple of a quarter second: whole frames at all rates, and exact in
/// seconds. Where a bound is not, reading steps over a frame or repeats one.
inline constexpr qint64 grid = mixerRate / 4;
inline constexpr qint64 length = qint64{3600} * mixerRate; // frames of the mixer

/// At the mixer's rate: source and frame (modulo 2^16), exactly, in (0, 1).
inline float ramp(int source, qint64 frame)
{
    const qint64 code = (frame & 0xffff) * 64 + source;
    return static_cast<float>(2 * code + 1) / static_cast<float>(qint64{1} << 23);
}

/// At other rates, where samples are converted: a tone of the source's own. All tones repeat ten
/// times a second, so that a table holds them.
class Tones
{
public:
    explicit Tones(int rate) : m_table(static_cast<size_t>(rate / 10))
    {
        constexpr double twoPi = 6.283185307179586;
        for (size_t i = 0; i < m_table.size(); ++i)
            m_table[i] =
                static_cast<float>(0.5 * std::sin(twoPi * double(i) / double(m_table.size())));
    }

    /// 300 Hz and more, 30 Hz from the next source's.
    static qint64 harmonic(int source) { return 30 + qint64{3} * source; }

    float sample(int source, qint64 frame) const
    {
        return m_table[static_cast<size_t>(harmonic(source) * frame % qint64(m_table.size()))];
    }

private:
    std::vector<float> m_table;
};

inline const Tones &tones(int rate)
{
    static const Tones of44100(44100);
    static const Tones of48000(48000);
    static const Tones of96000(96000);
    return rate == 44100 ? of44100 : rate == 96000 ? of96000 : of48000;
}

/// How far a converted sample may lie from the tone; to the next frame it is ten times as far.
inline constexpr float tolerance = 2e-3f;
/// Frames round a jump within which the converter still remembers, or already knows, other audio.
inline constexpr qint64 jumpFrames = 512;

inline int rateOf(int source)
{
    constexpr std::array<int, 3> rates = {48000, 44100, 96000};
    return rates[static_cast<size_t>(source % 3)];
}

} // namespace Material

#endif
