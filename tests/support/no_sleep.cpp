// SPDX-License-Identifier: MIT
// Sleeps of a program that links this end at once: what it opens need not settle.
#include <ctime>

extern "C" int nanosleep(const timespec *, timespec *)
{
    return 0;
}

extern "C" int clock_nanosleep(clockid_t, int, const timespec *, timespec *)
{
    return 0;
}
