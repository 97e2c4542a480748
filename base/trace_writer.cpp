// SPDX-License-Identifier: MIT
// The thread that writes queued lines. It is never waited for: it may be inside a message handler
// of the host's that waits for the thread which would wait for it, and some systems end it before
// the library's static objects. It ends with the process, and the library stays loaded until then.
#include <base/trace_writer_p.h>

#include <base/log_line_p.h>
#include <base/thread_marks_p.h>
#include <base/trace_p.h>
#include <base/trace_queue_p.h>
#include <base/trace_text_p.h>
#include <base/wake_signal_p.h>

#include <QtCore/QMutex>
#include <QtCore/QThread>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#if defined(Q_OS_UNIX)
#include <poll.h>
#include <pthread.h>
#include <unistd.h>
#endif
#if defined(Q_OS_WIN)
#include <qt_windows.h>
#elif defined(Q_OS_DARWIN)
#include <dlfcn.h>
#endif

namespace QTovelMixer {

namespace {
constexpr int pollPeriod = 5;          // ms: half of what a line may be late
constexpr int restPeriod = 1000;       // ms
constexpr int roundsUntilRest = 200;   // of the poll period
constexpr int handlerLimit = 500;      // ms that the end of the process waits for a message handler
constexpr int crashLimit = 200;        // ms
constexpr quint64 keptForOthers = 256; // places that audio threads leave free

TraceQueue queue;
std::atomic<quint64> written; // records that the log has, or that nobody will write
std::atomic<quint64> lost;
std::atomic<bool> isExpected; // audio threads may queue lines
std::atomic<bool> isWakeOwed; // lines were queued by a thread that holds them back
std::atomic<bool> wasAsked;   // the writing thread has been woken, and has not looked yet
std::atomic<bool> isRunning;  // the writing thread; without it others write what they find
std::atomic<bool> isEnding;   // the process
std::atomic<Qt::HANDLE> writingThread;
QBasicMutex writing; // whoever holds it pops and writes: keeps the order

// Never destroyed: the writing thread sleeps on it to the very end.
WakeSignal &wakeSignal = *new WakeSignal;

void emitText(QtMsgType type, const char *text)
{
    switch (type) {
    case QtDebugMsg:
        qDebug("%s", text);
        break;
    case QtWarningMsg:
        qWarning("%s", text);
        break;
    case QtCriticalMsg:
        qCritical("%s", text);
        break;
    default:
        qInfo("%s", text);
        break;
    }
}

void emitRecord(const TraceRecord &record)
{
    writeLine([&] {
        if (record.event)
            emitText(record.type, TraceText(record).text());
        else if (record.items == TraceRecord::ownsText)
            emitText(record.type, record.longText);
        else
            emitText(record.type, record.text);
    });
}

void freeText(const TraceRecord &record)
{
    if (!record.event && record.items == TraceRecord::ownsText)
        std::free(record.longText);
}

void emitLoss()
{
    TraceRecord record;
    record.event = "Trace overflow";
    record.type = QtInfoMsg;
    record.items = 1;
    record.item[0].key = "lost";
    record.item[0].kind = TraceItem::Unsigned;
    record.item[0].count = lost.exchange(0, std::memory_order_relaxed);
    if (record.item[0].count > 0)
        emitRecord(record);
}

/// Under `writing`.
void drain()
{
    writingThread.store(QThread::currentThreadId(), std::memory_order_relaxed);
    TraceRecord record;
    while (queue.pop(record)) {
        emitRecord(record);
        freeText(record);
        written.fetch_add(1, std::memory_order_release);
    }
    emitLoss();
    writingThread.store(nullptr, std::memory_order_relaxed);
}

/// A message handler may call us.
bool isInsideHandler() noexcept
{
    return writingThread.load(std::memory_order_relaxed) == QThread::currentThreadId();
}

void writeQueued()
{
    const std::lock_guard guard(writing);
    drain();
}

void wake() noexcept
{
    if (!wasAsked.exchange(true))
        wakeSignal.post();
}

void run()
{
    int quietRounds = 0;
    while (!isEnding.load()) {
        wakeSignal.wait(quietRounds < roundsUntilRest ? pollPeriod : restPeriod);
        const bool asked = wasAsked.exchange(false);
        const bool expected = isExpected.exchange(false, std::memory_order_relaxed);
        quietRounds = asked || expected ? 0 : std::min(quietRounds + 1, roundsUntilRest);
        const std::lock_guard guard(writing);
        if (!isEnding.load())
            drain();
    }
}

bool hasUnwritten() noexcept
{
    return written.load(std::memory_order_acquire) != queue.pushed();
}

/// Answers false when the caller has to write the record itself, at once.
bool queueInOrder(const TraceRecord &record)
{
    const bool mustWait = ThreadMarks::isInside(ThreadMarks::LinesWait);
    if (!isRunning.load(std::memory_order_acquire)) {
        if (!mustWait && !isInsideHandler() && hasUnwritten() && writing.tryLock()) {
            drain();
            writing.unlock();
        }
        if (!mustWait)
            return false;
    } else if (!mustWait && !hasUnwritten()) {
        return false;
    }
    if (queue.push(record)) {
        if (mustWait)
            isWakeOwed.store(true);
        else
            wake();
        return true;
    }
    if (!mustWait)
        return false;
    freeText(record);
    countLostLine();
    return true;
}

/// For those who wait for the writing thread, but not for ever.
class WritingWatch
{
public:
    /// Lets a millisecond pass. Answers false when that many have passed without a line written.
    bool advancesWithin(int milliseconds) noexcept
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const quint64 now = written.load(std::memory_order_acquire);
        m_idle = now == m_before ? m_idle + 1 : 0;
        m_before = now;
        return m_idle < milliseconds;
    }

private:
    quint64 m_before = written.load(std::memory_order_acquire);
    int m_idle = 0;
};

#if defined(Q_OS_UNIX)
void writeToStderr(const char *text) noexcept
{
    // A reader that has stopped reading must not keep the process from its end.
    pollfd stream = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&stream, 1, 0) != 1)
        return;
    [[maybe_unused]] const ssize_t some = write(STDERR_FILENO, text, std::strlen(text));
    [[maybe_unused]] const ssize_t end = write(STDERR_FILENO, "\n", 1);
}

// The child has neither the writing thread nor the lines: the parent writes them.
void forgetInChild()
{
    isRunning.store(false);
    wasAsked.store(false);
    isWakeOwed.store(false);
    writingThread.store(nullptr);
    new (&writing) QBasicMutex;
    queue.reset();
    written.store(0);
    lost.store(0);
    ThreadMarks::forgetOtherThreads();
}
#else
void writeToStderr(const char *text) noexcept
{
    std::fputs(text, stderr);
    std::fputc('\n', stderr);
}
#endif

/// What is in the queue, past the message handler.
void writeRestToStderr() noexcept
{
    TraceRecord record;
    while (queue.pop(record)) {
        if (record.event)
            writeToStderr(TraceText(record).text());
        else
            writeToStderr(record.items == TraceRecord::ownsText ? record.longText : record.text);
        written.fetch_add(1, std::memory_order_release);
    }
}

/// The thread's code must not go away under it.
void keepLibraryLoaded()
{
#if defined(Q_OS_WIN)
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&run), &module);
#elif defined(Q_OS_DARWIN)
    Dl_info info;
    if (dladdr(reinterpret_cast<const void *>(&run), &info))
        dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
#endif
    // Elsewhere the linker has marked the library so.
}

/// Once in the life of a process, and of each of its children.
void prepareProcess()
{
    static std::once_flag once;
    std::call_once(once, [] {
        keepLibraryLoaded();
#if defined(Q_OS_UNIX)
        pthread_atfork(nullptr, nullptr, forgetInChild);
#endif
        watchForCrashes();
    });
}

/// The end of the process, without the writing thread: where it still runs it writes no more, for
/// what a host's message handler needs may be gone.
struct LastLines
{
    LastLines() = default;
    ~LastLines();
    Q_DISABLE_COPY_MOVE(LastLines)
};

LastLines::~LastLines()
{
    if (isInsideHandler())
        return;
    bool locked = writing.tryLock();
    WritingWatch watch;
    while (!locked && watch.advancesWithin(handlerLimit))
        locked = writing.tryLock();
    isEnding.store(true);
    isRunning.store(false);
    if (!locked) {
        writeRestToStderr();
        return;
    }
    drain();
    writing.unlock();
}

const LastLines lastLines;
} // namespace

void queueRecord(const TraceRecord &record) noexcept
{
    if (!queue.push(record, keptForOthers))
        countLostLine();
}

void expectQueuedLines() noexcept
{
    if (!isExpected.load(std::memory_order_relaxed))
        isExpected.store(true, std::memory_order_relaxed);
}

void countLostLine() noexcept
{
    lost.fetch_add(1, std::memory_order_relaxed);
}

void writeRecord(const TraceRecord &record)
{
    if (queueInOrder(record))
        return;
    emitRecord(record);
    freeText(record);
}

void writeText(QtMsgType type, const char *text)
{
    TraceRecord record;
    record.event = nullptr;
    record.type = type;
    const size_t size = std::strlen(text) + 1;
    if (size <= sizeof(record.text)) {
        record.items = 0;
        std::memcpy(record.text, text, size);
    } else {
        record.items = TraceRecord::ownsText;
        record.longText = static_cast<char *>(std::malloc(size));
        if (!record.longText) {
            countLostLine();
            return;
        }
        std::memcpy(record.longText, text, size);
    }
    writeRecord(record);
}

void writeWarning(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    writeLine(
        [&] { writeText(QtWarningMsg, qUtf8Printable(QString::vasprintf(format, arguments))); });
    va_end(arguments);
}

void prepareTrace()
{
    bool runs = false;
    if (isEnding.load() || !isRunning.compare_exchange_strong(runs, true))
        return;
    try {
        prepareProcess();
        queue.touch();
        std::thread(run).detach();
    } catch (const std::system_error &) {
        isRunning.store(false); // the next one tries again; until then every thread writes itself
    } catch (...) {
        isRunning.store(false);
        throw;
    }
}

void wakeTrace() noexcept
{
    wake();
}

void holdLines() noexcept
{
    ThreadMarks::enter(ThreadMarks::LinesWait);
}

void releaseLines() noexcept
{
    ThreadMarks::leave(ThreadMarks::LinesWait);
    if (isWakeOwed.load(std::memory_order_relaxed) &&
        !ThreadMarks::isInside(ThreadMarks::LinesWait) && isWakeOwed.exchange(false))
        wake();
}

void flushTrace()
{
    if (isInsideHandler())
        return; // a message handler asks: the rest follows when it returns
    const quint64 target = queue.pushed();
    for (;;) {
        writeQueued();
        if (written.load(std::memory_order_acquire) >= target)
            return;
        std::this_thread::yield(); // a line that is just being queued holds up those behind it
    }
}

void flushTraceInCrash() noexcept
{
    const quint64 target = queue.pushed();
    const auto isDone = [target] { return written.load(std::memory_order_acquire) >= target; };
    if (isRunning.load() && !isInsideHandler() && !isDone()) {
        wakeSignal.post();
        WritingWatch watch;
        while (!isDone() && watch.advancesWithin(crashLimit)) {
        }
    }
    if (!isDone())
        writeRestToStderr();
}

} // namespace QTovelMixer
