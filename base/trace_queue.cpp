// SPDX-License-Identifier: MIT
#include <base/trace_queue_p.h>

#include <base/log_line_p.h>
#include <base/trace_p.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace QTovelMixer {

namespace {
constexpr std::chrono::milliseconds pollPeriod{5}; // half of what a line may be late

TraceQueue queue;
std::atomic<quint64> lost{0};
std::mutex writing; // whoever holds it pops and writes: keeps the order
thread_local bool isWriting = false;

void copyRecord(TraceRecord &to, const TraceRecord &from) noexcept
{
    to.event = from.event;
    to.type = from.type;
    to.items = from.items;
    if (from.event)
        std::copy_n(from.item, from.items, to.item);
    else
        std::memcpy(to.text, from.text, std::strlen(from.text) + 1);
}

void writeQueued()
{
    const std::lock_guard guard(writing);
    isWriting = true;
    TraceRecord record;
    while (queue.pop(record))
        writeRecord(record);
    if (const quint64 count = lost.exchange(0, std::memory_order_relaxed))
        TraceLine("Trace overflow").item("lost", count);
    isWriting = false;
}

// The audio side must not wake anybody, hence the polling.
class TraceWriter
{
public:
    TraceWriter();
    ~TraceWriter();
    Q_DISABLE_COPY_MOVE(TraceWriter)

private:
    void run();

    std::mutex mutex;
    std::condition_variable ended;
    bool ending = false;
    std::thread thread;
};

TraceWriter::TraceWriter()
{
    queue.touch();
    thread = std::thread([this] { run(); });
}

TraceWriter::~TraceWriter()
{
    {
        const std::lock_guard guard(mutex);
        ending = true;
    }
    ended.notify_one();
    thread.join();
    writeQueued();
}

void TraceWriter::run()
{
    std::unique_lock guard(mutex);
    while (!ended.wait_for(guard, pollPeriod, [this] { return ending; })) {
        guard.unlock();
        writeQueued();
        guard.lock();
    }
}
} // namespace

bool TraceQueue::push(const TraceRecord &record) noexcept
{
    quint64 position = tail.load(std::memory_order_relaxed);
    for (;;) {
        Cell &cell = cells[position % capacity];
        const quint64 free = position / capacity * 2;
        const quint64 turn = cell.turn.load(std::memory_order_acquire);
        if (turn < free)
            return false;
        if (turn > free) {
            position = tail.load(std::memory_order_relaxed);
            continue;
        }
        if (tail.compare_exchange_weak(position, position + 1, std::memory_order_relaxed)) {
            copyRecord(cell.record, record);
            cell.turn.store(free + 1, std::memory_order_release);
            return true;
        }
    }
}

bool TraceQueue::pop(TraceRecord &record) noexcept
{
    const quint64 position = head.load(std::memory_order_relaxed);
    Cell &cell = cells[position % capacity];
    const quint64 filled = position / capacity * 2 + 1;
    if (cell.turn.load(std::memory_order_acquire) != filled)
        return false;
    copyRecord(record, cell.record);
    cell.turn.store(filled + 1, std::memory_order_release);
    head.store(position + 1, std::memory_order_relaxed);
    return true;
}

void TraceQueue::touch() noexcept
{
    for (Cell &cell : cells) {
        quint64 fresh = 0;
        cell.turn.compare_exchange_strong(fresh, 0, std::memory_order_relaxed);
    }
}

void queueRecord(const TraceRecord &record) noexcept
{
    if (!queue.push(record))
        lost.fetch_add(1, std::memory_order_relaxed);
}

void countLostLine() noexcept
{
    lost.fetch_add(1, std::memory_order_relaxed);
}

void prepareTrace()
{
    static TraceWriter writer;
}

void flushTrace()
{
    if (isWriting)
        return; // a message handler asks: the rest follows when it returns
    const quint64 target = queue.pushed();
    do {
        writeQueued();
        // A line that is just being queued holds up those behind it.
        if (queue.popped() < target)
            std::this_thread::yield();
    } while (queue.popped() < target);
}

} // namespace QTovelMixer
