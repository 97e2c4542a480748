// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_DEBUG_H
#define QTOVELMIXER_BASE_DEBUG_H

#include <base/export.h>

#if defined(__GNUC__)
#define QTOVELMIXER_PRINTF_LIKE __attribute__((format(printf, 2, 3)))
#else
#define QTOVELMIXER_PRINTF_LIKE
#endif

/// Diagnostics of the library: one line of Qt's message log per call, with exactly the formatted
/// text. `format` and what follows are those of C's `printf`, text in UTF-8; a null `format` writes
/// nothing. The first argument is the caller's own code (-1 throughout the library) and is not
/// written. The definitions are weak: a host that links its own of the same name replaces them. On
/// a thread that is inside an audio callback the line is handed to another thread, cut after 239
/// bytes, and follows within about 10 ms; then integers, pointers and short text only. Threads:
/// any. Real-time: inside an audio callback yes, elsewhere no.
extern "C" {

/// Writes a critical line: a refused call or a failure.
QTOVELMIXER_EXPORT void BLDEBUG_Error(int code, const char *format, ...) QTOVELMIXER_PRINTF_LIKE;

/// Writes an information line: progress.
QTOVELMIXER_EXPORT void BLDEBUG_Log(int code, const char *format, ...) QTOVELMIXER_PRINTF_LIKE;

/// Writes a debug line.
QTOVELMIXER_EXPORT void BLDEBUG_Message(int code, const char *format, ...) QTOVELMIXER_PRINTF_LIKE;
}

#endif
