// SPDX-License-Identifier: MIT
#include <base/thread_marks_p.h>

#include <base/nonblocking_p.h>

#include <QtCore/QThread>

#include <array>
#include <atomic>

namespace QTovelMixer::ThreadMarks {

namespace {

constexpr int kinds = 2;

/// One thread's. `thread` is null while nobody has the entry; only its thread looks at the counts.
struct alignas(64) Entry
{
    std::atomic<Qt::HANDLE> thread;
    int count[kinds];
    int entered; ///< their sum: two counts read as one word would wait for the stores into them
};

// More than are ever inside at once. All of it is zero from the start of the process.
std::array<Entry, 128> entries;
std::atomic<int> used;            // entries that were ever taken
std::atomic<int> unlisted[kinds]; // marks for which there was no entry

Qt::HANDLE self() noexcept QTOVELMIXER_NONBLOCKING
{
    // It lies at a fixed place of the thread's memory.
    return assumeNonblocking([] { return QThread::currentThreadId(); });
}

// Nobody but the thread itself writes or clears its identity, so that looking needs no order.
Entry *find(Qt::HANDLE thread) noexcept QTOVELMIXER_NONBLOCKING
{
    const int count = used.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
        Entry &entry = entries[size_t(i)];
        if (entry.thread.load(std::memory_order_relaxed) == thread)
            return &entry;
    }
    return nullptr;
}

Entry *take(Qt::HANDLE thread) noexcept QTOVELMIXER_NONBLOCKING
{
    for (int i = 0; i < int(entries.size()); ++i) {
        Entry &entry = entries[size_t(i)];
        Qt::HANDLE nobody = nullptr;
        if (entry.thread.load(std::memory_order_relaxed) ||
            !entry.thread.compare_exchange_strong(nobody, thread, std::memory_order_acquire,
                                                  std::memory_order_relaxed))
            continue;
        int known = used.load(std::memory_order_relaxed);
        while (known <= i && !used.compare_exchange_weak(known, i + 1, std::memory_order_relaxed)) {
        }
        return &entry;
    }
    return nullptr;
}

} // namespace

void enter(Mark mark) noexcept
{
    const Qt::HANDLE thread = self();
    Entry *entry = find(thread);
    if (!entry)
        entry = take(thread);
    if (entry) {
        ++entry->count[mark];
        ++entry->entered;
    } else {
        unlisted[mark].fetch_add(1, std::memory_order_relaxed);
    }
}

void leave(Mark mark) noexcept
{
    Entry *const entry = find(self());
    if (!entry || entry->count[mark] == 0) {
        unlisted[mark].fetch_sub(1, std::memory_order_relaxed);
        return;
    }
    --entry->count[mark];
    if (--entry->entered == 0)
        entry->thread.store(nullptr, std::memory_order_release);
}

// A mark without an entry may be anybody's: to be taken for inside costs a thread nothing but time.
bool isInside(Mark mark) noexcept
{
    const Entry *const entry = find(self());
    return (entry && entry->count[mark] > 0) || unlisted[mark].load(std::memory_order_relaxed) > 0;
}

void forgetOtherThreads() noexcept
{
    const Qt::HANDLE thread = self();
    for (Entry &entry : entries) {
        if (entry.thread.load(std::memory_order_relaxed) == thread)
            continue;
        entry.count[Audio] = 0;
        entry.count[LinesWait] = 0;
        entry.entered = 0;
        entry.thread.store(nullptr, std::memory_order_relaxed);
    }
    for (std::atomic<int> &count : unlisted)
        count.store(0, std::memory_order_relaxed);
}

} // namespace QTovelMixer::ThreadMarks
