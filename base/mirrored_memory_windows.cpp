// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <windows.h>

namespace QTovelMixer {

namespace {
constexpr int attempts = 32; // arbitrary: losing the race for an address even twice is rare

// The place found free may be taken by another thread before it is mapped: the caller tries again.
char *tryMapTwice(HANDLE memory, size_t bytes)
{
    char *const place =
        static_cast<char *>(VirtualAlloc(nullptr, 2 * bytes, MEM_RESERVE, PAGE_NOACCESS));
    if (!place)
        return nullptr;
    VirtualFree(place, 0, MEM_RELEASE);
    void *const first = MapViewOfFileEx(memory, FILE_MAP_ALL_ACCESS, 0, 0, bytes, place);
    void *const second = MapViewOfFileEx(memory, FILE_MAP_ALL_ACCESS, 0, 0, bytes, place + bytes);
    if (first && second)
        return place;
    if (first)
        UnmapViewOfFile(first);
    if (second)
        UnmapViewOfFile(second);
    return nullptr;
}
} // namespace

char *mapTwice(size_t &bytes, bool)
{
    SYSTEM_INFO system;
    GetSystemInfo(&system);
    const size_t unit = system.dwAllocationGranularity;
    bytes = (bytes + unit - 1) / unit * unit;
    const HANDLE memory = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                             static_cast<DWORD>(quint64(bytes) >> 32),
                                             static_cast<DWORD>(bytes), nullptr);
    if (!memory)
        return nullptr;
    char *start = nullptr;
    for (int attempt = 0; attempt < attempts && !start; ++attempt)
        start = tryMapTwice(memory, bytes);
    CloseHandle(memory); // the views keep the memory
    return start;
}

void unmapTwice(char *start, size_t bytes)
{
    UnmapViewOfFile(start);
    UnmapViewOfFile(start + bytes);
}

} // namespace QTovelMixer
