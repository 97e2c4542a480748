// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/trace_p.h>
#include <dsp/kernels_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/io/effect_p.h>
#include <mixer/io/source_p.h>

#include <algorithm>

namespace QTovelMixer {
namespace {

using Bus = aligned_vector<float, 16>;

[[gnu::cold, gnu::noinline]] void clear(Bus *outputs, int channels) noexcept
{
    for (int c = 0; c < channels; ++c)
        outputs[c].zero();
}

[[gnu::cold, gnu::noinline]] void traceRest(const Source &source, const FrameRing *ring,
                                            bool isRunning, qint64 mixerFrame) noexcept
{
    TraceLine("Source::mixer_callback early-return")
        .item("source", &source)
        .item("buffer", ring ? ring->handle() : nullptr)
        .item("isRunning", isRunning)
        .item("isPaused", source.Source::isPaused()) // the subclass may be gone already
        .item("mixerFrame", mixerFrame);
}

[[gnu::cold, gnu::noinline]] void traceOutside(const Source &source, double now,
                                               qint64 mixerFrame) noexcept
{
    TraceLine("Source::mixer_callback negative mixer_time")
        .item("source", &source)
        .item("mixer_time", now)
        .item("mixerFrame", mixerFrame);
}

void zeroFrom(size_t first, Bus &output) noexcept
{
    if (first < output.size()) [[unlikely]]
        output.zero(first, output.size());
}

/// The first frames of `width` interleaved samples into the buses, and silence behind them; a gain
/// of 1 copies bit for bit.
[[gnu::noinline]] void render(const float *in, int width, size_t frames, float gain, Bus *outputs,
                              int channels) noexcept
{
    constexpr int group = 32;
    const int shared = std::min(channels, width);
    for (int done = 0; done < shared; done += group) {
        const int some = std::min(shared - done, group);
        float *to[group];
        for (int c = 0; c < some; ++c)
            to[c] = outputs[done + c].data();
        if (qFuzzyCompare(gain, 1.0f))
            Kernels::deinterleave(in + done, size_t(width), to, size_t(some), frames);
        else
            Kernels::deinterleave(in + done, size_t(width), to, size_t(some), frames, gain);
    }
    for (int c = 0; c < channels; ++c)
        zeroFrom(c < shared ? frames : 0, outputs[c]);
}

/// The same for two channels, as nearly all material has.
inline void renderStereo(const float *in, size_t frames, float gain, Bus *outputs) noexcept
{
    float *const left = outputs[0].data();
    float *const right = outputs[1].data();
    if (qFuzzyCompare(gain, 1.0f))
        Kernels::deinterleave(in, left, right, frames);
    else
        Kernels::deinterleave(in, left, right, frames, gain);
    zeroFrom(frames, outputs[0]);
    zeroFrom(frames, outputs[1]);
}

} // namespace

/// Only this thread writes the count: it needs no locked instruction.
inline void Source::Data::countConsumed(qint64 frames) noexcept
{
    consumedFrames.store(consumedFrames.load(std::memory_order_relaxed) + frames,
                         std::memory_order_relaxed);
}

/// Brings the ring's next frame forward to the block's first one, `ahead` frames off. Answers the
/// frames skipped of the `readable` ones, or -1 when the block has to be silent.
[[gnu::noinline]] qint64 Source::Data::alignBlock(FrameRing &from, qint64 readable,
                                                  qint64 ahead) noexcept
{
    if (ahead < 0)
        return -1;
    const qint64 skipped = std::min(ahead, readable);
    if (skipped > 0) {
        from.consume(skipped);
        countConsumed(skipped);
    }
    return ahead > readable ? -1 : skipped;
}

void Source::mixer_callback(Bus *outputs, int channels, long long mixerFrame, Effect *effect)
{
    if (channels < 1)
        return;
    Data &data = *d;
    const bool isRunningNow = data.running.load() != 0;
    FrameRing *const ring = data.ring.load(std::memory_order_acquire);
    if (!ring || !isRunningNow || data.pendingUpdates.load() != 0) [[unlikely]] {
        traceRest(*this, ring, isRunningNow, mixerFrame);
        clear(outputs, channels);
        return;
    }
    const double now = time(false);
    if (now < 0.0) [[unlikely]] {
        traceOutside(*this, now, mixerFrame);
        // Consumed, not flushed: the worker may be writing, and the frame base must stay true.
        ring->consume(ring->readSlice().frames);
        clear(outputs, channels);
        return;
    }
    FrameRing::Slice slice = ring->readSlice();
    // A source with a range has no timeline: it plays through, wherever the clock stands.
    if (data.timeline.load(std::memory_order_acquire)) {
        const qint64 next = data.frameBase.load(std::memory_order_relaxed) + slice.position;
        if (mixerFrame != next) [[unlikely]] {
            const qint64 skipped = data.alignBlock(*ring, slice.frames, mixerFrame - next);
            if (skipped < 0)
                return clear(outputs, channels);
            slice.data += skipped * ring->channels();
            slice.frames -= skipped;
        }
    }

    const qint64 frames = std::min(slice.frames, static_cast<qint64>(outputs[0].size()));
    const int width = ring->channels();
    if (effect && width == channels && effect->numChannels() == static_cast<unsigned>(channels))
        EffectAccess::run(*effect, slice.data, channels, static_cast<int>(frames));
    const float gain = data.gain.load(std::memory_order_relaxed);
    if (channels == 2 && width == 2) [[likely]]
        renderStereo(slice.data, static_cast<size_t>(frames), gain, outputs);
    else
        render(slice.data, width, static_cast<size_t>(frames), gain, outputs, channels);
    ring->consume(frames);
    data.countConsumed(frames);
}

} // namespace QTovelMixer
