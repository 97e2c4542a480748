// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_WORKER_SLEEP_P_H
#define QTOVELMIXER_MIXER_IO_WORKER_SLEEP_P_H

#include <base/lock_rank_p.h>
#include <mixer/types.h>

#include <QtCore/QWaitCondition>

#include <atomic>

namespace QTovelMixer {

/// The sleep of a source's or sink's worker, and everything that ends it. The atomics are written
/// under `waitMutex`, so that no wake-up is lost, and read without it.
struct WorkerSleep
{
    /// Asks the worker to end. `NoReason` keeps the reason of before.
    void requestEnd(StopReason reason = NoReason);
    /// Ends the worker by itself, unless somebody else has ended it before. Returns whether it did.
    bool endByWorker(StopReason reason);
    /// Sleeps until `wake`, the end, or for `milliseconds`. Threads: the worker.
    void sleep(int milliseconds);
    /// Lets whoever wants the ring mutex have it: an unfair mutex would give it back to the worker,
    /// which asks for it again at once while it has work. Threads: the worker.
    void waitForUpdates();
    /// Has the worker look at its ring.
    void wake();
    /// One less wants the ring mutex: the worker looks at its ring again.
    void endUpdate();

    RankedMutex<LockRank::Sleep> waitMutex;
    QWaitCondition wakeCondition;
    bool wakePending = false;
    bool endedByItself = false; ///< the worker was the first to raise stopRequested
    std::atomic<int> stopRequested{0};
    std::atomic<int> stopReason{UserStopAction};
    std::atomic<int> updateWaiters{0}; ///< update locks held or waited for
    std::atomic<bool> finished{false};
};

} // namespace QTovelMixer

#endif
