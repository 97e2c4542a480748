// SPDX-License-Identifier: MIT
#include <mixer/engine/block_lock_p.h>

#include <base/nonblocking_p.h>
#include <base/trace_p.h>

namespace QTovelMixer {

void UpdateLock::lock() noexcept
{
    m_mutex.lock();
    holdLines();
}

bool UpdateLock::tryLock() noexcept
{
    if (!m_mutex.tryLock())
        return false;
    holdLines();
    return true;
}

void UpdateLock::unlock() noexcept
{
    m_mutex.unlock();
    releaseLines();
}

BlockLock::BlockLock(UpdateLock &updateLock, bool wait, FreewheelLock *freewheel) noexcept
    : m_updateLock(updateLock), m_freewheel(freewheel), m_locked(false)
{
    beginCallback();
    const RealtimeCheckPause pause;
    m_locked = assumeNonblocking([this, wait] {
        if (wait)
            m_updateLock.m_mutex.lock();
        else if (!m_updateLock.m_mutex.tryLock())
            return false;
        if (m_freewheel)
            m_freewheel->lock();
        return true;
    });
}

BlockLock::~BlockLock() noexcept
{
    if (m_locked) {
        const RealtimeCheckPause pause;
        assumeNonblocking([this] {
            if (m_freewheel)
                m_freewheel->unlock();
            m_updateLock.m_mutex.unlock();
        });
    }
    endCallback();
}

} // namespace QTovelMixer
