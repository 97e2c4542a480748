// SPDX-License-Identifier: MIT
#include <mixer/io/frame_ring_p.h>

#include <algorithm>
#include <bit>
#include <limits>
#include <new>

namespace QTovelMixer {

FrameRing::FrameRing(qint64 frames, int channels, MirroredMemory::Paging paging)
    : m_channels(std::clamp(channels, 0, maxChannels)), m_frameBytes(frameBytes(m_channels))
{
    if (std::has_single_bit(unsigned(m_frameBytes)))
        m_shift = std::countr_zero(unsigned(m_frameBytes));
    const qint64 fitting = fittingFrames(frames, channels);
    m_ring =
        createRing(static_cast<qint32>(fitting * m_frameBytes), MirroredMemory::Mapped, paging);
    if (!m_ring)
        throw std::bad_alloc();
    m_capacity = writeSlice().frames;
    if (paging == MirroredMemory::Present)
        m_touched = m_ring->memory.size();
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

void FrameRing::touch(qint64 frames) noexcept
{
    const MirroredMemory &memory = m_ring->memory;
    if (m_touched >= memory.size() || frames <= 0)
        return;
    const auto first = static_cast<size_t>(m_ring->writeSlice().data - memory.data());
    const size_t end = first + static_cast<size_t>(frames * m_frameBytes);
    if (end <= m_touched)
        return;
    memory.touch(m_touched, end - m_touched);
    m_touched = end;
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
