// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_PEERS_REMATRIX_H
#define QTOVELMIXER_BENCH_PEERS_REMATRIX_H

#include "harness/suite.h"

#include <vector>

/// What libswresample does of the library's work. Each adds the contestant "libswresample", where
/// that library was found.
namespace Bench {

/// Four rows into two, by the first cells of the matrix.
void addRematrix(Case &to, std::vector<const float *> in, std::vector<float *> out,
                 const float (*gain)[128], int frames);

/// Interleaved samples into rows.
void addSplit(Case &to, const float *in, std::vector<float *> out, int frames);
/// Rows into interleaved samples.
void addMerge(Case &to, std::vector<const float *> in, float *out, int frames);

void addToShort(Case &to, const float *in, short *out, int count);
void addToFloat(Case &to, const short *in, float *out, int count);

/// One channel from rate to rate, in chunks.
void addSwrResampler(Case &to, int inRate, int outRate, const float *in, float *out, int frames,
                     int room);

} // namespace Bench

#endif
