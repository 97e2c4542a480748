// SPDX-License-Identifier: MIT
#include <dsp/loudness_window_p.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

constexpr double silence = -120.0;

} // namespace

double sumOf(const double *values, int count) noexcept
{
    constexpr int width = 16;
    double sums[width] = {};
    int i = 0;
    for (; i + width <= count; i += width) {
        for (int k = 0; k < width; ++k)
            sums[k] += values[i + k];
    }
    double total = 0.0;
    for (; i < count; ++i)
        total += values[i];
    for (const double part : sums)
        total += part;
    return total;
}

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
    const double energy = openEnergy + sumOf(end - whole, whole) + part * end[-whole - 1];
    return energy / windowFrames;
}

double LoudnessWindow::loudness(double meanSquare) noexcept
{
    return meanSquare > 0.0 ? std::max(silence, -0.691 + 10.0 * std::log10(meanSquare)) : silence;
}

double LoudnessWindow::meanSquareOf(double loudness) noexcept
{
    return std::pow(10.0, (loudness + 0.691) / 10.0);
}

} // namespace QTovelMixer
