// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_CLOCK_P_H
#define QTOVELMIXER_BASE_CLOCK_P_H

#include <base/nonblocking.h>
#include <base/nonblocking_p.h>

#include <QtCore/QtGlobal>

#if defined(Q_OS_UNIX)
#include <ctime>
#else
#include <chrono>
#endif

namespace QTovelMixer {

/// A clock that never goes back, in ns. Threads: any. Real-time: yes.
inline qint64 monotonicNanoseconds() noexcept QTOVELMIXER_NONBLOCKING
{
    return assumeNonblocking([] {
#if defined(Q_OS_UNIX)
        // The C library reads it from memory that it shares with the kernel.
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return qint64(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
#else
        return qint64(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
    });
}

} // namespace QTovelMixer

#endif
