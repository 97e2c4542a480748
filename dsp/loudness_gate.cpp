// SPDX-License-Identifier: MIT
#include <dsp/loudness_gate_p.h>

#include <dsp/loudness_window_p.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

constexpr double absoluteGate = -70.0; // LUFS
constexpr double top = 30.0;           // LUFS
constexpr double blockStep = 0.01;     // LU
constexpr double rangeStep = 0.005;    // LU

constexpr double tenBelow = 0.1;     // -10 LU of a mean square
constexpr double twentyBelow = 0.01; // -20 LU

const double absoluteThreshold = LoudnessWindow::meanSquareOf(absoluteGate);

} // namespace

LoudnessHistogram::LoudnessHistogram(double width)
    : m_width(width), m_sums(size_t(std::lround((top - absoluteGate) / width))),
      m_counts(m_sums.size())
{}

size_t LoudnessHistogram::stepOf(double meanSquare) const noexcept
{
    const double above = (LoudnessWindow::loudness(meanSquare) - absoluteGate) / m_width;
    return size_t(std::clamp(above, 0.0, double(m_sums.size() - 1)));
}

double LoudnessHistogram::loudnessOf(size_t step) const noexcept
{
    return absoluteGate + (double(step) + 0.5) * m_width;
}

void LoudnessHistogram::add(double meanSquare) noexcept
{
    if (!(meanSquare > absoluteThreshold))
        return;
    const size_t step = stepOf(meanSquare);
    m_sums[step] += meanSquare;
    ++m_counts[step];
    m_first = m_count == 0 ? step : std::min(m_first, step);
    m_end = std::max(m_end, step + 1);
    ++m_count;
}

void LoudnessHistogram::clear() noexcept
{
    std::fill(m_sums.begin(), m_sums.end(), 0.0);
    std::fill(m_counts.begin(), m_counts.end(), 0U);
    m_count = 0;
    m_first = m_end = 0;
}

double LoudnessHistogram::meanSquare() const noexcept
{
    return m_count == 0 ? 0.0
                        : sumOf(m_sums.data() + m_first, int(m_end - m_first)) / double(m_count);
}

size_t LoudnessHistogram::firstStepAbove(double threshold) const noexcept
{
    if (threshold <= absoluteThreshold)
        return m_first;
    const size_t step = stepOf(threshold);
    const bool above = m_counts[step] > 0 && m_sums[step] / m_counts[step] > threshold;
    return std::max(m_first, above ? step : step + 1);
}

double LoudnessHistogram::meanSquareAbove(double threshold) const noexcept
{
    const size_t first = firstStepAbove(threshold);
    double sum = 0.0;
    uint64_t count = 0;
    for (size_t step = first; step < m_end; ++step) {
        sum += m_sums[step];
        count += m_counts[step];
    }
    return count == 0 ? 0.0 : sum / double(count);
}

LoudnessHistogram::Percentiles LoudnessHistogram::percentilesAbove(double threshold) const noexcept
{
    Percentiles result;
    const size_t first = firstStepAbove(threshold);
    for (size_t step = first; step < m_end; ++step)
        result.count += m_counts[step];
    if (result.count == 0)
        return result;
    // Tech 3342, 5: the nearest of the sorted values, counted from 0.
    const auto place = [&](double part) {
        return uint64_t(std::llround(double(result.count - 1) * part));
    };
    const uint64_t low = place(0.10);
    const uint64_t high = place(0.95);
    uint64_t passed = 0;
    for (size_t step = first; step < m_end && passed <= high; ++step) {
        const uint64_t next = passed + m_counts[step];
        if (passed <= low && low < next)
            result.low = loudnessOf(step);
        if (passed <= high && high < next)
            result.high = loudnessOf(step);
        passed = next;
    }
    return result;
}

LoudnessGate::LoudnessGate() : m_blocks(blockStep), m_shortTerm(rangeStep) {}

void LoudnessGate::clear() noexcept
{
    m_blocks.clear();
    m_shortTerm.clear();
}

double LoudnessGate::integrated() const noexcept
{
    const double threshold = m_blocks.meanSquare() * tenBelow;
    return LoudnessWindow::loudness(m_blocks.meanSquareAbove(threshold));
}

double LoudnessGate::relativeThreshold() const noexcept
{
    return LoudnessWindow::loudness(m_blocks.meanSquare() * tenBelow);
}

LoudnessGate::Range LoudnessGate::range() const noexcept
{
    const LoudnessHistogram::Percentiles found =
        m_shortTerm.percentilesAbove(m_shortTerm.meanSquare() * twentyBelow);
    if (found.count == 0)
        return {};
    return {found.low, found.high, found.high - found.low};
}

} // namespace QTovelMixer
