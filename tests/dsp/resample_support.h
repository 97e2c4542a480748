// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_DSP_RESAMPLE_SUPPORT_H
#define QTOVELMIXER_TESTS_DSP_RESAMPLE_SUPPORT_H

#include <dsp/resample.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

inline constexpr int chunkFrames = 4096;

struct Destroy
{
    void operator()(DSPB_Resampler *resampler) const { DSPB_ResampleDestroy(resampler); }
};
using Resampler = std::unique_ptr<DSPB_Resampler, Destroy>;

inline Resampler makeResampler(int inRate, int outRate)
{
    return Resampler(DSPB_ResampleInit(inRate, outRate, "none"));
}

/// What a caller gives each call room for.
inline int outputRoom(int inRate, int outRate)
{
    return int(double(outRate) / double(inRate) * 4096.0 * 1.5);
}

inline std::vector<float> noise(int frames, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> sample(-0.9F, 0.9F);
    std::vector<float> samples(static_cast<size_t>(frames));
    for (float &value : samples)
        value = sample(random);
    return samples;
}

/// Converts the input in calls of the given sizes, the last one repeated.
inline std::vector<float> convert(const std::vector<float> &in, int inRate, int outRate,
                                  const std::vector<int> &cuts = {chunkFrames})
{
    const Resampler resampler = makeResampler(inRate, outRate);
    std::vector<float> room(size_t(outputRoom(inRate, outRate)));
    std::vector<float> out;
    size_t cut = 0;
    for (size_t taken = 0; taken < in.size(); ++cut) {
        const int frames =
            int(std::min(size_t(cuts[std::min(cut, cuts.size() - 1)]), in.size() - taken));
        const int written = DSPB_Resample(resampler.get(), in.data() + taken, room.data(), frames);
        out.insert(out.end(), room.begin(), room.begin() + written);
        taken += size_t(frames);
    }
    return out;
}

inline bool sameBits(const std::vector<float> &a, const std::vector<float> &b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

inline void addRatePairs()
{
    QTest::addColumn<int>("inRate");
    QTest::addColumn<int>("outRate");
    static constexpr int pairs[][2] = {
        {44100, 48000}, {48000, 44100},  {96000, 48000}, {48000, 96000}, {44100, 96000},
        {88200, 48000}, {192000, 48000}, {8000, 192000}, {384000, 8000}, {44101, 48000},
        {48000, 44101}, {47999, 48000},  {96001, 8000},  {16000, 48000}, {32000, 48000},
    };
    for (const auto &pair : pairs)
        QTest::addRow("%d to %d", pair[0], pair[1]) << pair[0] << pair[1];
}

#endif
