// SPDX-License-Identifier: MIT
#include <mixer/block_lock_p.h>

#include <base/nonblocking_p.h>

namespace QTovelMixer {

BlockLock::BlockLock(UpdateLock &updateLock, bool wait, HoldLock *hold) noexcept
    : m_updateLock(updateLock), m_hold(hold), m_locked(false)
{
    const RealtimeCheckPause pause;
    m_locked = assumeNonblocking([this, wait] {
        if (wait)
            m_updateLock.lock();
        else if (!m_updateLock.tryLock())
            return false;
        if (m_hold)
            m_hold->lock();
        return true;
    });
}

BlockLock::~BlockLock() noexcept
{
    if (!m_locked)
        return;
    const RealtimeCheckPause pause;
    assumeNonblocking([this] {
        if (m_hold)
            m_hold->unlock();
        m_updateLock.unlock();
    });
}

} // namespace QTovelMixer
