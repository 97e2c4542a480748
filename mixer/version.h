/* SPDX-License-Identifier: MIT */
#ifndef QTOVELMIXER_MIXER_VERSION_H
#define QTOVELMIXER_MIXER_VERSION_H

#include <base/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** "libtovelcomponents version 3.20.4.1 (built in DATE)", in a static buffer of 256 bytes.
 *  Threads: any. */
QTOVELMIXER_EXPORT const char *QtTovelMixerVersionString(void);

/** Writes 3, 20, 4 and 1 through the pointers, skipping any that is null. Threads: any. */
QTOVELMIXER_EXPORT void QtTovelMixerVersionNumber(int *major, int *minor, int *patch, int *build);

#ifdef __cplusplus
}
#endif

#endif
