// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <cstdlib>
#include <cstring>

namespace QTovelMixer {

MirroredMemory::MirroredMemory(size_t bytes, Way preferred)
{
    if (bytes == 0)
        return;
    size_t mapped = bytes;
    if (preferred == Mapped)
        start = mapTwice(mapped);
    mirrored = start != nullptr;
    half = mirrored ? mapped : bytes;
    if (!mirrored)
        start = static_cast<char *>(std::malloc(2 * half));
    if (!start)
        half = 0;
    else
        std::memset(start, 0, 2 * half);
}

MirroredMemory::~MirroredMemory()
{
    if (mirrored)
        unmapTwice(start, half);
    else
        std::free(start);
}

} // namespace QTovelMixer
