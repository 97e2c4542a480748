// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_KERNELS_P_H
#define QTOVELMIXER_DSP_KERNELS_P_H

#include <base/nonblocking.h>

#include <cstddef>

/// The vector loops, dispatched at run time to the best instructions of the machine.
///
/// All take samples at any address and touch exactly the samples named, where nothing else is said.
/// Multiplications and additions are rounded one by one and in the same order on every machine, so
/// that results do not depend on it. Sources and destinations are the same place or do not overlap.
/// Threads: any. Real-time: yes.
namespace QTovelMixer::Kernels {

void fill(float *x, std::size_t count, float value) noexcept QTOVELMIXER_NONBLOCKING;
void add(float *x, std::size_t count, float value) noexcept QTOVELMIXER_NONBLOCKING;
void multiply(float *x, std::size_t count, float value) noexcept QTOVELMIXER_NONBLOCKING;
void add(float *x, const float *y, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;
void multiply(float *x, const float *y, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;
/// x[i] *= value. Returns whether every product is finite.
bool multiplyFinite(float *x, std::size_t count, float value) noexcept QTOVELMIXER_NONBLOCKING;
/// Whether every sample is finite.
bool isFinite(const float *x, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;
/// Writes 0 over every sample that is not finite. Returns how many there were.
std::size_t replaceNotFinite(float *x, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;
/// x[i] += gain × y[i]
void multiplyAdd(float *x, float gain, const float *y,
                 std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;

/// out[c][i] = in[i × stride + c] for the `channels` first channels of frames of `stride` samples.
void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;
/// out[c][i] = in[i × stride + c] × gain
void deinterleave(const float *in, std::size_t stride, float *const *out, std::size_t channels,
                  std::size_t frames, float gain) noexcept QTOVELMIXER_NONBLOCKING;
/// The same for frames of two samples.
void deinterleave(const float *in, float *left, float *right,
                  std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;
void deinterleave(const float *in, float *left, float *right, std::size_t frames,
                  float gain) noexcept QTOVELMIXER_NONBLOCKING;
/// out[i × stride + c] = in[c][i]; the other samples of a frame stay.
void interleave(const float *const *in, float *out, std::size_t stride, std::size_t channels,
                std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;

/// Nearest integer of f × 32768, ties to even, within −32768 … 32767; NaN becomes 0.
void toShort(const float *in, short *out, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;
/// s / 32768
void toFloat(const short *in, float *out, std::size_t count) noexcept QTOVELMIXER_NONBLOCKING;

/// Multiplies every sample of frame i by the gain as it stands, which begins at `applied` and drops
/// by (applied − target) / frames after each frame: the step is a double, the running gain a float.
/// The caller's next block begins at `target`.
void rampGain(float *block, std::size_t frames, std::size_t channels, float applied,
              float target) noexcept QTOVELMIXER_NONBLOCKING;

/// out[i] = 0 + gains[0] × in[0][i] + gains[1] × in[1][i] + …, in this order.
void mix(float *out, const float *const *in, const float *gains, std::size_t inputs,
         std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;
/// The same for two outputs of the same inputs.
void mixPair(float *out0, float *out1, const float *const *in, const float *gains0,
             const float *gains1, std::size_t inputs,
             std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;

inline constexpr std::size_t denseOutputs = 6;
inline constexpr std::size_t denseInputs = 128; // at most
/// The same for `groups` × `denseOutputs` outputs of the same inputs; gains are in the order group,
/// input, output, and every group's begin `groupStride` floats after those of the one before.
void mixDense(float *const *out, std::size_t groups, const float *const *in, const float *gains,
              std::size_t groupStride, std::size_t inputs,
              std::size_t frames) noexcept QTOVELMIXER_NONBLOCKING;

/// True when the first `columns` floats of `rows` rows, each `stride` floats apart, hold the same
/// bits. A stride is a whole number of vectors (8 floats do), so that rows are read in whole
/// vectors.
bool sameBits(const float *a, std::size_t strideA, const float *b, std::size_t strideB,
              std::size_t rows, std::size_t columns) noexcept QTOVELMIXER_NONBLOCKING;

/// Cleans the upper halves of the vector registers, which another program part may have left
/// dirty: older instructions run several times slower then. For the entry of a device callback.
void cleanVectorState() noexcept QTOVELMIXER_NONBLOCKING;

} // namespace QTovelMixer::Kernels

#endif
