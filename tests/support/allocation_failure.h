// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_ALLOCATION_FAILURE_H
#define QTOVELMIXER_TESTS_SUPPORT_ALLOCATION_FAILURE_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

// The sanitizers own `malloc`, and would take a failing one for their own.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QTOVELMIXER_MALLOC_IS_TAKEN
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__GLIBC__)
#define QTOVELMIXER_MALLOC_IS_TAKEN
#endif

/// Lets one allocation of the whole program fail while the object lives: `operator new` throws, or
/// answers null where it is asked not to, and `malloc` answers null. Link the test with
/// `qttovelmixer_test_allocation_failure`; one object at a time.
class AllocationFailure
{
public:
    /// Whose allocations are counted.
    enum Threads { OfThisThread, OfOtherThreads };
    enum Requests {
        OfTheProgram, ///< by the code of the program itself, the library's linked into it included
        OfContainers  ///< by Qt's lists and strings, on the program's behalf
    };
    static constexpr bool seesContainers =
#if defined(QTOVELMIXER_MALLOC_IS_TAKEN)
        false;
#else
        true;
#endif

    /// Fails the `number`th (from 1 on) of them, once. 0 fails none.
    AllocationFailure(quint64 number, Threads threads, Requests requests);
    ~AllocationFailure();
    Q_DISABLE_COPY_MOVE(AllocationFailure)

    /// Whether it has happened.
    static bool happened();
    /// The calls that led to it, innermost first; empty before.
    static QString place();
};

#endif
