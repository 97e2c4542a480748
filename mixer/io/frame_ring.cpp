// SPDX-License-Identifier: MIT
#include <mixer/io/frame_ring_p.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <new>

namespace QTovelMixer {

FrameRing::FrameRing(qint64 frames, int channels)
    : m_channels(std::clamp(channels, 0, maxChannels)), m_frameBytes(frameBytes(m_channels))
{
    if (std::has_single_bit(unsigned(m_frameBytes)))
        m_shift = std::countr_zero(unsigned(m_frameBytes));
    const qint64 fitting = fittingFrames(frames, channels);
    m_ring = createRing(static_cast<qint32>(fitting * m_frameBytes), MirroredMemory::Mapped);
    if (!m_ring)
        throw std::bad_alloc();
    m_capacity = writeSlice().frames;
}

int FrameRing::frameBytes(int channels) noexcept
{
    return std::clamp(channels, 1, maxChannels) * static_cast<int>(sizeof(float));
}

qint64 FrameRing::fittingFrames(qint64 frames, int channels) noexcept
{
    const qint64 most = std::numeric_limits<qint32>::max() / frameBytes(channels);
    return channels > 0 ? std::clamp<qint64>(frames, 0, most) : 0;
}

FrameRing::~FrameRing()
{
    BLRINGBUFFER_Destroy(&m_ring);
}

void FrameRing::produce(qint64 frames) noexcept
{
    BLRINGBUFFER_Produce(m_ring, static_cast<qint32>(frames * m_frameBytes));
}

void FrameRing::flush() noexcept
{
    BLRINGBUFFER_Flush(m_ring);
}

bool FrameRing::isEmpty() const noexcept
{
    return BLRINGBUFFER_FillCount(m_ring) <= 0;
}

qint64 FrameRing::fillFrames() const noexcept
{
    return BLRINGBUFFER_FillCount(m_ring) / m_frameBytes;
}

} // namespace QTovelMixer
