// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_CALLBACK_WATCH_H
#define QTOVELMIXER_TESTS_SUPPORT_CALLBACK_WATCH_H

#include <QtCore/QtGlobal>

/// In every test that links `qttovelmixer_test_callback_watch`, a `RealtimeGuard` stands over each
/// stretch that the library marks as audio, on whatever thread: devices' callbacks, their input and
/// output, free-wheeling blocks. Only the wait for the update lock is left out. A program that did
/// anything forbidden there says so at its end and fails.
namespace CallbackWatch {

struct Counts
{
    quint64 callbacks;  ///< the outermost marked stretches so far
    quint64 pageFaults; ///< in them, without the first `warmUp` of each thread
};

constexpr quint64 warmUp = 200;

/// Zeros where nothing is watched.
Counts counts();

/// Takes back the forbidden calls counted so far, and answers their number: for tests of hosts that
/// do what they must not.
int forgive();

/// Whether this build watches.
bool isOn();

} // namespace CallbackWatch

#endif
