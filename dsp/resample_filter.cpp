// SPDX-License-Identifier: MIT
#include <dsp/resample_filter_p.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numbers>
#include <numeric>
#include <span>

namespace QTovelMixer {

namespace {

// Chosen together by measurement: 124 taps with this window fall from 0.45 to 0.55 of the lower
// rate, 110 dB down and more behind it. With them a block of rows looks at 128 frames when the rate
// goes up, as many as whole vectors hold.
constexpr double tapsPerSide = 62.0;
constexpr double kaiserBeta = 11.2;
constexpr double cutOff = 0.958;

// Beyond these a row per phase costs more memory than it is worth. Linear interpolation between
// 512 rows leaves an error of -123 dB at a third of the rate.
constexpr int64_t mostPhases = 1024;
constexpr int64_t mostCoefficients = int64_t(1) << 20;
constexpr double partsPerFrame = 512.0;

constexpr size_t pairsKept = 16; // arbitrary; a table is 80 KiB to 4 MiB

/// Modified Bessel function of the first kind, order 0.
double besselI0(double x)
{
    const double quarter = x * x / 4.0;
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; term > sum * 1e-17; ++k) {
        term *= quarter / (double(k) * double(k));
        sum += term;
    }
    return sum;
}

double kaiser(double position)
{
    static const double scale = 1.0 / besselI0(kaiserBeta);
    const double rest = 1.0 - position * position;
    return rest > 0.0 ? besselI0(kaiserBeta * std::sqrt(rest)) * scale : scale;
}

double sinc(double x)
{
    const double angle = std::numbers::pi * x;
    return std::abs(angle) < 1e-9 ? 1.0 : std::sin(angle) / angle;
}

/// Fills one row for an output frame that lies `fraction` of a frame after an input frame. The
/// row's sum is 1: no phase is louder than another, so that constant input gives no images.
void fillRow(std::span<float> row, double fraction, double bandwidth)
{
    const int half = int(row.size()) / 2;
    std::vector<double> exact(row.size());
    for (int k = 0; k < 2 * half; ++k) {
        const double distance = fraction + half - 1 - k;
        exact[size_t(k)] = sinc(bandwidth * distance) * kaiser(distance / half);
    }
    const double sum = std::accumulate(exact.begin(), exact.end(), 0.0);
    std::transform(exact.begin(), exact.end(), row.begin(),
                   [sum](double value) { return float(value / sum); });
}

struct KeptFilter
{
    int32_t inRate;
    int32_t outRate;
    std::shared_ptr<const ResampleFilter> filter;
};

struct FilterStore
{
    std::mutex mutex;
    std::vector<KeptFilter> kept; // used last comes first
};

FilterStore &store()
{
    // Never destroyed: a worker thread may still ask while the process ends.
    static FilterStore &instance = *new FilterStore;
    return instance;
}

} // namespace

namespace {

/// A row for each phase, in blocks.
void fillBlocks(ResampleFilter &filter, double bandwidth)
{
    constexpr int together = ResampleFilter::rowsPerBlock;
    filter.rows.resize(size_t(filter.blocks() * together * filter.depth), 0.0F);
    std::vector<float> row(static_cast<size_t>(filter.taps()));
    for (int64_t position = 0; position < filter.cycle; ++position) {
        const int64_t first = position / together * together;
        const int64_t later = filter.windowOf(position) - filter.windowOf(first);
        fillRow(row, double(filter.phaseOf(position)) / double(filter.phases), bandwidth);
        float *const block = filter.rows.data() + first * filter.depth;
        for (int tap = 0; tap < filter.taps(); ++tap) {
            const int64_t k = later + tap;
            block[(k / 8 * together + position - first) * 8 + k % 8] = row[size_t(tap)];
        }
    }
}

/// One row more than there are parts.
void fillParts(ResampleFilter &filter, double bandwidth)
{
    filter.rows.resize(size_t(filter.parts + 1) * size_t(filter.taps()));
    for (int64_t row = 0; row <= filter.parts; ++row) {
        const std::span<float> coefficients(filter.rows.data() + row * filter.taps(),
                                            size_t(filter.taps()));
        fillRow(coefficients, double(row) / double(filter.parts), bandwidth);
    }
}

} // namespace

std::shared_ptr<const ResampleFilter> ResampleFilter::build(int32_t inRate, int32_t outRate)
{
    auto filter = std::make_shared<ResampleFilter>();
    const int64_t divisor = std::gcd(int64_t(inRate), int64_t(outRate));
    filter->phases = outRate / divisor;
    filter->step = inRate / divisor;
    const double stretch = std::max(1.0, double(inRate) / double(outRate));
    filter->half = int(std::ceil(tapsPerSide * stretch));
    // At least one whole block.
    filter->cycle = filter->phases < rowsPerBlock ? std::lcm(filter->phases, int64_t(rowsPerBlock))
                                                  : filter->phases;

    const int64_t lead = (rowsPerBlock - 1) * filter->step / filter->phases + 1;
    const int64_t depth = (filter->taps() + lead + 7) / 8 * 8;
    const int64_t coefficients = filter->blocks() * rowsPerBlock * depth;
    if (filter->phases <= mostPhases && coefficients <= mostCoefficients) {
        filter->lead = int(lead);
        filter->depth = int(depth);
        fillBlocks(*filter, cutOff / stretch);
    } else {
        // A filter stretched in time is as much smoother, so it needs fewer rows.
        filter->parts = int64_t(std::ceil(partsPerFrame / stretch));
        filter->half = (filter->half + 3) / 4 * 4;
        filter->depth = filter->taps();
        fillParts(*filter, cutOff / stretch);
    }
    return filter;
}

std::shared_ptr<const ResampleFilter> ResampleFilter::shared(int32_t inRate, int32_t outRate)
{
    FilterStore &filters = store();
    const std::lock_guard<std::mutex> lock(filters.mutex);
    auto &kept = filters.kept;
    const auto found = std::find_if(kept.begin(), kept.end(), [&](const KeptFilter &entry) {
        return entry.inRate == inRate && entry.outRate == outRate;
    });
    if (found != kept.end()) {
        std::rotate(kept.begin(), found, found + 1);
        return kept.front().filter;
    }
    if (kept.size() == pairsKept)
        kept.pop_back();
    kept.insert(kept.begin(), KeptFilter{inRate, outRate, build(inRate, outRate)});
    return kept.front().filter;
}

} // namespace QTovelMixer
