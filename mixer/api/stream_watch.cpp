// SPDX-License-Identifier: MIT
#include <mixer/api/stream_watch_p.h>

namespace QTovelMixer {

void StreamWatch::begin(unsigned rate, bool paced) noexcept
{
    *this = StreamWatch();
    m_rate = rate;
    m_paced = paced;
}

bool StreamWatch::block(unsigned frames, qint64 now, quint64 warnings) noexcept
{
    m_failing = warnings != m_warnings ? m_failing + 1 : 0;
    m_warnings = warnings;
    const bool fast = m_paced && tooFast(frames, now);
    return m_failing < failingBlocks && !fast;
}

bool StreamWatch::tooFast(unsigned frames, qint64 now) noexcept
{
    if (m_first) {
        m_first = false;
        m_since = now;
        m_frames = 0;
    }
    const qint64 elapsed = now - m_since;
    bool fast = false;
    if (elapsed >= measuredTime) {
        const double played = double(elapsed) * 1e-9 * double(m_rate);
        // A block may fall on either side of the measurement's ends.
        const double filling = double(m_mayFill ? prefill : 1) * frames;
        fast = double(m_frames) > fastest * played + filling;
        m_mayFill = elapsed > pause;
        m_since = now;
        m_frames = 0;
    }
    m_frames += frames;
    return fast;
}

} // namespace QTovelMixer
