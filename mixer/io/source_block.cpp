// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/trace_p.h>
#include <dsp/kernels_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/io/effect.h>
#include <mixer/io/source_p.h>

#include <algorithm>
#include <array>

namespace QTovelMixer {
namespace {

using Bus = aligned_vector<float, 16>;

void clear(Bus *outputs, int channels) noexcept
{
    for (int c = 0; c < channels; ++c)
        outputs[c].zero();
}

/// Frames of `width` interleaved channels into the buses; a gain of 1 copies bit for bit.
void render(const float *frames, int width, qint64 count, float gain, Bus *outputs,
            int channels) noexcept
{
    constexpr int group = 32;
    const bool unity = qFuzzyCompare(gain, 1.0f);
    for (int first = 0; first < channels; first += group) {
        const int some = std::min(channels - first, group);
        std::array<float *, group> to;
        for (int c = 0; c < some; ++c)
            to[static_cast<size_t>(c)] = outputs[first + c].data();
        if (unity)
            Kernels::deinterleave(frames + first, static_cast<size_t>(width), to.data(),
                                  static_cast<size_t>(some), static_cast<size_t>(count));
        else
            Kernels::deinterleave(frames + first, static_cast<size_t>(width), to.data(),
                                  static_cast<size_t>(some), static_cast<size_t>(count), gain);
    }
}

} // namespace

void Source::mixer_callback(Bus *outputs, int channels, long long mixerFrame, Effect *effect)
{
    if (channels < 1)
        return;
    const bool isRunningNow = d->running.load(std::memory_order_acquire) != 0;
    FrameRing *ring = d->ring.load(std::memory_order_acquire);
    if (!ring || !isRunningNow || d->pendingUpdates.load() != 0) {
        TraceLine("Source::mixer_callback early-return")
            .item("source", this)
            .item("buffer", ring ? ring->handle() : nullptr)
            .item("isRunning", isRunningNow)
            .item("isPaused", isPaused())
            .item("mixerFrame", qint64{mixerFrame});
        clear(outputs, channels);
        return;
    }
    const double now = time(false);
    FrameRing::Slice slice = ring->readSlice();
    if (now < 0.0) {
        TraceLine("Source::mixer_callback negative mixer_time")
            .item("source", this)
            .item("mixer_time", now)
            .item("mixerFrame", qint64{mixerFrame});
        // Consumed, not flushed: the worker may be writing, and the frame base must stay true.
        ring->consume(slice.frames);
        clear(outputs, channels);
        return;
    }
    const bool followsClock = timeline() && !d->range.load().isValid();
    if (followsClock && !d->alignBlock(*ring, slice, mixerFrame)) {
        clear(outputs, channels);
        return;
    }

    const qint64 length = static_cast<qint64>(outputs[0].size());
    const qint64 frames = std::min(slice.frames, length);
    const int width = ring->channels();
    if (effect && width == channels && effect->numChannels() == static_cast<unsigned>(channels))
        effect->process(slice.data, channels, static_cast<int>(frames));
    const int rendered = std::min(channels, width);
    render(slice.data, width, frames, d->gain.load(std::memory_order_relaxed), outputs, rendered);
    for (int c = 0; c < channels; ++c)
        outputs[c].zero(c < rendered ? static_cast<size_t>(frames) : 0, outputs[c].size());
    ring->consume(frames);
    d->consumedFrames.fetch_add(frames, std::memory_order_relaxed);
}

/// Brings the ring's next frame to the block's first one. False when the block has to be silent.
bool Source::Data::alignBlock(FrameRing &from, FrameRing::Slice &slice, qint64 mixerFrame) noexcept
{
    const qint64 expected = frameBase.load(std::memory_order_relaxed) + slice.position;
    const qint64 ahead = mixerFrame - expected;
    if (ahead < 0)
        return false;
    const qint64 skipped = std::min(ahead, slice.frames);
    if (skipped > 0) {
        from.consume(skipped);
        consumedFrames.fetch_add(skipped, std::memory_order_relaxed);
    }
    if (ahead > slice.frames)
        return false;
    slice.data += skipped * from.channels();
    slice.frames -= skipped;
    return true;
}

} // namespace QTovelMixer
