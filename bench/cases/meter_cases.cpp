// SPDX-License-Identifier: MIT
// What a meter's thread does with a block of 42 ms: levels and loudness, true peaks, readings.
#include "cases/cases.h"
#include "peers/plain.h"

#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_values.h>

#include <ebur128.h>

#include <memory>
#include <random>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("E. Meters");
const QString ebur = QStringLiteral("libebur128");
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

struct Reference
{
    std::vector<float> frames;
    ebur128_state *state;

    Reference(int channels, bool truePeaks)
        : frames(noise(channels)),
          state(ebur128_init(unsigned(channels), sampleRate,
                             EBUR128_MODE_M | EBUR128_MODE_S |
                                 (truePeaks ? EBUR128_MODE_TRUE_PEAK : EBUR128_MODE_SAMPLE_PEAK)))
    {
        for (int blocks = 0; blocks < historyBlocks; ++blocks)
            ebur128_add_frames_float(state, frames.data(), meterFrames);
    }
    ~Reference() { ebur128_destroy(&state); }
    Reference(const Reference &) = delete;
    Reference &operator=(const Reference &) = delete;

    void measure()
    {
        ebur128_add_frames_float(state, frames.data(), meterFrames);
        double value = 0.0;
        ebur128_loudness_momentary(state, &value);
        keep(value);
        ebur128_loudness_shortterm(state, &value);
        keep(value);
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
    if (channels <= 64) {
        const auto reference = std::make_shared<Reference>(channels, truePeaks);
        result.add(ebur, [reference] { reference->measure(); });
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
    double levels;        ///< of libebur128
    double asFilter;      ///< of libebur128, where ffmpeg's filter is meant
    double asFilterPeaks; ///< the same with true peaks
};

} // namespace

void addMeterCases(Suite &suite)
{
    constexpr Demands demands[] = {{2, 30.0, 4.0 * 301 / 33.1, 8.0 * 414 / 121},
                                   {8, 100.0, 10.0 * 1239 / 136, 14.0 * 1855 / 492},
                                   {32, 100.0, 10.0 * 25600 / 497, 14.0 * 27250 / 1966}};
    for (const Demands &d : demands) {
        suite.add(section, [d] {
            return block(d.channels, false)
                .mustBeat(ebur, d.levels)
                .mustBeat(ebur, d.asFilter, QStringLiteral("ffmpeg's filter"));
        });
        suite.add(section, [d] {
            Case result = block(d.channels, true)
                              .mustBeat(ebur, d.asFilterPeaks, QStringLiteral("ffmpeg's filter"));
            return d.channels < 32 ? result : result.mustBeat(limit, 0.6);
        });
    }
    suite.add(section, [] { return block(128, false); });
    suite.add(section,
              [] { return block(128, true).mustTakeAtMost(420000.0).mustBeat(limit, 0.6); });
}

} // namespace Bench
