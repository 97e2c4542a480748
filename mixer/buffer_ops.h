// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_BUFFER_OPS_H
#define QTOVELMIXER_MIXER_BUFFER_OPS_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>

namespace QTovelMixer {

// Planar audio is one vector per channel, passed as a pointer to the first of consecutive vectors;
// interleaved audio is one vector with frames of `channels` samples. Only the size of the first
// planar vector is consulted. All functions are exact to the frame, take samples at any address and
// do nothing for less than one channel.
// Threads: any. Real-time: yes.

/// Splits frames of a fixed number of channels; see the instance for stereo below.
template <unsigned Channels>
void de_interleave(const aligned_vector<float, 16> &in,
                   aligned_vector<float, 16> *out) noexcept QTOVELMIXER_NONBLOCKING;

/// Merges frames of a fixed number of channels; see the instance for stereo below.
template <unsigned Channels>
void interleave(const aligned_vector<float, 16> *in,
                aligned_vector<float, 16> &out) noexcept QTOVELMIXER_NONBLOCKING;

/// Splits min(in.size / 2, out[0].size) stereo frames.
template <>
QTOVELMIXER_EXPORT void
de_interleave<2u>(const aligned_vector<float, 16> &in,
                  aligned_vector<float, 16> *out) noexcept QTOVELMIXER_NONBLOCKING;

/// Merges min(out.size / 2, in[0].size) stereo frames.
template <>
QTOVELMIXER_EXPORT void
interleave<2u>(const aligned_vector<float, 16> *in,
               aligned_vector<float, 16> &out) noexcept QTOVELMIXER_NONBLOCKING;

/// Splits min(in.size / channels, out[0].size) frames.
QTOVELMIXER_EXPORT void de_interleave(const aligned_vector<float, 16> &in,
                                      aligned_vector<float, 16> *out,
                                      int channels) noexcept QTOVELMIXER_NONBLOCKING;

/// Merges min(out.size / channels, in[0].size) frames.
QTOVELMIXER_EXPORT void interleave(const aligned_vector<float, 16> *in,
                                   aligned_vector<float, 16> &out,
                                   int channels) noexcept QTOVELMIXER_NONBLOCKING;

/// Converts min(in.size, out.size) samples: f × 32768 to the nearest integer (ties to even), within
/// −32768 … 32767. NaN becomes 0.
QTOVELMIXER_EXPORT void
float_to_short(const aligned_vector<float, 16> &in,
               aligned_vector<short, 16> &out) noexcept QTOVELMIXER_NONBLOCKING;

/// Converts min(in.size, out.size) samples: s × (1 / 32768), exactly.
QTOVELMIXER_EXPORT void
short_to_float(const aligned_vector<short, 16> &in,
               aligned_vector<float, 16> &out) noexcept QTOVELMIXER_NONBLOCKING;

} // namespace QTovelMixer

#endif
