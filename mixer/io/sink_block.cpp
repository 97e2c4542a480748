// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <base/debug.h>
#include <base/nonblocking_p.h>
#include <base/trace_p.h>
#include <mixer/aligned_vector.h>
#include <mixer/io/sink_p.h>

#include <algorithm>

namespace QTovelMixer {

static void interleaveFrames(const aligned_vector<float, 16> *inputs, int channels, qint64 first,
                             qint64 frames, float *out) noexcept
{
    for (int c = 0; c < channels; ++c) {
        const float *in = inputs[c].constData() + first;
        float *to = out + c;
        for (qint64 i = 0; i < frames; ++i, to += channels)
            *to = in[i];
    }
}

/// Takes the block's part of the lead-in away. Answers the first frame to record, or −1 when the
/// whole block goes.
qint64 Sink::Data::takeLeadIn(qint64 blockFrames) noexcept
{
    const qint64 skip = skipFrames.load(std::memory_order_relaxed);
    if (skip <= 0)
        return 0;
    const bool whole = skip >= blockFrames;
    skipFrames.store(whole ? skip - blockFrames : 0, std::memory_order_relaxed);
    return whole ? -1 : skip;
}

void Sink::Data::countRecorded(qint64 frames) noexcept
{
    recordedFrames.store(recordedFrames.load(std::memory_order_relaxed) + frames,
                         std::memory_order_relaxed);
}

/// Lines the ring up with the block; `slice` is then the room at the block's place.
/// Answers whether the block can be recorded.
bool Sink::Data::fillGap(const Sink *sink, FrameRing::Slice &slice, qint64 mixerFrame) noexcept
{
    const qint64 expected = frameBase.load(std::memory_order_relaxed) + slice.position;
    const qint64 offset = mixerFrame - expected;
    if (offset == 0)
        return true;
    TraceLine("Sink::mixer_callback frame-offset")
        .item("sink", sink)
        .item("frame_offset", offset)
        .item("mixer_frame", mixerFrame)
        .item("buffer_frame", expected)
        .item("frames_in_slice", slice.frames);
    // Inside a callback it goes the way of trace lines.
    assumeNonblocking([=] {
        BLDEBUG_Message(-1, "Frame Offset = %d (mixer = %d, buffer_frame = %d)",
                        static_cast<int>(offset), static_cast<int>(mixerFrame),
                        static_cast<int>(expected));
    });
    if (offset < 0)
        return false;
    const qint64 gap = std::min(offset, slice.frames);
    std::fill_n(slice.data, gap * ring->channels(), 0.0f);
    ring->produce(gap);
    // Silence that the ring could not take whole does not count as recorded.
    if (offset > gap)
        return false;
    countRecorded(gap);
    slice = ring->writeSlice();
    return true;
}

void Sink::mixer_callback(aligned_vector<float, 16> *inputs, int channels, long long mixerFrame)
{
    if (channels < 1)
        return;
    if (d->running.load(std::memory_order_acquire) == 0) {
        TraceLine("Sink::mixer_callback early-return not-running")
            .item("sink", this)
            .item("mixerFrame", qint64{mixerFrame});
        return;
    }
    // The ring keeps the width that the host asked for when the worker began.
    if (channels != d->ring->channels())
        return;
    const qint64 blockFrames = static_cast<qint64>(inputs[0].size());
    const qint64 first = d->takeLeadIn(blockFrames);
    if (first < 0)
        return;
    FrameRing::Slice slice = d->ring->writeSlice();
    if (!d->fillGap(this, slice, mixerFrame))
        return;
    const qint64 frames = std::min(blockFrames - first, slice.frames);
    interleaveFrames(inputs, channels, first, frames, slice.data);
    d->ring->produce(frames);
    d->countRecorded(frames);
}

} // namespace QTovelMixer
