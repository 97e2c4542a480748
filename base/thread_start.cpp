// SPDX-License-Identifier: MIT
#include <base/thread_start_p.h>

#include <algorithm>
#include <atomic>
#include <limits>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/resource.h>
#endif

namespace QTovelMixer {

namespace {

std::atomic<int> onTheWay{0}; // threads that were started and have no dispatcher yet

void arrive()
{
    int count = onTheWay;
    while (count > 0 && !onTheWay.compare_exchange_weak(count, count - 1)) {
    }
}

#ifdef Q_OS_WIN
bool canOpen(int)
{
    return true;
}
#else
/// Whether there are descriptors for so many dispatchers (two for each: some systems need them),
/// and some over: workers that have begun open one for a moment, while they map their rings. None
/// is opened to find out: a thread on its way may want the last one at that moment.
bool canOpen(int dispatchers)
{
    constexpr int most = 256; // workers of one mixer
    constexpr int spare = 8;  // arbitrary
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return true;
    int wanted = 2 * (std::min(dispatchers, most) + spare);
    // The highest are the last to be used.
    int descriptor = int(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
    while (wanted > 0 && --descriptor >= 0)
        wanted -= fcntl(descriptor, F_GETFD) == -1 ? 1 : 0;
    return wanted == 0;
}
#endif

} // namespace

void watchStart(QThread &thread)
{
    // Emitted by the thread itself, after its dispatcher was made.
    QObject::connect(&thread, &QThread::started, &thread, arrive, Qt::DirectConnection);
}

ThreadStart startThread(QThread &thread, QThread::Priority priority)
{
    if (!canOpen(++onTheWay)) {
        arrive();
        return ThreadStart::NoDescriptor;
    }
    thread.start(priority);
    if (thread.isRunning() || thread.isFinished())
        return ThreadStart::Started;
    arrive();
    return ThreadStart::NoThread;
}

const char *missingFor(ThreadStart start)
{
    return start == ThreadStart::NoDescriptor ? "no descriptor" : "no thread";
}

} // namespace QTovelMixer
