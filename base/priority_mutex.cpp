// SPDX-License-Identifier: MIT
#include <base/priority_mutex_p.h>

namespace QTovelMixer {

#if defined(Q_OS_UNIX)

namespace {

/// Answers whether the mutex has been made.
bool make(pthread_mutex_t &mutex, int protocol) noexcept
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const bool made = pthread_mutexattr_setprotocol(&attributes, protocol) == 0 &&
                      pthread_mutex_init(&mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return made;
}

} // namespace

PriorityMutex::PriorityMutex()
{
    m_inherits = make(m_mutex, PTHREAD_PRIO_INHERIT);
    if (!m_inherits)
        make(m_mutex, PTHREAD_PRIO_NONE);
}

PriorityMutex::~PriorityMutex()
{
    pthread_mutex_destroy(&m_mutex);
}

void PriorityMutex::lock() noexcept
{
    pthread_mutex_lock(&m_mutex);
}

bool PriorityMutex::tryLock() noexcept
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void PriorityMutex::unlock() noexcept
{
    pthread_mutex_unlock(&m_mutex);
}

#else

PriorityMutex::PriorityMutex() = default;

PriorityMutex::~PriorityMutex() = default;

void PriorityMutex::lock() noexcept
{
    m_mutex.lock();
}

bool PriorityMutex::tryLock() noexcept
{
    return m_mutex.try_lock();
}

void PriorityMutex::unlock() noexcept
{
    m_mutex.unlock();
}

#endif

} // namespace QTovelMixer
