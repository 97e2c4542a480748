// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_THREAD_H
#define QTOVELMIXER_BASE_THREAD_H

#include <base/export.h>

extern "C" {

/// True when the caller runs on the application's main (GUI) thread: the thread of the
/// `QCoreApplication`, or, without one, the thread that loaded the library.
/// The definition is weak: a host that links its own of the same name replaces it.
/// Threads: any. Real-time: yes.
QTOVELMIXER_EXPORT bool BLTHREAD_IsRunningInMainThread(void);
}

#endif
