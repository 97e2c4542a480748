// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_NONBLOCKING_H
#define QTOVELMIXER_BASE_NONBLOCKING_H

/// Marks a function that the audio thread may call: it neither allocates nor frees, locks, waits,
/// throws nor calls the system. A compiler that knows the attribute checks the body, and that of
/// every overriding function; for the others the macro is empty. Its place is behind `const` and
/// `noexcept`, before `override`. It is no part of a function's name in the binary.
#if defined(__clang__) && defined(__has_cpp_attribute) && !defined(Q_MOC_RUN)
#if __has_cpp_attribute(clang::nonblocking)
#define QTOVELMIXER_NONBLOCKING [[clang::nonblocking]]
#endif
#endif
#ifndef QTOVELMIXER_NONBLOCKING
#define QTOVELMIXER_NONBLOCKING
#endif

#endif
