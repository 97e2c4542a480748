// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_PEERS_PLAIN_H
#define QTOVELMIXER_BENCH_PEERS_PLAIN_H

/// The work as one would write it down: loops without any thought of the machine. The compiler may
/// use the vectors that every processor of the family has for the mixing loop, and none for the
/// others, which are what copying and converting sample by sample costs.
namespace Bench::Plain {

using Cells = const float (*)[128];

/// Every output cleared, then every cell that is not 0 added.
void mix(Cells gain, Cells enable, const float *const *in, int rows, float *const *out, int columns,
         int frames);

void split(const float *in, float *const *out, int channels, int frames, float gain);
void split(const float *in, float *const *out, int channels, int frames);
void merge(const float *const *in, float *out, int channels, int frames);
void toShort(const float *in, short *out, int count);
void toFloat(const short *in, float *out, int count);
void scale(float *x, float gain, int count);

} // namespace Bench::Plain

/// What the machine could do at best.
namespace Bench::Limits {

/// As many separate multiplications and additions as can be done at once, from registers, `eights`
/// times eight of each. Without AVX2, or when `narrow`, four at a time.
void multiplyAndAdd(long eights, bool narrow);

/// `eights` fused operations on eight floats each; separate ones where the machine has none.
void fusedOperations(long eights);

/// Reads everything, in vectors.
void read(const float *x, long count);

} // namespace Bench::Limits

#endif
