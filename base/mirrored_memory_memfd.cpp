// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <sys/mman.h>
#include <unistd.h>

#ifndef MAP_POPULATE
#define MAP_POPULATE 0
#endif

namespace QTovelMixer {

namespace {
bool mapAt(char *address, size_t bytes, int file, bool present)
{
    const int flags = MAP_SHARED | MAP_FIXED | (present ? MAP_POPULATE : 0);
    return mmap(address, bytes, PROT_READ | PROT_WRITE, flags, file, 0) != MAP_FAILED;
}

char *mapFileTwice(int file, size_t bytes, bool present)
{
    if (ftruncate(file, static_cast<off_t>(bytes)) != 0)
        return nullptr;
    // One reservation keeps the two places adjacent; the file is then mapped over it.
    void *const place = mmap(nullptr, 2 * bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED)
        return nullptr;
    char *const start = static_cast<char *>(place);
    if (mapAt(start, bytes, file, present) && mapAt(start + bytes, bytes, file, present))
        return start;
    munmap(place, 2 * bytes);
    return nullptr;
}
} // namespace

char *mapTwice(size_t &bytes, bool present)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    bytes = (bytes + page - 1) / page * page;
    const int file = memfd_create("ring", MFD_CLOEXEC);
    if (file < 0)
        return nullptr;
    char *const start = mapFileTwice(file, bytes, present);
    close(file);
    return start;
}

void unmapTwice(char *start, size_t bytes)
{
    munmap(start, 2 * bytes);
}

} // namespace QTovelMixer
