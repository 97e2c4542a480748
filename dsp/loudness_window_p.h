// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_LOUDNESS_WINDOW_P_H
#define QTOVELMIXER_DSP_LOUDNESS_WINDOW_P_H

#include <vector>

namespace QTovelMixer {

/// The sum of many values. Sixteen sums side by side: one would wait for its own last addition
/// thousands of times.
double sumOf(const double *values, int count) noexcept;

/// The last three seconds of weighted energy, in blocks of about 1 ms.
///
/// A window that does not begin at a block's edge takes the proportional part of its oldest block.
class LoudnessWindow
{
public:
    explicit LoudnessWindow(int sampleRate);

    /// Frames of a block.
    int blockFrames() const noexcept { return m_blockFrames; }
    int momentaryFrames() const noexcept { return m_momentaryFrames; }
    int shortTermFrames() const noexcept { return m_shortTermFrames; }

    /// Adds the energy (sum of squares) of a whole block.
    void addBlock(double energy) noexcept;

    /// Mean square of the last `windowFrames` (one of the two above), of which the newest
    /// `openFrames` with the energy `openEnergy` belong to the block that is not whole yet.
    double meanSquare(int windowFrames, double openEnergy, int openFrames) const noexcept;

    /// -0.691 + 10 lg (mean square), BS.1770-4 Annex 1 (2); at least -120.0.
    static double loudness(double meanSquare) noexcept;
    /// The inverse of `loudness`.
    static double meanSquareOf(double loudness) noexcept;

private:
    int m_blockFrames;
    int m_momentaryFrames;
    int m_shortTermFrames;
    // Each block stands twice, a ring's length apart, so that every window is one run.
    std::vector<double> m_energies;
    int m_blocks;
    int m_next = 0;
};

} // namespace QTovelMixer

#endif
