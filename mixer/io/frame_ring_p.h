// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_FRAME_RING_P_H
#define QTOVELMIXER_MIXER_IO_FRAME_RING_P_H

#include <base/nonblocking.h>
#include <base/ringbuffer_p.h>

#include <QtCore/QtGlobal>

namespace QTovelMixer {

/// Interleaved float frames over the byte ring. Single producer, single consumer: readSlice
/// and consume belong to the consumer, writeSlice and produce to the producer, isEmpty and
/// fillFrames to any thread.
/// Everything but the constructor and the destructor is wait-free. Real-time: yes.
class FrameRing
{
    Q_DISABLE_COPY_MOVE(FrameRing)

public:
    /// A run of consecutive frames in the ring.
    struct Slice
    {
        qint64 position = 0;   // frames consumed (produced) before it since creation or flush
        float *data = nullptr; // its first frame
        qint64 frames = 0;
    };

    /// Takes all memory. A size beyond what the byte ring can hold is cut to whole frames;
    /// counts of 0 or less give a ring without room. With `OnTouch` the producer calls `touch`.
    /// Errors: throws std::bad_alloc.
    FrameRing(qint64 frames, int channels, MirroredMemory::Paging paging = MirroredMemory::Present);
    ~FrameRing();

    /// As many of `frames` frames as a ring can hold.
    static qint64 fittingFrames(qint64 frames, int channels) noexcept QTOVELMIXER_NONBLOCKING;

    int channels() const noexcept { return m_channels; }

    /// What the ring holds at most, in frames.
    qint64 capacity() const noexcept { return m_capacity; }

    Slice readSlice() const noexcept QTOVELMIXER_NONBLOCKING;
    Slice writeSlice() noexcept QTOVELMIXER_NONBLOCKING;

    /// Commits frames written at the last write slice. A negative count withdraws that many of
    /// the newest frames; neither side may be at work meanwhile.
    void produce(qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;
    void consume(qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;

    /// Takes the page faults of the first `frames` frames of the write slice before they are
    /// produced, in the first lap through the ring: the consumer takes none. The producer's.
    void touch(qint64 frames) noexcept;

    /// Discards everything; both sides' positions restart at 0. Neither side may be at work.
    void flush() noexcept QTOVELMIXER_NONBLOCKING;

    bool isEmpty() const noexcept QTOVELMIXER_NONBLOCKING;

    /// Frames in the ring at this moment.
    qint64 fillFrames() const noexcept QTOVELMIXER_NONBLOCKING;

    /// The byte ring's identity, for trace lines.
    const void *handle() const noexcept { return m_ring; }

private:
    // Arbitrary; keeps the bytes of a frame within an int.
    static constexpr int maxChannels = 1 << 20;

    static int frameBytes(int channels) noexcept QTOVELMIXER_NONBLOCKING;
    Slice inFrames(const BLRINGBUFFER_Slice &bytes) const noexcept QTOVELMIXER_NONBLOCKING;

    BLRINGBUFFER *m_ring = nullptr;
    int m_channels = 0;
    int m_frameBytes = 4;
    int m_shift = -1; // log2 of m_frameBytes, where it is a power of two: divisions take long
    qint64 m_capacity = 0;
    size_t m_touched = 0; // bytes from the memory's start on whose page faults were taken
};

inline FrameRing::Slice
FrameRing::inFrames(const BLRINGBUFFER_Slice &bytes) const noexcept QTOVELMIXER_NONBLOCKING
{
    auto *const data = reinterpret_cast<float *>(bytes.data);
    if (m_shift >= 0)
        return {static_cast<qint64>(bytes.position >> m_shift), data, bytes.length >> m_shift};
    return {static_cast<qint64>(bytes.position / static_cast<quint64>(m_frameBytes)), data,
            bytes.length / m_frameBytes};
}

inline FrameRing::Slice FrameRing::readSlice() const noexcept
{
    return m_ring ? inFrames(m_ring->readSlice()) : Slice();
}

inline FrameRing::Slice FrameRing::writeSlice() noexcept
{
    return m_ring ? inFrames(m_ring->writeSlice()) : Slice();
}

inline void FrameRing::consume(qint64 frames) noexcept
{
    if (m_ring && frames > 0)
        m_ring->consume(static_cast<quint64>(frames * m_frameBytes));
}

} // namespace QTovelMixer

#endif
