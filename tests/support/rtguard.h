// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_RTGUARD_H
#define QTOVELMIXER_TESTS_SUPPORT_RTGUARD_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

// What the build can see is a table, not a question to the machine. Under the sanitizers nothing is
// watched: they own the allocator, and their checks make system calls of their own (the one of a
// virtual call opens a pipe).
#if defined(__has_feature)
#if __has_feature(realtime_sanitizer) || __has_feature(address_sanitizer)
#define QTOVELMIXER_GUARD_LEFT_OUT
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QTOVELMIXER_GUARD_LEFT_OUT
#endif
#if defined(QTOVELMIXER_GUARD_LEFT_OUT)
#define QTOVELMIXER_GUARD_LIBRARY_CALLS 0
#define QTOVELMIXER_GUARD_SYSTEM_CALLS 0
#else
#if defined(__GLIBC__)
#define QTOVELMIXER_GUARD_LIBRARY_CALLS 1
#else
#define QTOVELMIXER_GUARD_LIBRARY_CALLS 0
#endif
#if defined(__linux__) && defined(__x86_64__)
#define QTOVELMIXER_GUARD_SYSTEM_CALLS 1
#else
#define QTOVELMIXER_GUARD_SYSTEM_CALLS 0
#endif
#endif

/// Watches the calling thread for what audio code must not do: allocation, release, pthread mutexes
/// and conditions, and every system call, wherever in the process they happen. Put one round the
/// code of a callback; link the test with `qttovelmixer_test_rtguard`. Guards may be nested; each
/// counts what happens while it lives.
class RealtimeGuard
{
public:
    static constexpr bool seesLibraryCalls = QTOVELMIXER_GUARD_LIBRARY_CALLS;
    static constexpr bool seesSystemCalls = QTOVELMIXER_GUARD_SYSTEM_CALLS;

    RealtimeGuard();
    ~RealtimeGuard();
    Q_DISABLE_COPY_MOVE(RealtimeGuard)

    /// Stops watching; the count stays.
    void end();
    int violations() const;

    /// The violations of all guards and threads since the start or `resetTotal()`.
    static int total();
    static void resetTotal();

    /// What the first of them was, with the places it came from; empty without any. Not to be
    /// called under a guard.
    static QString first();

private:
    int before;
    int counted = 0;
    bool ended = false;
};

/// Lets the thread do anything for a scope inside a guard.
class RealtimeGuardExemption
{
public:
    RealtimeGuardExemption();
    ~RealtimeGuardExemption();
    Q_DISABLE_COPY_MOVE(RealtimeGuardExemption)
};

#endif
