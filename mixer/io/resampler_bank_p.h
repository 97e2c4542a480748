// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_RESAMPLER_BANK_P_H
#define QTOVELMIXER_MIXER_IO_RESAMPLER_BANK_P_H

#include <QtCore/QtGlobal>

#include <memory>
#include <vector>

struct DSPB_Resampler;

namespace QTovelMixer {

/// One resampler per channel between interleaved buffers of two rates (Hz).
/// Used by the thread that created it. Output frame k lies at the time of input frame
/// k × inputRate / outputRate, counted from the creation or the last restart.
class ResamplerBank
{
    Q_DISABLE_COPY_MOVE(ResamplerBank)

public:
    static constexpr int chunkFrames = 4096;

    /// Takes all memory that processing needs.
    ResamplerBank(int inputRate, int outputRate, int channels);

    /// Whether the converter knows these rates, or they are the same, so that there is nothing to
    /// convert. Takes no memory.
    static bool canConvert(int inputRate, int outputRate);

    /// False when the converter does not know these rates; `process` then writes nothing.
    bool isValid() const;

    /// The most frames that one call of `process` writes; 0 for a rate below 1.
    static int maxOutputFrames(int inputRate, int outputRate);

    /// Converts up to `chunkFrames` frames; `out` has room for `maxOutputFrames` frames.
    /// Returns the frames written.
    int process(const float *in, int frames, float *out);

    /// Drops the audio held back: the next frame in is the first of a new stream.
    void restart();

    /// Input frames taken in whose output has not come out yet.
    double withheldInputFrames() const;

private:
    struct Destroy
    {
        void operator()(DSPB_Resampler *resampler) const;
    };

    std::vector<std::unique_ptr<DSPB_Resampler, Destroy>> m_resamplers;
    size_t m_outputFrames = 0;   // room for a channel of the converted chunk
    std::vector<float> m_input;  // some channels of a chunk, one after the other
    std::vector<float> m_output; // the same, converted
};

} // namespace QTovelMixer

#endif
