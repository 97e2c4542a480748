// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_WAKE_SIGNAL_P_H
#define QTOVELMIXER_BASE_WAKE_SIGNAL_P_H

#include <QtCore/QtGlobal>

#if defined(Q_OS_DARWIN)
#include <dispatch/dispatch.h>
#elif defined(Q_OS_UNIX)
#include <semaphore.h>

#include <ctime>

#if defined(__GLIBC__)
#if __GLIBC_PREREQ(2, 30)
#define QTOVELMIXER_HAS_SEM_CLOCKWAIT
#endif
#endif
#else
#include <QtCore/QSemaphore>
#endif

namespace QTovelMixer {

/// Wakes the one thread that sleeps on it. `post` takes no lock, so that it neither waits for a
/// thread of a lower priority nor hangs in the handler of a signal.
class WakeSignal
{
public:
    Q_DISABLE_COPY_MOVE(WakeSignal)

#if defined(Q_OS_DARWIN)
    WakeSignal() = default;
    void post() noexcept
    {
        dispatch_semaphore_signal(m_semaphore);
    }
    void wait(int milliseconds) noexcept
    {
        dispatch_semaphore_wait(m_semaphore,
                                dispatch_time(DISPATCH_TIME_NOW, qint64(milliseconds) * 1000000));
    }

private:
    dispatch_semaphore_t m_semaphore = dispatch_semaphore_create(0);
#elif defined(Q_OS_UNIX)
    WakeSignal() noexcept
    {
        sem_init(&m_semaphore, 0, 0);
    }
    void post() noexcept
    {
        sem_post(&m_semaphore);
    }

    /// Returns after a post, after the time, or for no reason.
    void wait(int milliseconds) noexcept
    {
        timespec end;
        clock_gettime(clock, &end);
        end.tv_nsec += milliseconds % 1000 * 1000000L;
        end.tv_sec += milliseconds / 1000 + end.tv_nsec / 1000000000L;
        end.tv_nsec %= 1000000000L;
#if defined(QTOVELMIXER_HAS_SEM_CLOCKWAIT)
        sem_clockwait(&m_semaphore, clock, &end);
#else
        sem_timedwait(&m_semaphore, &end);
#endif
    }

private:
#if defined(QTOVELMIXER_HAS_SEM_CLOCKWAIT)
    static constexpr clockid_t clock = CLOCK_MONOTONIC;
#else
    static constexpr clockid_t clock = CLOCK_REALTIME;
#endif
    sem_t m_semaphore;
#else
    WakeSignal() = default;
    void post()
    {
        m_semaphore.release();
    }
    void wait(int milliseconds)
    {
        m_semaphore.tryAcquire(1, milliseconds);
    }

private:
    QSemaphore m_semaphore;
#endif
};

} // namespace QTovelMixer

#endif
