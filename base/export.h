// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_EXPORT_H
#define QTOVELMIXER_BASE_EXPORT_H

/// Marks what the shared library shows to hosts; everything else is hidden.
#if defined(QTOVELMIXER_STATIC)
#define QTOVELMIXER_EXPORT
#elif defined(_WIN32) && defined(QTOVELMIXER_BUILD)
#define QTOVELMIXER_EXPORT __declspec(dllexport)
#elif defined(_WIN32)
#define QTOVELMIXER_EXPORT __declspec(dllimport)
#else
#define QTOVELMIXER_EXPORT __attribute__((visibility("default")))
#endif

#endif
