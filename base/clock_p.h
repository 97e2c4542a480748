// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_CLOCK_P_H
#define QTOVELMIXER_BASE_CLOCK_P_H

#include <base/nonblocking.h>
#include <base/nonblocking_p.h>

#include <QtCore/QtGlobal>

#include <chrono>

namespace QTovelMixer {

/// A clock that never goes back, in ns. Threads: any. Real-time: yes.
inline qint64 monotonicNanoseconds() noexcept QTOVELMIXER_NONBLOCKING
{
    // The C library reads it from memory that it shares with the kernel.
    return assumeNonblocking(
        [] { return qint64(std::chrono::steady_clock::now().time_since_epoch().count()); });
}

} // namespace QTovelMixer

#endif
