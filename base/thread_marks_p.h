// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_THREAD_MARKS_P_H
#define QTOVELMIXER_BASE_THREAD_MARKS_P_H

#include <base/nonblocking.h>

namespace QTovelMixer::ThreadMarks {

/// What a thread is in the middle of. Each may be entered several times.
enum Mark {
    Audio,    ///< an audio callback
    LinesWait ///< a change of the mix: log lines wait for its end
};

/// Kept in a table of the library's own: the variable of a thread (`thread_local`) is made on the
/// thread's first use of it, with an allocation, where the library was loaded into a running
/// program or the platform emulates such variables.
/// Threads: any. Real-time: yes.
void enter(Mark mark) noexcept QTOVELMIXER_NONBLOCKING;
void leave(Mark mark) noexcept QTOVELMIXER_NONBLOCKING;
bool isInside(Mark mark) noexcept QTOVELMIXER_NONBLOCKING;

/// In the child of a fork: only the calling thread is left.
void forgetOtherThreads() noexcept;

} // namespace QTovelMixer::ThreadMarks

#endif
