// SPDX-License-Identifier: MIT
#include <base/thread_start_p.h>

#include <algorithm>
#include <atomic>

#ifndef Q_OS_WIN
#include <unistd.h>
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
/// and some over: workers that have begun open one for a moment, while they map their rings.
bool canOpen(int dispatchers)
{
    constexpr int most = 256; // workers of one mixer
    constexpr int spare = 8;  // arbitrary
    int opened[most + spare][2];
    int pipes = 0;
    const int wanted = std::min(dispatchers, most) + spare;
    while (pipes < wanted && pipe(opened[pipes]) == 0)
        ++pipes;
    for (int i = 0; i < pipes; ++i) {
        close(opened[i][0]);
        close(opened[i][1]);
    }
    return pipes == wanted;
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
