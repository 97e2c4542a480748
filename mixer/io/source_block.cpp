// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/trace_p.h>
#include <dsp/kernels_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/io/effect.h>
#include <mixer/io/source_p.h>

#include <algorithm>

namespace QTovelMixer {
namespace {

using Bus = aligned_vector<float, 16>;

[[gnu::cold]] void clear(Bus *outputs, int channels) noexcept
{
    for (int c = 0; c < channels; ++c)
        outputs[c].zero();
}

[[gnu::cold]] void traceRest(const Source &source, const FrameRing *ring, bool isRunning,
                             qint64 mixerFrame) noexcept
{
    TraceLine("Source::mixer_callback early-return")
        .item("source", &source)
        .item("buffer", ring ? ring->handle() : nullptr)
        .item("isRunning", isRunning)
        .item("isPaused", source.isPaused())
        .item("mixerFrame", mixerFrame);
}

[[gnu::cold]] void traceOutside(const Source &source, double now, qint64 mixerFrame) noexcept
{
    TraceLine("Source::mixer_callback negative mixer_time")
        .item("source", &source)
        .item("mixer_time", now)
        .item("mixerFrame", mixerFrame);
}

/// Interleaved frames, and how much of each is wanted.
struct Rendering
{
    const float *frames;
    size_t width;
    size_t channels;
    size_t count;
    float gain;
};

void render(const Rendering &what, float *const *to, size_t first, size_t some) noexcept
{
    const float *const from = what.frames + first;
    if (qFuzzyCompare(what.gain, 1.0f))
        Kernels::deinterleave(from, what.width, to, some, what.count);
    else
        Kernels::deinterleave(from, what.width, to, some, what.count, what.gain);
}

void renderMany(const Rendering &what, Bus *outputs) noexcept
{
    constexpr size_t group = 32;
    for (size_t first = 0; first < what.channels; first += group) {
        const size_t some = std::min(what.channels - first, group);
        float *to[group];
        for (size_t c = 0; c < some; ++c)
            to[c] = outputs[first + c].data();
        render(what, to, first, some);
    }
}

/// Into the buses; a gain of 1 copies bit for bit.
void render(const Rendering &what, Bus *outputs) noexcept
{
    if (what.channels != 2)
        return renderMany(what, outputs);
    float *const to[] = {outputs[0].data(), outputs[1].data()};
    render(what, to, 0, 2);
}

} // namespace

/// Only this thread writes the count: it needs no locked instruction.
inline void Source::Data::countConsumed(qint64 frames) noexcept
{
    consumedFrames.store(consumedFrames.load(std::memory_order_relaxed) + frames,
                         std::memory_order_relaxed);
}

/// Brings the ring's next frame to the block's first one. False when the block has to be silent.
inline bool Source::Data::alignBlock(FrameRing &from, FrameRing::Slice &slice,
                                     qint64 mixerFrame) noexcept
{
    const qint64 expected = frameBase.load(std::memory_order_relaxed) + slice.position;
    const qint64 ahead = mixerFrame - expected;
    if (ahead < 0)
        return false;
    const qint64 skipped = std::min(ahead, slice.frames);
    if (skipped > 0) {
        from.consume(skipped);
        countConsumed(skipped);
    }
    if (ahead > slice.frames)
        return false;
    slice.data += skipped * from.channels();
    slice.frames -= skipped;
    return true;
}

void Source::mixer_callback(Bus *outputs, int channels, long long mixerFrame, Effect *effect)
{
    if (channels < 1)
        return;
    Data &data = *d;
    const bool isRunningNow = data.running.load(std::memory_order_acquire) != 0;
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
    const bool followsClock =
        data.timeline.load(std::memory_order_acquire) && !data.range.isValid();
    if (followsClock && !data.alignBlock(*ring, slice, mixerFrame)) [[unlikely]] {
        clear(outputs, channels);
        return;
    }

    const qint64 frames = std::min(slice.frames, static_cast<qint64>(outputs[0].size()));
    const int width = ring->channels();
    if (effect && width == channels && effect->numChannels() == static_cast<unsigned>(channels))
        effect->process(slice.data, channels, static_cast<int>(frames));
    const int rendered = std::min(channels, width);
    render({slice.data, static_cast<size_t>(width), static_cast<size_t>(rendered),
            static_cast<size_t>(frames), data.gain.load(std::memory_order_relaxed)},
           outputs);
    for (int c = 0; c < channels; ++c) {
        const size_t done = c < rendered ? static_cast<size_t>(frames) : 0;
        if (done < outputs[c].size()) [[unlikely]]
            outputs[c].zero(done, outputs[c].size());
    }
    ring->consume(frames);
    data.countConsumed(frames);
}

} // namespace QTovelMixer
