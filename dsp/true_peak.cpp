// SPDX-License-Identifier: MIT
#include <dsp/true_peak_p.h>

#include <cmath>
#include <numbers>

namespace QTovelMixer {

namespace {

constexpr int length = 48; // oversampled frames under the window

/// Tap `index` of 0 … 48: a sinc through zero at every original frame, under a raised cosine.
double tap(int index, int factor)
{
    const double position = std::numbers::pi * (index - length / 2) / factor;
    const double sinc = index == length / 2 ? 1.0 : std::sin(position) / position;
    return sinc * 0.5 * (1.0 - std::cos(2.0 * std::numbers::pi * index / length));
}

} // namespace

TruePeakFilter TruePeakFilter::forRate(int sampleRate)
{
    TruePeakFilter filter;
    if (sampleRate >= 192000)
        return filter;
    filter.factor = sampleRate < 96000 ? 4 : 2;
    const int taps = length / filter.factor;
    filter.history = taps - 1;
    filter.delay = taps / 2;
    for (int k = 0; k < taps / 2; ++k) {
        filter.middle[size_t(k)] = float(tap(filter.factor * k + filter.factor / 2, filter.factor));
        if (filter.factor == 4) {
            const double near = tap(4 * k + 1, 4);
            const double far = tap(4 * (taps - 1 - k) + 1, 4);
            filter.quarterSums[size_t(k)] = float((near + far) / 2.0);
            filter.quarterDifferences[size_t(k)] = float((near - far) / 2.0);
        }
    }
    return filter;
}

} // namespace QTovelMixer
