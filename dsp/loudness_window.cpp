// SPDX-License-Identifier: MIT
#include <dsp/loudness_window_p.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

constexpr double silence = -120.0;

/// Four sums side by side: one would wait for its own last addition 3000 times.
double sum(const double *values, int count)
{
    double a = 0.0;
    double b = 0.0;
    double c = 0.0;
    double d = 0.0;
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        a += values[i];
        b += values[i + 1];
        c += values[i + 2];
        d += values[i + 3];
    }
    for (; i < count; ++i)
        a += values[i];
    return (a + b) + (c + d);
}

} // namespace

LoudnessWindow::LoudnessWindow(int sampleRate) : m_blockFrames(std::max(1, sampleRate / 1000))
{
    const int tenth = std::max(1, (sampleRate + 5) / 10);
    m_momentaryFrames = 4 * tenth;
    m_shortTermFrames = 30 * tenth;
    m_blocks = m_shortTermFrames / m_blockFrames + 2;
    m_energies.resize(2 * size_t(m_blocks));
}

void LoudnessWindow::addBlock(double energy) noexcept
{
    m_energies[size_t(m_next)] = energy;
    m_energies[size_t(m_next + m_blocks)] = energy;
    m_next = m_next + 1 == m_blocks ? 0 : m_next + 1;
}

double LoudnessWindow::meanSquare(int windowFrames, double openEnergy,
                                  int openFrames) const noexcept
{
    const int closedFrames = windowFrames - openFrames;
    const int whole = closedFrames / m_blockFrames;
    const double part = double(closedFrames % m_blockFrames) / m_blockFrames;
    const double *end = m_energies.data() + m_next + m_blocks;
    const double energy = openEnergy + sum(end - whole, whole) + part * end[-whole - 1];
    return energy / windowFrames;
}

double LoudnessWindow::loudness(double meanSquare) noexcept
{
    return meanSquare > 0.0 ? std::max(silence, -0.691 + 10.0 * std::log10(meanSquare)) : silence;
}

} // namespace QTovelMixer
