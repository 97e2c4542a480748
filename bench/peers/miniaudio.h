// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_PEERS_MINIAUDIO_H
#define QTOVELMIXER_BENCH_PEERS_MINIAUDIO_H

#include <memory>
#include <vector>

namespace Bench {

/// Clips of interleaved floats at 48 kHz in a loop, mixed by miniaudio's engine into a stereo block
/// in memory: without pitch, without positions in space, each with a volume.
class MiniaudioMixer
{
public:
    /// The clips stay the caller's. Returns nothing where the bench was built without miniaudio, or
    /// when not all of the clips sound.
    static std::unique_ptr<MiniaudioMixer> create(const std::vector<const float *> &clips,
                                                  unsigned clipFrames, unsigned channels,
                                                  unsigned frames, float volume);
    virtual ~MiniaudioMixer() = default;

    virtual void block() = 0;
};

/// A WAV file of floats in memory, decoded by miniaudio again and again.
class MiniaudioDecoder
{
public:
    /// Returns nothing where the bench was built without miniaudio, or for no such file.
    static std::unique_ptr<MiniaudioDecoder> create(const std::vector<char> &wav);
    virtual ~MiniaudioDecoder() = default;

    /// Goes on at the beginning where the file ends.
    virtual void read(float *frames, unsigned count) = 0;
};

using ConvertShorts = void (*)(float *out, const short *in, unsigned long count);

/// miniaudio's conversion of 16 bits to floats; null where the bench was built without it.
ConvertShorts miniaudioToFloat();

} // namespace Bench

#endif
