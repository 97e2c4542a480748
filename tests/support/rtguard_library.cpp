// SPDX-License-Identifier: MIT
// Stands in front of the C library's functions for the whole program and counts the calls made on a
// watched thread.
#include <support/rtguard_p.h>

#if QTOVELMIXER_GUARD_LIBRARY_CALLS

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>

#include <cerrno>
#include <cstddef>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace {
void check(const char *what, size_t number = 0)
{
    if (RealtimeWatch::isOn())
        RealtimeWatch::report(what, static_cast<long>(number));
}

// The C library's own function of that name; looked up at the first call, which may come before
// any constructor has run.
template <typename Function>
Function *next(Function *&kept, const char *name)
{
    Function *found = __atomic_load_n(&kept, __ATOMIC_RELAXED);
    if (!found) {
        found = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
        __atomic_store_n(&kept, found, __ATOMIC_RELAXED);
    }
    return found;
}

decltype(pthread_mutex_lock) *mutexLock;
decltype(pthread_cond_signal) *condSignal;
decltype(pthread_cond_broadcast) *condBroadcast;
decltype(pthread_cond_wait) *condWait;
decltype(pthread_cond_timedwait) *condTimedWait;
decltype(pthread_cond_clockwait) *condClockWait;

// A look-up on a watched thread would itself lock and allocate.
__attribute__((constructor)) void lookUpAll()
{
    next(mutexLock, "pthread_mutex_lock");
    next(condSignal, "pthread_cond_signal");
    next(condBroadcast, "pthread_cond_broadcast");
    next(condWait, "pthread_cond_wait");
    next(condTimedWait, "pthread_cond_timedwait");
    next(condClockWait, "pthread_cond_clockwait");
}
} // namespace

extern "C" {

void *malloc(size_t size)
{
    check("malloc", size);
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    check("calloc", count * size);
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    check("realloc", size);
    return __libc_realloc(block, size);
}

void free(void *block)
{
    if (block)
        check("free");
    __libc_free(block);
}

void *memalign(size_t alignment, size_t size)
{
    check("memalign", size);
    return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    check("aligned_alloc", size);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void **block, size_t alignment, size_t size)
{
    check("posix_memalign", size);
    if (alignment < sizeof(void *) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void *const result = __libc_memalign(alignment, size);
    if (!result)
        return ENOMEM;
    *block = result;
    return 0;
}

int pthread_mutex_lock(pthread_mutex_t *mutex)
{
    check("pthread_mutex_lock");
    return next(mutexLock, "pthread_mutex_lock")(mutex);
}

int pthread_cond_signal(pthread_cond_t *condition)
{
    check("pthread_cond_signal");
    return next(condSignal, "pthread_cond_signal")(condition);
}

int pthread_cond_broadcast(pthread_cond_t *condition)
{
    check("pthread_cond_broadcast");
    return next(condBroadcast, "pthread_cond_broadcast")(condition);
}

int pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex)
{
    check("pthread_cond_wait");
    return next(condWait, "pthread_cond_wait")(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                           const struct timespec *end)
{
    check("pthread_cond_timedwait");
    return next(condTimedWait, "pthread_cond_timedwait")(condition, mutex, end);
}

int pthread_cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex, clockid_t clock,
                           const struct timespec *end)
{
    check("pthread_cond_clockwait");
    return next(condClockWait, "pthread_cond_clockwait")(condition, mutex, clock, end);
}
}

#endif
