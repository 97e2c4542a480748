// SPDX-License-Identifier: MIT
#include <mixer/meter/loudness_map.h>

#include <dsp/loudness_window_p.h>
#include <dsp/weighted_energy_p.h>
#include <mixer/meter/channel_layout.h>
#include <mixer/meter/peak_reading.h>
#include <mixer/meter/programme_meter_p.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <span>

namespace QTovelMixer {

namespace {

constexpr int tenthsPerSecond = 10;
constexpr size_t momentaryTenths = 4;
constexpr size_t shortTermTenths = 30;

constexpr double silence = -120.0;
const double absoluteGate = LoudnessWindow::meanSquareOf(-70.0); // BS.1770-5 Annex 1
constexpr double tenBelow = 0.1;                                 // -10 LU of a mean square
constexpr double twentyBelow = 0.01;                             // -20 LU

struct Passed
{
    double sum = 0.0;
    size_t count = 0;

    double mean() const { return count == 0 ? 0.0 : sum / double(count); }
};

/// Sums side by side, so that none waits for its own last addition.
Passed above(std::span<const double> values, double threshold)
{
    constexpr size_t width = 8;
    double sums[width] = {};
    size_t counts[width] = {};
    size_t i = 0;
    for (; i + width <= values.size(); i += width) {
        for (size_t k = 0; k < width; ++k) {
            const bool passes = values[i + k] > threshold;
            sums[k] += passes ? values[i + k] : 0.0;
            counts[k] += passes ? 1 : 0;
        }
    }
    Passed result;
    for (; i < values.size(); ++i) {
        if (values[i] > threshold) {
            result.sum += values[i];
            ++result.count;
        }
    }
    for (size_t k = 0; k < width; ++k) {
        result.sum += sums[k];
        result.count += counts[k];
    }
    return result;
}

/// Values above a threshold, sorted as far as one of them by its place is found.
class Ranking
{
public:
    Ranking(std::span<const double> values, double threshold)
        : m_values(values), m_threshold(threshold), m_first(bitsOf(threshold)), m_counts(steps)
    {
        for (const double value : values) {
            if (value > threshold)
                ++m_counts[stepOf(value)];
        }
    }

    /// The value at a place, counted from 0, of which there is one.
    double at(size_t place) const
    {
        size_t step = 0;
        for (; place >= m_counts[step]; ++step)
            place -= m_counts[step];
        std::vector<double> found;
        found.reserve(m_counts[step]);
        for (const double value : m_values) {
            if (value > m_threshold && stepOf(value) == step)
                found.push_back(value);
        }
        const auto wanted = found.begin() + ptrdiff_t(place);
        std::nth_element(found.begin(), wanted, found.end());
        return *wanted;
    }

private:
    // The bits of positive numbers are in the order of their values: 256 steps for each octave.
    static constexpr int shift = 44;
    static constexpr uint64_t steps = 64 * 256;

    static uint64_t bitsOf(double value) { return std::bit_cast<uint64_t>(value) >> shift; }
    size_t stepOf(double value) const { return std::min(bitsOf(value) - m_first, steps - 1); }

    std::span<const double> m_values;
    double m_threshold;
    uint64_t m_first;
    std::vector<size_t> m_counts;
};

/// Sums of neighbours, so many and so far apart.
std::vector<double> paired(std::span<const double> values, size_t distance)
{
    std::vector<double> sums(values.size() > distance ? values.size() - distance : 0);
    for (size_t i = 0; i < sums.size(); ++i)
        sums[i] = values[i] + values[i + distance];
    return sums;
}

/// The mean squares of all windows of 400 ms and of 3 s.
struct Windows
{
    std::vector<double> momentary;
    std::vector<double> shortTerm;

    explicit Windows(std::span<const double> tenths)
    {
        const std::vector<double> two = paired(tenths, 1);
        const std::vector<double> four = paired(two, 2);
        const std::vector<double> eight = paired(four, 4);
        const std::vector<double> sixteen = paired(eight, 8);
        momentary = four;
        for (double &value : momentary)
            value /= double(momentaryTenths);
        if (tenths.size() < shortTermTenths)
            return;
        shortTerm.resize(tenths.size() - shortTermTenths + 1);
        for (size_t i = 0; i < shortTerm.size(); ++i)
            shortTerm[i] =
                (sixteen[i] + eight[i + 16] + four[i + 24] + two[i + 28]) / double(shortTermTenths);
    }
};

double sumOfLast(const std::vector<double> &values, size_t count)
{
    const size_t reach = std::min(count, values.size());
    return sumOf(values.data() + values.size() - reach, int(reach));
}

struct Largest
{
    double lufs = silence;
    double seconds = 0.0; // the end of its window
};

/// Material shorter than a window counts as one window.
Largest largest(const std::vector<double> &windows, const std::vector<double> &tenths,
                size_t length)
{
    if (windows.empty()) {
        const double lufs = LoudnessWindow::loudness(sumOfLast(tenths, length) / double(length));
        return {lufs, lufs > silence ? double(tenths.size()) / tenthsPerSecond : 0.0};
    }
    const auto found = std::max_element(windows.begin(), windows.end());
    const double lufs = LoudnessWindow::loudness(*found);
    const auto end = size_t(found - windows.begin()) + length;
    return {lufs, lufs > silence ? double(end) / tenthsPerSecond : 0.0};
}

void measureRange(const std::vector<double> &windows, LoudnessReading &reading)
{
    const double threshold =
        std::max(absoluteGate, above(windows, absoluteGate).mean() * twentyBelow);
    const size_t count = above(windows, threshold).count;
    if (count == 0)
        return;
    // Tech 3342, 5: the nearest of the sorted values, counted from 0.
    const Ranking ranking(windows, threshold);
    const auto place = [count](double part) {
        return size_t(std::llround(double(count - 1) * part));
    };
    reading.rangeLow = LoudnessWindow::loudness(ranking.at(place(0.10)));
    reading.rangeHigh = LoudnessWindow::loudness(ranking.at(place(0.95)));
    reading.range = reading.rangeHigh - reading.rangeLow;
}

} // namespace

struct LoudnessMap::Builder::Data
{
    Data(int sampleRate, int channels, const ChannelLayout &layout)
        : energy(sampleRate, tenthsPerSecond),
          truePeaks(DSPB_StatisticsCreate(sampleRate, channels, 16, DSPB_MeasureTruePeak))
    {
        std::vector<double> weights;
        for (int channel = 0; truePeaks && channel < channels; ++channel)
            weights.push_back(layout.isKnown() ? layout.weight(channel)
                                               : loudnessWeight(channel, channels));
        energy.setChannels(weights);
    }

    void addPeaks(const float *frames, int count)
    {
        DSPB_StatisticsAddFrames(truePeaks.get(), frames, count);
        for (int channel = 0; channel < energy.channels(); ++channel) {
            double found = 0.0;
            DSPB_StatisticsMomentaryTruePeak(truePeaks.get(), channel, &found);
            peak = std::max(peak, found);
        }
    }

    WeightedEnergy energy;
    StatisticsHandle truePeaks;
    double peak = 0.0; // of the tenth under way
    LoudnessMap map;
};

LoudnessMap::Builder::Builder(int sampleRate, int channels, const ChannelLayout &layout)
    : d(std::make_unique<Data>(sampleRate, channels, layout))
{}

LoudnessMap::Builder::~Builder() = default;

void LoudnessMap::Builder::add(const float *frames, int count)
{
    while (d->energy.channels() > 0 && count > 0) {
        const int taken = d->energy.add(frames, count);
        d->addPeaks(frames, taken);
        frames += ptrdiff_t(taken) * d->energy.channels();
        count -= taken;
        while (d->energy.missingFrames() == 0) {
            d->map.m_meanSquares.push_back(d->energy.meanSquare(d->energy.takeHop(), 1));
            d->map.m_truePeaks.push_back(d->peak);
            d->peak = 0.0;
        }
    }
}

LoudnessMap LoudnessMap::Builder::map() const
{
    return d->map;
}

LoudnessMap::LoudnessMap() = default;

int LoudnessMap::count() const
{
    return int(m_meanSquares.size());
}

int LoudnessMap::clampedCount(int &first, int count) const
{
    const qint64 end = std::clamp<qint64>(qint64(first) + count, 0, this->count());
    first = std::clamp(first, 0, this->count());
    return int(std::max<qint64>(end - first, 0));
}

LoudnessMap LoudnessMap::part(int first, int count) const
{
    count = clampedCount(first, count);
    LoudnessMap part;
    const auto take = [&](const std::vector<double> &from, std::vector<double> &to) {
        to.assign(from.begin() + first, from.begin() + first + count);
    };
    take(m_meanSquares, part.m_meanSquares);
    take(m_truePeaks, part.m_truePeaks);
    return part;
}

void LoudnessMap::insert(int at, const LoudnessMap &other)
{
    if (&other == this) {
        insert(at, LoudnessMap(other));
        return;
    }
    at = std::clamp(at, 0, count());
    // Both have room before one of them changes.
    m_meanSquares.reserve(m_meanSquares.size() + other.m_meanSquares.size());
    m_truePeaks.reserve(m_truePeaks.size() + other.m_truePeaks.size());
    m_meanSquares.insert(m_meanSquares.begin() + at, other.m_meanSquares.begin(),
                         other.m_meanSquares.end());
    m_truePeaks.insert(m_truePeaks.begin() + at, other.m_truePeaks.begin(),
                       other.m_truePeaks.end());
}

void LoudnessMap::remove(int first, int count)
{
    count = clampedCount(first, count);
    for (std::vector<double> *const values : {&m_meanSquares, &m_truePeaks})
        values->erase(values->begin() + first, values->begin() + first + count);
}

void LoudnessMap::move(int first, int count, int to)
{
    count = clampedCount(first, count);
    to = std::clamp(to, 0, this->count() - count);
    for (std::vector<double> *const values : {&m_meanSquares, &m_truePeaks}) {
        const auto begin = values->begin();
        if (to < first)
            std::rotate(begin + to, begin + first, begin + first + count);
        else
            std::rotate(begin + first, begin + first + count, begin + to + count);
    }
}

void LoudnessMap::applyGain(int first, int count, double gain)
{
    if (!std::isfinite(gain))
        return;
    // Far above any sound, and small enough for the sum of a long map.
    constexpr double most = 1e200;
    const double magnitude = std::abs(gain);
    count = clampedCount(first, count);
    for (size_t i = size_t(first); i < size_t(first) + size_t(count); ++i) {
        m_meanSquares[i] = std::min(std::min(m_meanSquares[i] * magnitude, most) * magnitude, most);
        m_truePeaks[i] = std::min(m_truePeaks[i] * magnitude, most);
    }
}

LoudnessReading LoudnessMap::measure() const
{
    LoudnessReading reading;
    if (m_meanSquares.empty())
        return reading;
    reading.state = MeasurementState::MeasurementPaused;
    reading.seconds = double(count()) / tenthsPerSecond;
    reading.momentary = LoudnessWindow::loudness(sumOfLast(m_meanSquares, momentaryTenths) /
                                                 double(momentaryTenths));
    reading.shortTerm = LoudnessWindow::loudness(sumOfLast(m_meanSquares, shortTermTenths) /
                                                 double(shortTermTenths));
    const Windows windows(m_meanSquares);
    const double gate = above(windows.momentary, absoluteGate).mean() * tenBelow;
    reading.relativeThreshold = LoudnessWindow::loudness(gate);
    reading.integrated =
        LoudnessWindow::loudness(above(windows.momentary, std::max(gate, absoluteGate)).mean());
    measureRange(windows.shortTerm, reading);

    const Largest momentary = largest(windows.momentary, m_meanSquares, momentaryTenths);
    reading.maxMomentary = momentary.lufs;
    reading.maxMomentaryTime = momentary.seconds;
    const Largest shortTerm = largest(windows.shortTerm, m_meanSquares, shortTermTenths);
    reading.maxShortTerm = shortTerm.lufs;
    reading.maxShortTermTime = shortTerm.seconds;

    const auto peak = std::max_element(m_truePeaks.begin(), m_truePeaks.end());
    reading.maxTruePeak = PeakReading::decibels(*peak);
    if (*peak > 0.0)
        reading.maxTruePeakTime = double(peak - m_truePeaks.begin()) / tenthsPerSecond;
    if (reading.integrated > silence && reading.maxTruePeak > silence)
        reading.peakToLoudness = reading.maxTruePeak - reading.integrated;
    return reading;
}

} // namespace QTovelMixer
