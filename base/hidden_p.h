// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_HIDDEN_P_H
#define QTOVELMIXER_BASE_HIDDEN_P_H

/// Keeps the members of a class inside the shared library although the class around it is exported.
#if defined(QTOVELMIXER_BUILD) && (defined(__ELF__) || defined(__APPLE__))
#define QTOVELMIXER_HIDDEN __attribute__((visibility("hidden")))
#else
#define QTOVELMIXER_HIDDEN
#endif

#endif
