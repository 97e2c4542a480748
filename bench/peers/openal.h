// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_PEERS_OPENAL_H
#define QTOVELMIXER_BENCH_PEERS_OPENAL_H

#include "harness/suite.h"

#include <vector>

namespace Bench {

/// Stereo clips in a loop, mixed by OpenAL Soft into memory. Adds the contestant "OpenAL Soft",
/// where that library was found.
void addOpenAl(Case &to, const std::vector<const float *> &clips, unsigned clipFrames,
               unsigned frames);

} // namespace Bench

#endif
