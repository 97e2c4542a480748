// SPDX-License-Identifier: MIT
#include <mixer/io/worker_sleep_p.h>

#include <QtCore/QMutexLocker>

namespace QTovelMixer {

// Under the mutex of the sleep: the worker either sees the request or is woken by it. The reason
// comes first: whoever sees the request reads it.
void WorkerSleep::requestEnd(StopReason reason)
{
    const QMutexLocker lock(&waitMutex);
    if (reason != NoReason)
        stopReason.store(reason, std::memory_order_release);
    stopRequested.store(1, std::memory_order_release);
    wakeCondition.wakeAll();
}

bool WorkerSleep::endByWorker(StopReason reason)
{
    const QMutexLocker lock(&waitMutex);
    if (stopRequested.load(std::memory_order_relaxed) != 0)
        return false;
    endedByItself = true;
    stopReason.store(reason, std::memory_order_release);
    stopRequested.store(1, std::memory_order_release);
    return true;
}

void WorkerSleep::sleep(int milliseconds)
{
    QMutexLocker lock(&waitMutex);
    if (!wakePending && stopRequested.load(std::memory_order_relaxed) == 0)
        wakeCondition.wait(&waitMutex, static_cast<unsigned long>(milliseconds));
    wakePending = false;
}

void WorkerSleep::waitForUpdates()
{
    if (updateWaiters == 0)
        return;
    QMutexLocker lock(&waitMutex);
    while (updateWaiters > 0 && stopRequested == 0)
        wakeCondition.wait(&waitMutex);
}

void WorkerSleep::wake()
{
    const QMutexLocker lock(&waitMutex);
    wakePending = true;
    wakeCondition.wakeAll();
}

void WorkerSleep::endUpdate()
{
    const QMutexLocker lock(&waitMutex);
    --updateWaiters;
    wakePending = true;
    wakeCondition.wakeAll();
}

} // namespace QTovelMixer
