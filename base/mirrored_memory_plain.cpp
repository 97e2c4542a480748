// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

namespace QTovelMixer {

// No way to map memory twice is known here.
char *mapTwice(size_t &, bool)
{
    return nullptr;
}

void unmapTwice(char *, size_t) {}

} // namespace QTovelMixer
