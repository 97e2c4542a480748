// SPDX-License-Identifier: MIT
#include <dsp/k_weighting_p.h>

#include <cmath>
#include <numbers>
#include <span>

namespace QTovelMixer {

namespace {

constexpr double tableRate = 48000.0;

// BS.1770-4 Annex 1, tables 1 and 2.
constexpr Biquad shelfTable{1.53512485958697, -2.69169618940638, 1.19839281085285,
                            -1.69065929318241, 0.73248077421585};
constexpr Biquad lowCutTable{1.0, -2.0, 1.0, -1.99004745483398, 0.99007225036621};

/// n0 + n1 s + n2 s² over d0 + d1 s + d2 s².
struct Analogue
{
    double n0, n1, n2;
    double d0, d1, d2;
};

/// Undoes the bilinear transform 1/z = (1 - s) / (1 + s), where s = j tan(pi f / tableRate).
Analogue prototype(const Biquad &table)
{
    return {table.b0 + table.b1 + table.b2, 2.0 * (table.b0 - table.b2),
            table.b0 - table.b1 + table.b2, 1.0 + table.a1 + table.a2,
            2.0 * (1.0 - table.a2),         1.0 - table.a1 + table.a2};
}

/// tan(pi f0 / tableRate) of the poles' natural frequency f0.
double naturalTangent(const Analogue &filter)
{
    return std::sqrt(filter.d0 / filter.d2);
}

/// How much s grows from the table's rate to another, so that f0 stays where it is; 0 if f0 comes
/// too close to half the rate.
double stretch(const Analogue &filter, double rate)
{
    const double tangent = naturalTangent(filter);
    const double angle = std::atan(tangent) * tableRate / rate;
    return angle < 0.45 * std::numbers::pi ? tangent / std::tan(angle) : 0.0;
}

Biquad digital(const Analogue &filter, double scale)
{
    const double n0 = filter.n0;
    const double n1 = filter.n1 * scale;
    const double n2 = filter.n2 * scale * scale;
    const double d0 = filter.d0;
    const double d1 = filter.d1 * scale;
    const double d2 = filter.d2 * scale * scale;
    const double a0 = d0 + d1 + d2;
    return {(n0 + n1 + n2) / a0, 2.0 * (n0 - n2) / a0, (n0 - n1 + n2) / a0, 2.0 * (d0 - d2) / a0,
            (d0 - d1 + d2) / a0};
}

} // namespace

KWeighting KWeighting::forRate(int sampleRate)
{
    KWeighting weighting;
    const Analogue shelf = prototype(shelfTable);
    if (const double scale = stretch(shelf, sampleRate); scale > 0.0)
        weighting.shelf = digital(shelf, scale);
    const Analogue lowCut = prototype(lowCutTable);
    if (const double scale = stretch(lowCut, sampleRate); scale > 0.0) {
        weighting.lowCut = digital(lowCut, scale);
        // The standard leaves this section's gain unscaled, its zeros are 1 -2 1 as they stand;
        // meters keep that at every rate.
        weighting.lowCut.b0 = lowCutTable.b0;
        weighting.lowCut.b1 = lowCutTable.b1;
        weighting.lowCut.b2 = lowCutTable.b2;
    }
    return weighting;
}

double loudnessWeight(int channel, int channels)
{
    constexpr double surround = 1.41;
    static constexpr double four[] = {1.0, 1.0, surround, surround};
    static constexpr double five[] = {1.0, 1.0, 1.0, surround, surround};
    static constexpr double six[] = {1.0, 1.0, 1.0, 0.0, surround, surround};
    static constexpr double eight[] = {1.0, 1.0, 1.0, 0.0, surround, surround, surround, surround};
    std::span<const double> weights;
    switch (channels) {
    case 4:
        weights = four;
        break;
    case 5:
        weights = five;
        break;
    case 6:
        weights = six;
        break;
    case 8:
        weights = eight;
        break;
    default:
        return 1.0;
    }
    return weights[size_t(channel)];
}

} // namespace QTovelMixer
