// SPDX-License-Identifier: MIT
// What the loudness of a programme costs, and that of edited material.
#include "cases/cases.h"

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/loudness_map.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>

#include <ebur128.h>

#include <algorithm>
#include <memory>
#include <random>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("E. Meters");
const QString ebur = QStringLiteral("libebur128");
const QString plain = QStringLiteral("the meter without it");

constexpr int sampleRate = 48000;
constexpr int meterFrames = 2016;
constexpr int meterBlocks = 24; // about a second
constexpr double seconds = double(meterFrames) * meterBlocks / sampleRate;

std::vector<float> noise(int channels, int frames)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    std::vector<float> samples(size_t(channels) * size_t(frames));
    for (float &sample : samples)
        sample = value(random);
    return samples;
}

struct Work
{
    std::vector<float> frames;
    Meter meter;

    Work(int channels, bool measures)
        : frames(noise(channels, meterFrames)),
          meter(Type::Output, sampleRate, channels, MeterConfig(), nullptr)
    {
        if (measures)
            meter.startMeasurement();
        for (int i = 0; i < 4; ++i)
            second();
    }
    void second()
    {
        for (int block = 0; block < meterBlocks; ++block)
            meter.updateStatistics(frames.data(), meterFrames);
        keep(meter.loudness().integrated);
    }
};

struct Reference
{
    std::vector<float> frames;
    ebur128_state *state;

    explicit Reference(int channels)
        : frames(noise(channels, meterFrames)),
          state(ebur128_init(unsigned(channels), sampleRate,
                             EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_SAMPLE_PEAK |
                                 EBUR128_MODE_TRUE_PEAK | EBUR128_MODE_HISTOGRAM))
    {
        for (int i = 0; i < 4; ++i)
            second();
    }
    ~Reference() { ebur128_destroy(&state); }
    Reference(const Reference &) = delete;
    Reference &operator=(const Reference &) = delete;

    // Readings as often as ours: ten a second.
    void second()
    {
        double value = 0.0;
        for (int block = 0; block < meterBlocks; ++block) {
            ebur128_add_frames_float(state, frames.data(), meterFrames);
            ebur128_loudness_momentary(state, &value);
            ebur128_loudness_shortterm(state, &value);
            if (block % 2 == 0) {
                ebur128_loudness_global(state, &value);
                ebur128_loudness_range(state, &value);
            }
        }
        keep(value);
    }
};

Case programme(int channels)
{
    const auto work = std::make_shared<Work>(channels, true);
    const auto without = std::make_shared<Work>(channels, false);
    const auto reference = std::make_shared<Reference>(channels);
    Case result(section, QStringLiteral("%1 channels, loudness of a programme").arg(channels));
    result.per(QStringLiteral("second of audio"), seconds);
    result.ours([work] { work->second(); });
    result.add(plain, [without] { without->second(); });
    result.add(ebur, [reference] { reference->second(); });
    return result;
}

/// Three hours, of which five seconds change their gain.
Case editedMap()
{
    constexpr int tenths = 3 * 3600 * 10;
    constexpr int rate = 1000;
    const std::vector<float> minute = noise(1, 60 * rate);
    LoudnessMap::Builder builder(rate, 1, ChannelLayout());
    for (int i = 0; i < 180; ++i)
        builder.add(minute.data(), 60 * rate);
    const auto map = std::make_shared<LoudnessMap>(builder.map());
    // Levels over 60 dB, as material has them.
    std::mt19937 random(2);
    std::uniform_real_distribution<double> gain(0.001, 1.0);
    for (int first = 0; first < tenths; first += 20)
        map->applyGain(first, 20, gain(random));
    Case result(section, QStringLiteral("gain of 5 s in a map of 3 h, measured again"));
    result.per(QStringLiteral("edit"), 1.0);
    result.ours([map, up = false]() mutable {
        up = !up;
        map->applyGain(tenths / 2, 50, up ? 2.0 : 0.5);
        keep(map->measure().integrated);
    });
    return result;
}

} // namespace

void addLoudnessCases(Suite &suite)
{
    for (const int channels : {2, 8, 32})
        suite.add(section, [channels] { return programme(channels); });
    suite.add(section, [] { return editedMap().mustTakeAtMost(1e6); });
}

} // namespace Bench
