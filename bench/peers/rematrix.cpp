// SPDX-License-Identifier: MIT
#include "peers/rematrix.h"

#ifdef QTOVELMIXER_BENCH_SWRESAMPLE

#include <cstdint>
#include <memory>
#include <utility>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace Bench {

namespace {

struct FreeSwr
{
    void operator()(SwrContext *context) const { swr_free(&context); }
};
using Swr = std::shared_ptr<SwrContext>;

struct Side
{
    int channels;
    AVSampleFormat format;
    int rate;
};

Swr makeSwr(const Side &in, const Side &out, const std::vector<double> &matrix = {})
{
    AVChannelLayout inLayout{};
    AVChannelLayout outLayout{};
    av_channel_layout_default(&inLayout, in.channels);
    av_channel_layout_default(&outLayout, out.channels);
    SwrContext *context = nullptr;
    swr_alloc_set_opts2(&context, &outLayout, out.format, out.rate, &inLayout, in.format, in.rate,
                        0, nullptr);
    Swr result(context, FreeSwr());
    if (!matrix.empty())
        swr_set_matrix(context, matrix.data(), in.channels);
    if (!context || swr_init(context) < 0)
        return nullptr;
    return result;
}

const uint8_t **sources(std::vector<const float *> &rows)
{
    return reinterpret_cast<const uint8_t **>(rows.data());
}

uint8_t **targets(std::vector<float *> &rows)
{
    return reinterpret_cast<uint8_t **>(rows.data());
}

void addConversion(Case &to, const Swr &swr, const void *in, void *out, int frames)
{
    if (!swr)
        return;
    to.add(QStringLiteral("libswresample"), [swr, in, out, frames] {
        auto *from = static_cast<const uint8_t *>(in);
        auto *into = static_cast<uint8_t *>(out);
        swr_convert(swr.get(), &into, frames, &from, frames);
    });
}

} // namespace

void addRematrix(Case &to, std::vector<const float *> in, std::vector<float *> out,
                 const float (*gain)[128], int frames)
{
    std::vector<double> matrix;
    for (size_t k = 0; k < out.size(); ++k) {
        for (size_t j = 0; j < in.size(); ++j)
            matrix.push_back(double(gain[j][k]));
    }
    const Swr swr = makeSwr({int(in.size()), AV_SAMPLE_FMT_FLTP, 48000},
                            {int(out.size()), AV_SAMPLE_FMT_FLTP, 48000}, matrix);
    if (!swr)
        return;
    to.add(QStringLiteral("libswresample"),
           [swr, from = std::move(in), into = std::move(out), frames]() mutable {
               swr_convert(swr.get(), targets(into), frames, sources(from), frames);
           });
}

void addSplit(Case &to, const float *in, std::vector<float *> out, int frames)
{
    const int channels = int(out.size());
    const Swr swr =
        makeSwr({channels, AV_SAMPLE_FMT_FLT, 48000}, {channels, AV_SAMPLE_FMT_FLTP, 48000});
    if (!swr)
        return;
    to.add(QStringLiteral("libswresample"), [swr, in, into = std::move(out), frames]() mutable {
        auto *from = reinterpret_cast<const uint8_t *>(in);
        swr_convert(swr.get(), targets(into), frames, &from, frames);
    });
}

void addMerge(Case &to, std::vector<const float *> in, float *out, int frames)
{
    const int channels = int(in.size());
    const Swr swr =
        makeSwr({channels, AV_SAMPLE_FMT_FLTP, 48000}, {channels, AV_SAMPLE_FMT_FLT, 48000});
    if (!swr)
        return;
    to.add(QStringLiteral("libswresample"), [swr, from = std::move(in), out, frames]() mutable {
        auto *into = reinterpret_cast<uint8_t *>(out);
        swr_convert(swr.get(), &into, frames, sources(from), frames);
    });
}

void addToShort(Case &to, const float *in, short *out, int count)
{
    addConversion(to, makeSwr({1, AV_SAMPLE_FMT_FLT, 48000}, {1, AV_SAMPLE_FMT_S16, 48000}), in,
                  out, count);
}

void addToFloat(Case &to, const short *in, float *out, int count)
{
    addConversion(to, makeSwr({1, AV_SAMPLE_FMT_S16, 48000}, {1, AV_SAMPLE_FMT_FLT, 48000}), in,
                  out, count);
}

void addSwrResampler(Case &to, int inRate, int outRate, const float *in, float *out, int frames,
                     int room)
{
    const Swr swr = makeSwr({1, AV_SAMPLE_FMT_FLTP, inRate}, {1, AV_SAMPLE_FMT_FLTP, outRate});
    if (!swr)
        return;
    to.add(QStringLiteral("libswresample"), [swr, in, out, frames, room] {
        auto *from = reinterpret_cast<const uint8_t *>(in);
        auto *into = reinterpret_cast<uint8_t *>(out);
        swr_convert(swr.get(), &into, room, &from, frames);
    });
}

} // namespace Bench

#else

namespace Bench {

void addRematrix(Case &, std::vector<const float *>, std::vector<float *>, const float (*)[128],
                 int)
{}
void addSplit(Case &, const float *, std::vector<float *>, int) {}
void addMerge(Case &, std::vector<const float *>, float *, int) {}
void addToShort(Case &, const float *, short *, int) {}
void addToFloat(Case &, const short *, float *, int) {}
void addSwrResampler(Case &, int, int, const float *, float *, int, int) {}

} // namespace Bench

#endif
