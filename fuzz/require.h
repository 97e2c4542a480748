// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_FUZZ_REQUIRE_H
#define QTOVELMIXER_FUZZ_REQUIRE_H

#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>

namespace Fuzz {

/// Ends the program, which is a finding, unless the condition holds.
inline void require(bool condition, const char *promise)
{
    if (condition)
        return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

/// Ends the program unless the fault is empty.
inline void requireNone(const QString &fault)
{
    if (!fault.isEmpty())
        require(false, qPrintable(fault));
}

} // namespace Fuzz

#endif
