// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace QTovelMixer {

MirroredMemory::MirroredMemory(size_t bytes, Way preferred, Paging paging)
{
    if (bytes == 0)
        return;
    size_t mapped = bytes;
    if (preferred == Mapped)
        start = mapTwice(mapped, paging == Present);
    mirrored = start != nullptr;
    half = mirrored ? mapped : bytes;
    if (!mirrored)
        start = static_cast<char *>(std::malloc(2 * half));
    if (!start)
        half = 0;
    else if (!mirrored || paging == Present) // fresh mappings are zero
        std::memset(start, 0, 2 * half);
}

void MirroredMemory::touch(size_t first, size_t bytes) const noexcept
{
    if (!mirrored || first >= half)
        return;
    // Pages are at least this long.
    constexpr size_t page = 4096;
    const size_t end = first + std::min(bytes, half - first);
    // The first half first: the system then finds the pages of the second one in groups.
    for (char *const place : {start, start + half}) {
        for (size_t i = (first + page - 1) / page * page; i < end; i += page) {
            volatile char *const byte = place + i;
            *byte = *byte;
        }
    }
}

MirroredMemory::~MirroredMemory()
{
    if (mirrored)
        unmapTwice(start, half);
    else
        std::free(start);
}

} // namespace QTovelMixer
