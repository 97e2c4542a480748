// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/debug.h>
#include <base/thread_start_p.h>
#include <base/trace_p.h>
#include <mixer/engine.h>
#include <mixer/io/source_p.h>

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <utility>

namespace QTovelMixer {

/// A worker that is ending by itself already keeps its own reason and its last announcement.
void Source::Data::endForPause()
{
    const QMutexLocker lock(&waitMutex);
    if (endedByItself)
        return;
    keepStateOnStop = true;
    stopReason = UserPauseAction;
    stopRequested.store(1, std::memory_order_release);
    wakeCondition.wakeAll();
}

void Source::Data::countUpdateDown()
{
    int count = pendingUpdates.load();
    while (count > 0 && !pendingUpdates.compare_exchange_weak(count, count - 1)) {
    }
}

void Source::Data::releasePriming()
{
    if (primedSemaphore.available() == 0)
        primedSemaphore.release();
}

void Source::Data::wakeMix() const
{
    if (engine)
        engine->wakeMix();
}

bool SourceAccess::isReady(const Source &source, qint64 frames) noexcept
{
    const Source::Data &data = *source.d;
    // At a pause position the mixer is about to pause, and nobody plays past it until then.
    if (data.stopRequested.load(std::memory_order_acquire) != 0)
        return data.stopReason.load(std::memory_order_acquire) != PausePositionReached;
    if (data.running.load(std::memory_order_acquire) == 0 || data.pendingUpdates.load() != 0)
        return false;
    if (data.materialEnded.load(std::memory_order_acquire))
        return !data.pausePositionReached.load() || source.bufferedFrames() > 0;
    return source.bufferedFrames() >= frames;
}

bool SourceAccess::isOver(const Source &source) noexcept
{
    return source.d->stopRequested.load(std::memory_order_acquire) != 0 ||
           (source.d->materialEnded.load(std::memory_order_acquire) &&
            source.bufferedFrames() == 0);
}

void SourceAccess::wake(Source &source)
{
    source.d->wake();
}

void SourceAccess::announceUpdate(Source &source)
{
    ++source.d->updateWaiters;
}

void SourceAccess::withdrawUpdate(Source &source)
{
    if (--source.d->updateWaiters > 0)
        return;
    // An override of `update_lock` holds nothing off.
    const QMutexLocker lock(&source.d->waitMutex);
    source.d->wakeCondition.wakeAll();
}

void SourceAccess::takeBackSilence(Source &source)
{
    source.d->countUpdateDown();
}

double SourceAccess::boundedByPause(const Source &source, double position) noexcept
{
    const double pausePosition = source.d->pausePositionTime.load(std::memory_order_relaxed);
    const double playStart = source.d->playStartTime.load(std::memory_order_relaxed);
    const bool isAhead = playStart <= pausePosition || playStart > position;
    return pausePosition >= 0.0 && isAhead ? std::min(position, pausePosition) : position;
}

bool SourceAccess::threadStarted(const Source &source)
{
    return source.d->started;
}

Engine *SourceAccess::engine(const Source &source)
{
    return source.d->engine;
}

bool SourceAccess::isUsedUp(const Source &source)
{
    return source.d->stopRequested.load(std::memory_order_acquire) != 0 ||
           source.QThread::isFinished();
}

void SourceAccess::endAndWait(Source &source)
{
    source.d->requestEnd();
    source.wait();
}

void Source::start(QThread::Priority priority)
{
    if (d->started.exchange(true))
        return;
    const ThreadStart answer = startThread(*this, priority);
    if (answer != ThreadStart::Started)
        d->endWithoutThread(*this, missingFor(answer));
}

// Priming must not wait for a worker that never comes. The end is announced from the event loop, as
// a worker's is: here the mix may be held.
void Source::Data::endWithoutThread(Source &source, const char *missing)
{
    BLDEBUG_Error(-1, "QTovelMixer::Source: Cannot start a thread (%p), %s!!",
                  static_cast<void *>(&source), missing);
    endByWorker(WorkerFailed);
    releasePriming();
    QMetaObject::invokeMethod(
        &source,
        [guarded = QPointer<Source>(&source)] {
            guarded->d->announceEnd(*guarded);
            // A thread that never ran does not say that it finished.
            Engine *const mixer = guarded ? guarded->mixerEngine() : nullptr;
            if (mixer && mixer->isValid(guarded))
                mixer->removeSource(guarded);
        },
        Qt::QueuedConnection);
}

void Source::stop(StopReason reason)
{
    TraceLine("Source::stop")
        .item("source", this)
        .item("stopReason", static_cast<int>(reason))
        .item("isRunning", isRunning())
        .item("isPaused", isPaused())
        .item("started", d->started.load())
        .item("finished", d->finished.load());
    d->requestEnd(reason);
    d->wakeMix();
    onStop();
}

void Source::pause(PauseMode mode)
{
    ++d->pendingUpdates;
    if (!acceptPause(mode)) {
        if (mode == PauseSoft)
            mode = PauseKeepState;
        else if (mode == PauseKeepState)
            mode = PauseSoft;
        if (!acceptPause(mode))
            return;
    }
    // A slot on the main thread may delete the source.
    const QPointer<Source> guarded(this);
    if (mode == PauseKeepState) {
        state_change(Paused, {time(false), configScale(), std::as_const(*this).range(),
                              configFlags(), channelMask()});
        if (!guarded)
            return;
        d->endForPause();
    } else if (mode == PauseSoft) {
        state_change(Paused, Config());
    } else {
        return;
    }
    if (guarded)
        onPause();
}

void Source::resume()
{
    d->countUpdateDown();
    d->wakeMix();
    onResume();
    state_change(Playing, Config());
}

void Source::prime()
{
    if (d->primed)
        return;
    // A `run` of the host's own may end without releasing the semaphore.
    constexpr int lookMilliseconds = 50;
    while (!d->primedSemaphore.tryAcquire(1, lookMilliseconds)) {
        if (QThread::isFinished())
            break;
    }
    d->primed = true;
}

void Source::update_lock()
{
    ++d->pendingUpdates;
    ++d->updateWaiters;
    d->ringMutex.lock();
}

void Source::update_unlock()
{
    // There may be more material now; the worker has to look again.
    d->materialEnded = false;
    d->ringMutex.unlock();
    d->endUpdate();
    d->countUpdateDown();
    d->wakeMix();
}

void Source::state_change(PlaybackState state, const Config &config)
{
    notifyState(state, config);
    Q_EMIT sourceStateChanged(this);
}

} // namespace QTovelMixer
