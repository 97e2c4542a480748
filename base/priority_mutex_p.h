// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_PRIORITY_MUTEX_P_H
#define QTOVELMIXER_BASE_PRIORITY_MUTEX_P_H

#include <QtCore/QtGlobal>

#if defined(Q_OS_UNIX)
#include <pthread.h>
#else
#include <mutex>
#endif

namespace QTovelMixer {

/// A recursive mutex whose owner runs at the priority of the highest thread that waits for it:
/// threads of a priority between the two cannot make the wait longer. On systems without POSIX
/// threads, and where the protocol is refused, it is an ordinary recursive mutex.
/// Free, it is taken and released without a system call.
class PriorityMutex
{
public:
    PriorityMutex();
    ~PriorityMutex();
    Q_DISABLE_COPY_MOVE(PriorityMutex)

    void lock() noexcept;
    /// Answers false when another thread holds it.
    bool tryLock() noexcept;
    void unlock() noexcept;

    /// What the system answered when it was asked for the protocol.
    bool inheritsPriority() const noexcept { return m_inherits; }

private:
#if defined(Q_OS_UNIX)
    pthread_mutex_t m_mutex;
#else
    std::recursive_mutex m_mutex;
#endif
    bool m_inherits = false;
};

} // namespace QTovelMixer

#endif
