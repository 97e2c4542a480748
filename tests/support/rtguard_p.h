// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_RTGUARD_P_H
#define QTOVELMIXER_TESTS_SUPPORT_RTGUARD_P_H

#include <support/rtguard.h>

namespace RealtimeWatch {

/// Whether the calling thread is being watched.
bool isOn();

/// Counts a violation of the calling thread. `what` is a literal, `number` a size or a system
/// call's number. Allocates nothing and may run in a signal handler.
void report(const char *what, long number);

/// The system calls' half: watches, and stops watching, the calling thread's.
void watchSystemCalls();
void ignoreSystemCalls();

} // namespace RealtimeWatch

#endif
