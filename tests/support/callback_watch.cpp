// SPDX-License-Identifier: MIT
// The linker puts these functions in the place of those that begin and end a marked stretch, and of
// the block's lock, in everything that the program links statically.
#include <support/callback_watch.h>

#include <support/rtguard_p.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <new>

extern "C" {
// QTovelMixer::AudioThreadMark
void __real__ZN11QTovelMixer15AudioThreadMarkC1Ev(void *mark);
void __real__ZN11QTovelMixer15AudioThreadMarkD1Ev(void *mark);
void __wrap__ZN11QTovelMixer15AudioThreadMarkC1Ev(void *mark);
void __wrap__ZN11QTovelMixer15AudioThreadMarkD1Ev(void *mark);
// QTovelMixer::BlockLock
void __real__ZN11QTovelMixer9BlockLockC1ERNS_10UpdateLockEbPNS_13FreewheelLockE(void *lock,
                                                                                void *update,
                                                                                bool wait,
                                                                                void *hold);
void __real__ZN11QTovelMixer9BlockLockD1Ev(void *lock);
void __wrap__ZN11QTovelMixer9BlockLockC1ERNS_10UpdateLockEbPNS_13FreewheelLockE(void *lock,
                                                                                void *update,
                                                                                bool wait,
                                                                                void *hold);
void __wrap__ZN11QTovelMixer9BlockLockD1Ev(void *lock);
}

namespace {

std::atomic<quint64> callbacks{0};
std::atomic<quint64> pageFaults{0};
std::atomic<int> violations{0};

struct ThreadState
{
    int depth;
    quint64 callbacks;
    long faults;
    alignas(RealtimeGuard) unsigned char guard[sizeof(RealtimeGuard)];
};

thread_local ThreadState state;

RealtimeGuard &guard()
{
    return *std::launder(reinterpret_cast<RealtimeGuard *>(state.guard));
}

long faultsOfThread()
{
    const RealtimeGuardExemption exemption; // a guard of the test's own may stand around
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

void enter()
{
    if (state.depth++ > 0)
        return;
    state.faults = faultsOfThread();
    new (state.guard) RealtimeGuard;
}

void leave()
{
    if (--state.depth > 0)
        return;
    guard().end();
    violations.fetch_add(guard().violations(), std::memory_order_relaxed);
    guard().~RealtimeGuard();
    callbacks.fetch_add(1, std::memory_order_relaxed);
    if (++state.callbacks > CallbackWatch::warmUp)
        pageFaults.fetch_add(quint64(faultsOfThread() - state.faults), std::memory_order_relaxed);
}

// The outcome of the tests themselves is what exit was called with; a bad one stays bad.
__attribute__((destructor)) void failWhenViolated()
{
    if (violations.load() == 0)
        return;
    std::fprintf(stderr, "FAIL!  : %d forbidden calls inside audio callbacks, the first:\n%s\n",
                 violations.load(), qPrintable(RealtimeGuard::first()));
    _exit(1);
}

} // namespace

extern "C" {

void __wrap__ZN11QTovelMixer15AudioThreadMarkC1Ev(void *mark)
{
    enter();
    __real__ZN11QTovelMixer15AudioThreadMarkC1Ev(mark);
}

void __wrap__ZN11QTovelMixer15AudioThreadMarkD1Ev(void *mark)
{
    __real__ZN11QTovelMixer15AudioThreadMarkD1Ev(mark);
    leave();
}

void __wrap__ZN11QTovelMixer9BlockLockC1ERNS_10UpdateLockEbPNS_13FreewheelLockE(void *lock,
                                                                                void *update,
                                                                                bool wait,
                                                                                void *hold)
{
    enter(); // a backend of a host's need not mark its thread
    const RealtimeGuardExemption exemption;
    __real__ZN11QTovelMixer9BlockLockC1ERNS_10UpdateLockEbPNS_13FreewheelLockE(lock, update, wait,
                                                                               hold);
}

void __wrap__ZN11QTovelMixer9BlockLockD1Ev(void *lock)
{
    {
        const RealtimeGuardExemption exemption;
        __real__ZN11QTovelMixer9BlockLockD1Ev(lock);
    }
    leave();
}
}

CallbackWatch::Counts CallbackWatch::counts()
{
    return {callbacks.load(), pageFaults.load()};
}

int CallbackWatch::forgive()
{
    RealtimeGuard::resetTotal();
    return violations.exchange(0);
}

bool CallbackWatch::isOn()
{
    return true;
}
