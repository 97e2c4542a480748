// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_DENORMALS_P_H
#define QTOVELMIXER_BASE_DENORMALS_P_H

#include <QtCore/QtGlobal>

#if defined(__SSE2__) || defined(_M_X64)
#include <xmmintrin.h>
#elif defined(__aarch64__)
#include <cstdint>
#endif

namespace QTovelMixer {

/// While it lives the thread's processor takes numbers too small to be heard for 0: calculating
/// with them takes many times as long. What was set before is set again afterwards. Does nothing on
/// processors that have no such setting.
/// Threads: any. Real-time: yes.
class DenormalsAsZero
{
public:
    DenormalsAsZero() noexcept : before(current())
    {
        if ((before & both) != both)
            set(before | both);
    }
    ~DenormalsAsZero()
    {
        if ((before & both) != both)
            set(before);
    }
    Q_DISABLE_COPY_MOVE(DenormalsAsZero)

    /// Whether this thread takes them for 0 now.
    static bool isSet() noexcept { return (current() & both) == both && both != 0; }

private:
#if defined(__SSE2__) || defined(_M_X64)
    using Control = unsigned;
    static constexpr Control both = 0x8040; // results, and operands
    static Control current() noexcept
    {
        return _mm_getcsr();
    }
    static void set(Control control) noexcept
    {
        _mm_setcsr(control);
    }
#elif defined(__aarch64__)
    using Control = std::uint64_t;
    static constexpr Control both = 1u << 24; // one for both
    static Control current() noexcept
    {
        Control control = 0;
        asm volatile("mrs %0, fpcr" : "=r"(control));
        return control;
    }
    static void set(Control control) noexcept
    {
        asm volatile("msr fpcr, %0" : : "r"(control));
    }
#else
    using Control = unsigned;
    static constexpr Control both = 0;
    static Control current() noexcept
    {
        return 0;
    }
    static void set(Control) noexcept {}
#endif

    const Control before;
};

} // namespace QTovelMixer

#endif
