// SPDX-License-Identifier: MIT
#include <mixer/meter/loudness_target.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

double tenths(double value)
{
    return std::round(value * 10.0) / 10.0;
}

} // namespace

const std::vector<LoudnessTarget> &LoudnessTarget::all()
{
    static const std::vector<LoudnessTarget> targets{
        // -23.0 LUFS; 0.2 LU are for what meters differ by.
        {"r128", "Television and radio in Europe", "EBU R 128 version 5.0", "November 2023", -23.2,
         -22.8, std::nullopt, -1.0},
        // The same where the level cannot be met exactly.
        {"r128-live", "Live programmes in Europe", "EBU R 128 version 5.0", "November 2023", -24.0,
         -22.0, std::nullopt, -1.0},
        {"r128-s1", "Advertisements, trailers and other short forms in Europe", "EBU R 128 s1",
         "January 2016", -23.2, -22.8, -18.0, -1.0},
        // For devices that do not normalise; true peaks as in R 128.
        {"r128-s2", "Streaming of European broadcasters", "EBU R 128 s2", "November 2023", -20.0,
         -16.0, std::nullopt, -1.0},
        {"a85", "Television in North America", "ATSC A/85:2013", "12 March 2013", -26.0, -22.0,
         std::nullopt, -2.0},
        {"aes77-music", "Music that is levelled track by track, on demand", "AES77-2023", "2023",
         -17.0, -15.0, std::nullopt, -1.0},
        {"aes77-speech", "Speech, on demand", "AES77-2023", "2023", -19.0, -17.0, std::nullopt,
         -1.0},
        // No document of a standards body: what the help pages of several services name.
        {"streaming-14", "Music services that play at -14 LUFS", "", "2024", -15.0, -13.0,
         std::nullopt, -1.0},
    };
    return targets;
}

const LoudnessTarget *LoudnessTarget::find(const QString &name)
{
    const auto found = std::find_if(all().begin(), all().end(),
                                    [&](const LoudnessTarget &each) { return each.name == name; });
    return found == all().end() ? nullptr : &*found;
}

std::vector<LoudnessMiss> LoudnessTarget::misses(const LoudnessReading &reading) const
{
    std::vector<LoudnessMiss> found;
    if (tenths(reading.integrated) < tenths(lowest))
        found.push_back({LoudnessFigure::IntegratedLoudness, reading.integrated, lowest});
    if (tenths(reading.integrated) > tenths(highest))
        found.push_back({LoudnessFigure::IntegratedLoudness, reading.integrated, highest});
    if (maxShortTerm && tenths(reading.maxShortTerm) > tenths(*maxShortTerm))
        found.push_back({LoudnessFigure::MaxShortTerm, reading.maxShortTerm, *maxShortTerm});
    if (tenths(reading.maxTruePeak) > tenths(maxTruePeak))
        found.push_back({LoudnessFigure::MaxTruePeak, reading.maxTruePeak, maxTruePeak});
    return found;
}

} // namespace QTovelMixer
