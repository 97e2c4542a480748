// SPDX-License-Identifier: MIT
// One block, on the audio thread: from RtAudio's buffers to the engine and back.
#include <mixer/api/api_rtaudio_p.h>

#include <base/clock_p.h>
#include <base/log_line_p.h>
#include <base/trace_p.h>
#include <mixer/api/block_answer_p.h>
// A backend hands its blocks to the engine above it.
#include <mixer/engine.h>

#include <algorithm>
#include <cstring>

namespace BlockAnswer = QTovelMixer::BlockAnswer;
using QTovelMixer::assumeNonblocking;
using QTovelMixer::monotonicNanoseconds;
using QTovelMixer::outsideCallback;
using QTovelMixer::TraceLine;

namespace {

class InFlight
{
public:
    explicit InFlight(std::atomic<qint32> &counter) noexcept : m_counter(counter) { ++m_counter; }
    ~InFlight() { --m_counter; }
    Q_DISABLE_COPY_MOVE(InFlight)

private:
    std::atomic<qint32> &m_counter;
};

/// RtAudio's buffer without what was to be mixed into it.
int silence(float *output, size_t samples, int answer) noexcept
{
    if (output)
        std::fill_n(output, samples, 0.0f);
    return answer;
}

} // namespace

int QTovelMixerApiRtAudio::MixerCallback(void *outputBuffer, void *inputBuffer, unsigned int frames,
                                         double streamTime, unsigned int status,
                                         void *userData) noexcept
{
    if (!userData)
        return BlockAnswer::abort;
    return static_cast<QTovelMixerApiRtAudio *>(userData)->r->streamBlock(
        outputBuffer, inputBuffer, frames, streamTime, status);
}

int QTovelMixerApiRtAudio::RtAudioData::streamBlock(void *output, void *input, unsigned frames,
                                                    double streamTime, unsigned status) noexcept
{
    const QTovelMixer::AudioThreadMark mark;
    const InFlight inFlight(callbacksInFlight);
    auto *const to = static_cast<float *>(output);
    const size_t inputSamples = size_t(frames) * inputChannels.load(std::memory_order_relaxed);
    const size_t outputSamples = size_t(frames) * outputChannels.load(std::memory_order_relaxed);
    if (closing.load() != 0) {
        tellClosing(frames, streamTime);
        return silence(to, outputSamples, BlockAnswer::abort);
    }
    Block *const in = inputBlock.load(std::memory_order_acquire);
    Block *const out = outputBlock.load(std::memory_order_acquire);
    if (!in || !out) {
        tellMissing(in, out, frames);
        return silence(to, outputSamples, BlockAnswer::goOn);
    }
    if (in->size() < inputSamples || out->size() < outputSamples) {
        tellMismatch(*in, inputSamples, *out, outputSamples);
        return silence(to, outputSamples, BlockAnswer::goOn);
    }

    const qint64 begin = monotonicNanoseconds();
    if (input)
        std::memcpy(in->data(), input, inputSamples * sizeof(float));
    else
        in->zero();
    // A block that the engine lets pass must not repeat the one before.
    out->zero();
    overflows += (status & RTAUDIO_INPUT_OVERFLOW) != 0 ? 1 : 0;
    underflows += (status & RTAUDIO_OUTPUT_UNDERFLOW) != 0 ? 1 : 0;
    const int answer = q->mixerCallback(*in, *out, frames, streamTime,
                                        (status & 3) | QTovelMixer::Engine::BlockMustNotWait);
    ++blocks;
    if (monotonicNanoseconds() - begin >
        qint64(1e9 * frames / std::max(streamRate.load(std::memory_order_relaxed), 1u)))
        ++lateBlocks;

    if (answer == BlockAnswer::drain || answer == BlockAnswer::abort) {
        TraceLine(answer == BlockAnswer::drain ? "RtAudio::MixerCallback mixer requested stop"
                                               : "RtAudio::MixerCallback mixer requested abort")
            .item("api", q)
            .item("frames", frames)
            .item("streamTime", streamTime);
        return silence(to, outputSamples, answer);
    }
    if (output)
        std::memcpy(output, out->data(), outputSamples * sizeof(float));
    return BlockAnswer::goOn;
}

[[gnu::cold]] void QTovelMixerApiRtAudio::RtAudioData::tellClosing(unsigned frames,
                                                                   double streamTime) noexcept
{
    TraceLine("RtAudio::MixerCallback abort closing")
        .item("api", q)
        .item("frames", frames)
        .item("streamTime", streamTime)
        .item("callbacks", callbacksInFlight.load());
}

[[gnu::cold]] void QTovelMixerApiRtAudio::RtAudioData::tellMissing(const Block *in,
                                                                   const Block *out,
                                                                   unsigned frames) noexcept
{
    TraceLine("RtAudio::MixerCallback null-vectors")
        .item("api", q)
        .item("inVector", static_cast<const void *>(in))
        .item("outVector", static_cast<const void *>(out))
        .item("frames", frames);
    ++droppedBlocks;
}

[[gnu::cold]] void QTovelMixerApiRtAudio::RtAudioData::tellMismatch(const Block &in,
                                                                    size_t expectedIn,
                                                                    const Block &out,
                                                                    size_t expectedOut) noexcept
{
    constexpr const char *differs = "QTovelMixerApiRtAudio::MixerCallback: callback buffer "
                                    "size differs from stream buffer size";
    // Asking for the thread reads a register.
    if (assumeNonblocking([this] { return std::this_thread::get_id() == maker; }))
        outsideCallback([] { QTovelMixer::writeWarning("%s", differs); });
    else if (Instance *instance = streaming.load(std::memory_order_acquire))
        instance->warn(differs);
    TraceLine("RtAudio::MixerCallback size-mismatch")
        .item("api", q)
        .item("inSize", quint64(in.size()))
        .item("outSize", quint64(out.size()))
        .item("expectedIn", quint64(expectedIn))
        .item("expectedOut", quint64(expectedOut));
    ++droppedBlocks;
}
