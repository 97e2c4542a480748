// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <sys/mman.h>
#include <unistd.h>

#ifndef MAP_POPULATE
#define MAP_POPULATE 0
#endif

namespace QTovelMixer {

namespace {
bool mapAt(char *address, size_t bytes, int file)
{
    const int flags = MAP_SHARED | MAP_FIXED | MAP_POPULATE;
    return mmap(address, bytes, PROT_READ | PROT_WRITE, flags, file, 0) != MAP_FAILED;
}

char *mapFileTwice(int file, size_t bytes)
{
    if (ftruncate(file, static_cast<off_t>(bytes)) != 0)
        return nullptr;
    // One reservation keeps the two places adjacent; the file is then mapped over it.
    void *const place = mmap(nullptr, 2 * bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED)
        return nullptr;
    char *const start = static_cast<char *>(place);
    if (mapAt(start, bytes, file) && mapAt(start + bytes, bytes, file))
        return start;
    munmap(place, 2 * bytes);
    return nullptr;
}
} // namespace

char *mapTwice(size_t &bytes)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    bytes = (bytes + page - 1) / page * page;
    const int file = memfd_create("ring", MFD_CLOEXEC);
    if (file < 0)
        return nullptr;
    char *const start = mapFileTwice(file, bytes);
    close(file);
    return start;
}

void unmapTwice(char *start, size_t bytes)
{
    munmap(start, 2 * bytes);
}

} // namespace QTovelMixer
