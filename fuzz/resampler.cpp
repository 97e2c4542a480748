// SPDX-License-Identifier: MIT
// Any rates, any sizes of calls: as many frames as promised, the same bits however the input is
// cut, and no access outside the buffers.
#include <dsp/resample.h>

#include "bytes.h"
#include "require.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace {

struct Destroy
{
    void operator()(DSPB_Resampler *resampler) const { DSPB_ResampleDestroy(resampler); }
};
using Resampler = std::unique_ptr<DSPB_Resampler, Destroy>;

struct Rates
{
    std::int32_t in;
    std::int32_t out;
};

constexpr int mostOutput = 6000; // frames, which is what an input costs

/// Few of the pairs are unusual: a table takes as long as a thousand runs.
Rates takeRates(Fuzz::Bytes &bytes)
{
    const int choice = bytes.take<std::uint8_t>();
    if (choice == 255)
        return {bytes.take<std::int32_t>(), bytes.take<std::int32_t>()};
    static constexpr Rates usual[] = {
        {44100, 48000}, {48000, 44100}, {96000, 48000}, {48000, 96000}, {192000, 48000},
        {8000, 192000}, {384000, 8000}, {44101, 48000}, {48000, 47999}, {1, 256},
        {256, 1},       {48000, 48000}, {3, 2}};
    return usual[std::size_t(choice) % std::size(usual)];
}

bool isConvertible(const Rates &rates)
{
    const auto usable = [](std::int32_t rate) { return rate >= 1 && rate <= 1536000; };
    return usable(rates.in) && usable(rates.out) && rates.out <= rates.in * 256LL &&
           rates.in <= rates.out * 256LL;
}

std::size_t roomFor(const Rates &rates, int frames)
{
    const int perBlock = int(double(rates.out) / double(rates.in) * 4096.0 * 1.5);
    return std::size_t(perBlock) * std::size_t((frames + 4095) / 4096);
}

/// One call, into memory of exactly the promised size.
void convert(DSPB_Resampler *resampler, const Rates &rates, const float *in, int frames,
             std::vector<float> &out)
{
    const std::vector<float> exact(in, in + frames);
    std::vector<float> room(roomFor(rates, frames));
    const std::int32_t written =
        DSPB_Resample(resampler, exact.data(), room.data(), std::int32_t(frames));
    Fuzz::require(written >= 0 && std::size_t(written) <= room.size(), "calls keep to their room");
    out.insert(out.end(), room.begin(), room.begin() + written);
}

std::vector<float> takeInput(Fuzz::Bytes &bytes, int frames)
{
    const auto step = bytes.take<std::uint32_t>() | 1U;
    const float spoiled = bytes.take<float>(); // perhaps no number
    std::vector<float> input;
    std::uint32_t state = step;
    for (int i = 0; i < frames; ++i) {
        state = state * 1664525U + step;
        input.push_back(i % 97 == 13 ? spoiled : float(state >> 8) / 8388608.0F - 1.0F);
    }
    return input;
}

void checkCounts(DSPB_Resampler *resampler, const Rates &rates, int taken, std::size_t written)
{
    const double withheld = DSPB_ResampleWithheld(resampler);
    const double expected = double(taken) - double(written) * rates.in / rates.out;
    Fuzz::require(std::abs(withheld - expected) < 1e-6 * (1.0 + std::abs(expected)),
                  "frames in, frames out and frames withheld agree");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Fuzz::Bytes bytes(data, size);
    const Rates rates = takeRates(bytes);
    const Resampler whole(DSPB_ResampleInit(rates.in, rates.out, "none"));
    Fuzz::require(bool(whole) == isConvertible(rates), "exactly the promised rates are converted");
    if (!whole)
        return 0;
    const double most = std::min(9000.0, double(mostOutput) * rates.in / rates.out);
    const int frames = int(most * bytes.take<std::uint8_t>() / 255.0);
    const std::vector<float> input = takeInput(bytes, frames);
    std::vector<float> expected;
    convert(whole.get(), rates, input.data(), frames, expected);
    for (const float sample : expected)
        Fuzz::require(!std::isnan(sample), "the output is numbers");
    checkCounts(whole.get(), rates, frames, expected.size());

    const Resampler cut(DSPB_ResampleInit(rates.in, rates.out, nullptr));
    std::vector<float> out;
    for (int taken = 0; taken < frames;) {
        const int chunk = 1 + (bytes.atEnd() ? frames : bytes.take<std::uint16_t>() % 5000);
        const int now = std::min(chunk, frames - taken);
        convert(cut.get(), rates, input.data() + taken, now, out);
        taken += now;
        checkCounts(cut.get(), rates, taken, out.size());
    }
    Fuzz::require(out.size() == expected.size() &&
                      (out.empty() ||
                       std::memcmp(out.data(), expected.data(), out.size() * sizeof(float)) == 0),
                  "the output does not depend on how the input is cut");
    return 0;
}
