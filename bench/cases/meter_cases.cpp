// SPDX-License-Identifier: MIT
// What a meter's thread does with a block of 42 ms: levels and loudness, true peaks, readings.
#include "cases/cases.h"
#include "peers/plain.h"

#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_values.h>

#include <ebur128.h>
#include <hwy/targets.h>

#include <algorithm>
#include <memory>
#include <random>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("E. Meters");
const QString ebur = QStringLiteral("libebur128");
const QString eburFeed = QStringLiteral("libebur128 without its readings");
const QString limit = QStringLiteral("arithmetic limit");

constexpr int sampleRate = 48000;
constexpr int meterFrames = 2016;
constexpr int historyBlocks = 75; // three seconds, of which the short-term loudness is made

std::vector<float> noise(int channels)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    std::vector<float> samples(size_t(channels) * meterFrames);
    for (float &sample : samples)
        sample = value(random);
    return samples;
}

struct Work
{
    std::vector<float> frames;
    Meter meter;
    MeterValues values;

    Work(int channels, bool truePeaks)
        : frames(noise(channels)), meter(Type::Output, sampleRate, channels, MeterConfig(), nullptr)
    {
        meter.setTruePeakEnabled(truePeaks);
        for (int blocks = 0; blocks < historyBlocks; ++blocks)
            measure();
    }
    void measure()
    {
        meter.updateStatistics(frames.data(), meterFrames);
        keep(meter.getValues(values));
    }
};

/// It takes 64 channels at most: more are shared out among several.
struct Reference
{
    static constexpr int most = 64;

    std::vector<float> frames;
    std::vector<ebur128_state *> states;

    Reference(int channels, bool truePeaks)
        : frames(noise(std::min(channels, most))), states(size_t((channels + most - 1) / most))
    {
        const int mode = EBUR128_MODE_M | EBUR128_MODE_S |
                         (truePeaks ? EBUR128_MODE_TRUE_PEAK : EBUR128_MODE_SAMPLE_PEAK);
        for (ebur128_state *&state : states) {
            state = ebur128_init(unsigned(std::min(channels, most)), sampleRate, mode);
            // On its own it leaves channels beyond the fifth out.
            for (unsigned channel = 0; channel < state->channels; ++channel)
                ebur128_set_channel(state, channel, EBUR128_LEFT);
        }
        for (int blocks = 0; blocks < historyBlocks; ++blocks)
            feed();
    }
    ~Reference()
    {
        for (ebur128_state *&state : states)
            ebur128_destroy(&state);
    }
    Reference(const Reference &) = delete;
    Reference &operator=(const Reference &) = delete;

    void feed()
    {
        for (ebur128_state *state : states)
            ebur128_add_frames_float(state, frames.data(), meterFrames);
    }
    void measure()
    {
        for (ebur128_state *state : states) {
            ebur128_add_frames_float(state, frames.data(), meterFrames);
            double value = 0.0;
            ebur128_loudness_momentary(state, &value);
            keep(value);
            ebur128_loudness_shortterm(state, &value);
            keep(value);
        }
    }
};

Case block(int channels, bool truePeaks)
{
    const auto work = std::make_shared<Work>(channels, truePeaks);
    Case result(section, QStringLiteral("%1 channels%2")
                             .arg(channels)
                             .arg(truePeaks ? QStringLiteral(", with true peaks") : QString()));
    result.per(QStringLiteral("block of 42 ms"), 1.0);
    result.ours([work] { work->measure(); });
    // Many channels of it would take the caches from the arithmetic that we are compared with.
    if (channels <= Reference::most || !truePeaks) {
        const auto reference = std::make_shared<Reference>(channels, truePeaks);
        const auto fed = std::make_shared<Reference>(channels, truePeaks);
        result.add(ebur, [reference] { reference->measure(); });
        result.add(eburFeed, [fed] { fed->feed(); });
    }
#ifdef __x86_64__
    if (truePeaks) {
        // Per sample 36 operations on eight floats at a time and 11 on four doubles.
        const long operations = long(meterFrames) * channels * 29 / 4;
        result.add(limit, [operations] { Limits::fusedOperations(operations); });
    }
#endif
    return result;
}

struct Demands
{
    int channels;
    double levels; ///< of libebur128
};

#ifdef __x86_64__

/// On the oldest vectors that the library has code for.
Case blockOnBaseline(const Demands &demands, bool truePeaks)
{
    Case result = block(demands.channels, truePeaks);
    std::erase_if(result.contestants, [](const Contestant &who) { return who.name == limit; });
    result.name += QStringLiteral(", 128-bit vectors");
    result.target = HWY_SSSE3;
    return result;
}

#endif

} // namespace

void addMeterCases(Suite &suite)
{
    constexpr Demands all[] = {{2, 30.0}, {8, 100.0}, {32, 100.0}};
    for (const Demands &d : all) {
        suite.add(section, [d] { return block(d.channels, false).mustBeat(ebur, d.levels); });
        suite.add(section, [d] {
            Case result = block(d.channels, true);
            return d.channels < 32 ? result : result.mustBeat(limit, 0.6);
        });
    }
#ifdef __x86_64__
    for (const Demands &d : all) {
        for (const bool truePeaks : {false, true})
            suite.add(section, [d, truePeaks] { return blockOnBaseline(d, truePeaks); });
    }
#endif
    suite.add(section, [] { return block(128, false).mustBeat(ebur, 100.0); });
    suite.add(section,
              [] { return block(128, true).mustTakeAtMost(420000.0).mustBeat(limit, 0.6); });
}

} // namespace Bench
