// SPDX-License-Identifier: MIT
#include <mixer/buffer_ops.h>

#include <base/nonblocking.h>
#include <dsp/kernels_p.h>

#include <algorithm>
#include <cstddef>

namespace QTovelMixer {

namespace {

// Channels whose addresses are gathered at a time, on the stack.
constexpr std::size_t gathered = 32;

void split(const aligned_vector<float, 16> &in, aligned_vector<float, 16> *out,
           std::size_t channels) noexcept
{
    const std::size_t frames = std::min(in.size() / channels, out[0].size());
    for (std::size_t first = 0; first < channels; first += gathered) {
        const std::size_t count = std::min(gathered, channels - first);
        float *planes[gathered];
        for (std::size_t c = 0; c < count; ++c)
            planes[c] = out[first + c].data();
        Kernels::deinterleave(in.data() + first, channels, planes, count, frames);
    }
}

void merge(const aligned_vector<float, 16> *in, aligned_vector<float, 16> &out,
           std::size_t channels) noexcept
{
    const std::size_t frames = std::min(out.size() / channels, in[0].size());
    for (std::size_t first = 0; first < channels; first += gathered) {
        const std::size_t count = std::min(gathered, channels - first);
        const float *planes[gathered];
        for (std::size_t c = 0; c < count; ++c)
            planes[c] = in[first + c].data();
        Kernels::interleave(planes, out.data() + first, channels, count, frames);
    }
}

} // namespace

template <>
void de_interleave<2u>(const aligned_vector<float, 16> &in,
                       aligned_vector<float, 16> *out) noexcept QTOVELMIXER_NONBLOCKING
{
    split(in, out, 2);
}

template <>
void interleave<2u>(const aligned_vector<float, 16> *in,
                    aligned_vector<float, 16> &out) noexcept QTOVELMIXER_NONBLOCKING
{
    merge(in, out, 2);
}

void de_interleave(const aligned_vector<float, 16> &in, aligned_vector<float, 16> *out,
                   int channels) noexcept
{
    if (channels >= 1)
        split(in, out, std::size_t(channels));
}

void interleave(const aligned_vector<float, 16> *in, aligned_vector<float, 16> &out,
                int channels) noexcept
{
    if (channels >= 1)
        merge(in, out, std::size_t(channels));
}

void float_to_short(const aligned_vector<float, 16> &in, aligned_vector<short, 16> &out) noexcept
{
    Kernels::toShort(in.data(), out.data(), std::min(in.size(), out.size()));
}

void short_to_float(const aligned_vector<short, 16> &in, aligned_vector<float, 16> &out) noexcept
{
    Kernels::toFloat(in.data(), out.data(), std::min(in.size(), out.size()));
}

} // namespace QTovelMixer
