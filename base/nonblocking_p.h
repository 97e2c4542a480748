// SPDX-License-Identifier: MIT
// The exceptions to what the compiler and the real-time sanitizer can see for themselves.
#ifndef QTOVELMIXER_BASE_NONBLOCKING_P_H
#define QTOVELMIXER_BASE_NONBLOCKING_P_H

#include <base/nonblocking.h>

#include <utility>

#if defined(__has_feature)
#if __has_feature(realtime_sanitizer)
#define QTOVELMIXER_HAS_RTSAN
extern "C" void __rtsan_disable(void) QTOVELMIXER_NONBLOCKING;
extern "C" void __rtsan_enable(void) QTOVELMIXER_NONBLOCKING;
#endif
#endif

namespace QTovelMixer {

/// While it lives, the real-time sanitizer, where the program runs under it, lets this thread do
/// anything.
class RealtimeCheckPause
{
public:
#if defined(QTOVELMIXER_HAS_RTSAN)
    RealtimeCheckPause() noexcept QTOVELMIXER_NONBLOCKING
    {
        __rtsan_disable();
    }
    ~RealtimeCheckPause() noexcept QTOVELMIXER_NONBLOCKING
    {
        __rtsan_enable();
    }
#else
    RealtimeCheckPause() noexcept QTOVELMIXER_NONBLOCKING {}
    ~RealtimeCheckPause() noexcept QTOVELMIXER_NONBLOCKING {}
#endif
    RealtimeCheckPause(const RealtimeCheckPause &) = delete;
    RealtimeCheckPause &operator=(const RealtimeCheckPause &) = delete;
};

/// Calls `harmless`, which does not block although the compiler cannot see that, for instance
/// because another library's header does not say so. Every use says why. Returns what it returns.
/// Threads: any. Real-time: yes.
template <typename Call>
inline auto
assumeNonblocking(Call &&harmless) noexcept QTOVELMIXER_NONBLOCKING->decltype(harmless())
{
#if defined(__clang__) && __clang_major__ >= 20
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wfunction-effects"
#endif
    return std::forward<Call>(harmless)();
#if defined(__clang__) && __clang_major__ >= 20
#pragma clang diagnostic pop
#endif
}

/// Does what only other threads than the audio thread do, in a function that they share with it.
/// The caller has made sure of that.
template <typename Call>
inline void outsideCallback(Call &&anything) noexcept QTOVELMIXER_NONBLOCKING
{
    const RealtimeCheckPause pause;
    assumeNonblocking(std::forward<Call>(anything));
}

} // namespace QTovelMixer

#endif
