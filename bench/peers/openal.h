// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_PEERS_OPENAL_H
#define QTOVELMIXER_BENCH_PEERS_OPENAL_H

#include <memory>
#include <vector>

namespace Bench {

/// Stereo clips at 48 kHz in a loop, mixed by OpenAL Soft into memory.
class OpenAlMixer
{
public:
    /// The clips are copied. Returns nothing where that library was not found, or when not all of
    /// the clips sound.
    static std::unique_ptr<OpenAlMixer> create(const std::vector<const float *> &clips,
                                               unsigned clipFrames, unsigned frames);
    virtual ~OpenAlMixer() = default;

    virtual void block() = 0;
};

} // namespace Bench

#endif
