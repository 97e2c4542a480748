// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_DSP_COUNTED_NEW_H
#define QTOVELMIXER_TESTS_DSP_COUNTED_NEW_H

#include <atomic>
#include <cstdlib>
#include <new>

/// Replaces the global allocation of the program that includes this (in one file only): counts
/// what is taken.
inline std::atomic<long> allocations{0};

inline void *countedNew(std::size_t size)
{
    ++allocations;
    if (void *memory = std::malloc(size > 0 ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void *operator new(std::size_t size)
{
    return countedNew(size);
}

void *operator new[](std::size_t size)
{
    return countedNew(size);
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void *memory, std::size_t) noexcept
{
    std::free(memory);
}

#endif
