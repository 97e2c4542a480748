// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_LOUDNESS_GATE_P_H
#define QTOVELMIXER_DSP_LOUDNESS_GATE_P_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QTovelMixer {

/// How many values lie in each of many narrow steps of loudness, from the absolute gate of -70 LUFS
/// to +30 LUFS. What is louder still counts in the highest step.
class LoudnessHistogram
{
public:
    /// `width` of a step in LU.
    explicit LoudnessHistogram(double width);

    /// Counts a mean square above the absolute gate; leaves out what is not.
    void add(double meanSquare) noexcept;
    void clear() noexcept;

    uint64_t count() const noexcept { return m_count; }
    /// Of all values counted.
    double meanSquare() const noexcept;
    /// Of the values above a threshold, itself a mean square; 0 without any. The step in which the
    /// threshold lies counts as a whole, when its own mean is above.
    double meanSquareAbove(double threshold) const noexcept;

    struct Percentiles
    {
        double low = 0.0;  ///< LUFS
        double high = 0.0; ///< LUFS
        uint64_t count = 0;
    };
    /// What the 10th and 95th percent of the values above a threshold do not exceed, off by half a
    /// step at most.
    Percentiles percentilesAbove(double threshold) const noexcept;

private:
    size_t stepOf(double meanSquare) const noexcept;
    size_t firstStepAbove(double threshold) const noexcept;
    double loudnessOf(size_t step) const noexcept;

    double m_width;
    std::vector<double> m_sums;     // of mean squares
    std::vector<uint32_t> m_counts; // 24 h at 10 a second are 864 000
    uint64_t m_count = 0;
    // The steps in use, half-open.
    size_t m_first = 0;
    size_t m_end = 0;
};

/// Integrated loudness (ITU-R BS.1770-5 Annex 1, EBU R 128) and loudness range (EBU Tech 3342) in
/// constant memory, about 350 KiB.
///
/// Error: the relative gate of the integrated loudness stands within 0.01 LU of its place, which
/// changes the result only by what lies in that hundredth; the range is off by 0.005 LU at most.
class LoudnessGate
{
public:
    LoudnessGate();

    /// The mean square of a gating block: 400 ms, one every 100 ms.
    void addBlock(double meanSquare) noexcept { m_blocks.add(meanSquare); }
    /// The mean square of a short-term window: 3 s, one every 100 ms.
    void addShortTerm(double meanSquare) noexcept { m_shortTerm.add(meanSquare); }
    void clear() noexcept;

    /// LUFS; -120.0 without a block above the absolute gate.
    double integrated() const noexcept;
    /// The relative threshold of the integrated loudness, 10 LU below the mean of what passes the
    /// absolute gate (BS.1770-5 Annex 1). LUFS; -120.0 without a block.
    double relativeThreshold() const noexcept;

    struct Range
    {
        double low = -120.0;  ///< LUFS, the 10th percentile
        double high = -120.0; ///< LUFS, the 95th percentile
        double range = 0.0;   ///< LU
    };
    /// Between the percentiles of the short-term values less than 20 LU below the mean of those
    /// that pass the absolute gate (Tech 3342, 3.1).
    Range range() const noexcept;

private:
    LoudnessHistogram m_blocks;
    LoudnessHistogram m_shortTerm;
};

} // namespace QTovelMixer

#endif
