// SPDX-License-Identifier: MIT
// One block, on the audio thread.
#include <mixer/api/api_rtaudio_p.h>

#include <base/clock_p.h>
#include <base/log_line_p.h>
#include <base/trace_p.h>

#include <algorithm>
#include <cstring>

using QTovelMixer::assumeNonblocking;
using QTovelMixer::monotonicNanoseconds;
using QTovelMixer::outsideCallback;
using QTovelMixer::TraceLine;

namespace {

constexpr int callbackGoOn = 0;
constexpr int callbackStop = 1;
constexpr int callbackAbort = 2;
constexpr unsigned hardwareCallback = 4;

class InFlight
{
public:
    explicit InFlight(std::atomic<qint32> &counter) noexcept : m_counter(counter) { ++m_counter; }
    ~InFlight() { --m_counter; }
    Q_DISABLE_COPY_MOVE(InFlight)

private:
    std::atomic<qint32> &m_counter;
};

} // namespace

int QTovelMixerApiRtAudio::MixerCallback(void *outputBuffer, void *inputBuffer, unsigned int frames,
                                         double streamTime, unsigned int status,
                                         void *userData) noexcept
{
    if (!userData)
        return callbackAbort;
    const QTovelMixer::AudioThreadMark mark;
    RtAudioData &data = *static_cast<QTovelMixerApiRtAudio *>(userData)->r;
    const InFlight inFlight(data.callbacksInFlight);
    return data.runBlock(static_cast<float *>(outputBuffer), static_cast<float *>(inputBuffer),
                         frames, streamTime, status);
}

int QTovelMixerApiRtAudio::RtAudioData::streamBlock(void *output, void *input, unsigned frames,
                                                    double streamTime, unsigned status) noexcept
{
    return MixerCallback(output, input, frames, streamTime, status, q);
}

int QTovelMixerApiRtAudio::RtAudioData::runBlock(float *output, const float *input, unsigned frames,
                                                 double streamTime, unsigned status) noexcept
{
    const size_t inputSamples = size_t(frames) * inputChannels.load(std::memory_order_relaxed);
    const size_t outputSamples = size_t(frames) * outputChannels.load(std::memory_order_relaxed);
    const auto silence = [&](int answer) {
        if (output)
            std::fill_n(output, outputSamples, 0.0f);
        return answer;
    };
    if (closing.load() != 0) {
        TraceLine("RtAudio::MixerCallback abort closing")
            .item("api", q)
            .item("frames", frames)
            .item("streamTime", streamTime)
            .item("callbacks", callbacksInFlight.load());
        return silence(callbackAbort);
    }
    Block *in = inputBlock.load(std::memory_order_acquire);
    Block *out = outputBlock.load(std::memory_order_acquire);
    if (!in || !out) {
        TraceLine("RtAudio::MixerCallback null-vectors")
            .item("api", q)
            .item("inVector", static_cast<const void *>(in))
            .item("outVector", static_cast<const void *>(out))
            .item("frames", frames);
        ++droppedBlocks;
        return silence(callbackGoOn);
    }
    if (in->size() < inputSamples || out->size() < outputSamples) {
        constexpr const char *differs = "QTovelMixerApiRtAudio::MixerCallback: callback buffer "
                                        "size differs from stream buffer size";
        // Asking for the thread reads a register.
        if (assumeNonblocking([this] { return std::this_thread::get_id() == maker; }))
            outsideCallback([] { QTovelMixer::writeWarning("%s", differs); });
        else if (Instance *instance = streaming.load(std::memory_order_acquire))
            instance->warn(differs);
        TraceLine("RtAudio::MixerCallback size-mismatch")
            .item("api", q)
            .item("inSize", quint64(in->size()))
            .item("outSize", quint64(out->size()))
            .item("expectedIn", quint64(inputSamples))
            .item("expectedOut", quint64(outputSamples));
        ++droppedBlocks;
        return silence(callbackGoOn);
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
    const int answer =
        q->mixerCallback(*in, *out, frames, streamTime, (status & 3) | hardwareCallback);
    ++blocks;
    if (monotonicNanoseconds() - begin >
        qint64(1e9 * frames / std::max(streamRate.load(std::memory_order_relaxed), 1u)))
        ++lateBlocks;

    if (answer == callbackStop || answer == callbackAbort) {
        TraceLine(answer == callbackStop ? "RtAudio::MixerCallback mixer requested stop"
                                         : "RtAudio::MixerCallback mixer requested abort")
            .item("api", q)
            .item("frames", frames)
            .item("streamTime", streamTime);
        return silence(answer);
    }
    if (output)
        std::memcpy(output, out->data(), outputSamples * sizeof(float));
    return callbackGoOn;
}
