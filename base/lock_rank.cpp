// SPDX-License-Identifier: MIT
#include <base/lock_rank_p.h>

#if QTOVELMIXER_CHECKS_LOCKS

#include <algorithm>
#include <array>

namespace QTovelMixer::HeldLocks {

namespace {

struct Entry
{
    LockRank rank;
    const void *lock;
};

// A bracket holds one lock per source and sink. What goes beyond is not watched.
constexpr int capacity = 256;

struct Held
{
    std::array<Entry, capacity> entries;
    int count;

    Entry *end() noexcept { return entries.data() + count; }
    Entry *find(const void *lock) noexcept
    {
        Entry *const last = end();
        return std::find_if(entries.data(), last,
                            [lock](const Entry &entry) { return entry.lock == lock; });
    }
};

// Plain data: it needs no code at a thread's start and end.
thread_local Held held;

} // namespace

bool mayTake(LockRank rank, const void *lock, bool recursive) noexcept
{
    if (recursive && held.find(lock) != held.end())
        return true;
    return std::all_of(held.entries.data(), held.end(), [&](const Entry &entry) {
        return entry.lock != lock &&
               (entry.rank < rank || (entry.rank == rank && rank <= LockRank::SourceRing));
    });
}

void taken(LockRank rank, const void *lock) noexcept
{
    if (held.count < capacity)
        held.entries[size_t(held.count++)] = {rank, lock};
}

void released(const void *lock) noexcept
{
    Entry *const entry = held.find(lock);
    if (entry == held.end())
        return;
    std::move(entry + 1, held.end(), entry);
    --held.count;
}

bool holds(const void *lock) noexcept
{
    return held.count == capacity || held.find(lock) != held.end();
}

} // namespace QTovelMixer::HeldLocks

#endif
