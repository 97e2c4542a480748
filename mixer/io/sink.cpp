// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <base/debug.h>
#include <base/thread_start_p.h>
#include <base/trace_p.h>
#include <mixer/engine.h> // a sink asks its engine for the clock, the rate and the start time
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>

#include <QtCore/QEvent>
#include <QtCore/QMutexLocker>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

int Sink::Data::mixerRate() const
{
    return engine ? static_cast<int>(engine->sampleRate()) : 0;
}

void Sink::Data::wakeMix() const
{
    if (engine)
        engine->wakeMix();
}

bool SinkAccess::isReady(const Sink &sink, qint64 frames) noexcept
{
    return isOver(sink) || sink.freeFrames() >= frames;
}

bool SinkAccess::isOver(const Sink &sink) noexcept
{
    return sink.d->stopRequested.load(std::memory_order_acquire) != 0;
}

void SinkAccess::wake(Sink &sink)
{
    sink.d->wake();
}

Sink::Sink(Engine *engine, float bufferSeconds) : d(new Data)
{
    watchStart(*this);
    d->engine = engine;
    d->self = this;
    d->bufferSeconds = std::fmax(bufferSeconds, 5.0f); // fmax: a NaN becomes 5 as well
}

Sink::~Sink()
{
    d->leave(*this);
}

/// Out of the mix, and without a worker.
void Sink::Data::leave(Sink &sink)
{
    if (Engine *const mixer = engine)
        mixer->letGo(&sink);
    SinkAccess::endAndWait(sink);
}

bool Sink::event(QEvent *event)
{
    if (event->type() == QEvent::DeferredDelete)
        d->leave(*this);
    return QThread::event(event);
}

Engine *SinkAccess::engine(const Sink &sink)
{
    return sink.d->engine;
}

bool SinkAccess::isUsedUp(const Sink &sink)
{
    return isOver(sink) || sink.isFinished();
}

bool SinkAccess::threadStarted(const Sink &sink)
{
    return sink.d->started.load(std::memory_order_acquire);
}

void SinkAccess::endAndWait(Sink &sink)
{
    sink.d->requestEnd();
    sink.wait();
}

void SinkAccess::announceUpdate(Sink &sink)
{
    ++sink.d->updateWaiters;
}

void SinkAccess::lockRing(Sink &sink)
{
    sink.d->ringMutex.lock();
}

void SinkAccess::unlockRing(Sink &sink)
{
    sink.d->ringMutex.unlock();
    sink.d->endUpdate();
}

void SinkAccess::shiftFrameBase(Sink &sink, qint64 frames)
{
    sink.d->frameBase.fetch_add(frames, std::memory_order_relaxed);
}

bool Sink::isRunning() const
{
    return d->running.load(std::memory_order_acquire) != 0;
}

double Sink::start_time() const
{
    return d->engine ? d->engine->startTime() : 0.0;
}

double Sink::time() const
{
    return d->engine ? d->engine->time() : 0.0;
}

QString Sink::name() const
{
    return objectName();
}

void Sink::stop(StopReason reason)
{
    TraceLine("Sink::stop")
        .item("sink", this)
        .item("stopReason", static_cast<int>(reason))
        .item("isRunning", isRunning())
        .item("started", d->started.load(std::memory_order_acquire))
        .item("finished", d->finished.load(std::memory_order_acquire));
    d->requestEnd(reason);
    onStop();
}

StopReason Sink::stopReason() const
{
    return static_cast<StopReason>(d->stopReason.load(std::memory_order_acquire));
}

void Sink::setSkipTime(double seconds)
{
    d->skipTime.store(seconds, std::memory_order_relaxed);
}

double Sink::skipTime() const
{
    return d->skipTime.load(std::memory_order_relaxed);
}

void Sink::start(QThread::Priority priority)
{
    if (d->started.exchange(true))
        return;
    const int rate = d->mixerRate();
    const double frames = std::trunc(representableTime(skipTime(), rate) * rate);
    d->skipFrames.store(std::max(static_cast<qint64>(frames), qint64{0}),
                        std::memory_order_relaxed);
    const ThreadStart answer = startThread(*this, priority);
    if (answer != ThreadStart::Started)
        d->endWithoutThread(*this, missingFor(answer));
}

// Announced from the event loop, as a worker's end is: here the mix may be held.
void Sink::Data::endWithoutThread(Sink &sink, const char *missing)
{
    BLDEBUG_Error(-1, "QTovelMixer::Sink: Cannot start a thread (%p), %s!!",
                  static_cast<void *>(&sink), missing);
    endByWorker(WorkerFailed);
    QMetaObject::invokeMethod(
        &sink,
        [guarded = QPointer<Sink>(&sink)] {
            guarded->d->finished.store(true, std::memory_order_release);
            Q_EMIT guarded->sinkFinished(guarded);
            // A thread that never ran does not say that it finished.
            Engine *const mixer = guarded ? guarded->mixerEngine() : nullptr;
            if (mixer && mixer->isValid(guarded))
                mixer->removeSink(guarded);
        },
        Qt::QueuedConnection);
}

void Sink::onAdded(Engine *) {}

void Sink::notifyState() {}

void Sink::onRunStart() {}

void Sink::onStop() {}

qint64 Sink::freeFrames() const
{
    // Not `isRunning`: a block may ask while the sink is destroyed.
    return SinkAccess::isRunning(*this) ? d->ring->capacity() - d->ring->fillFrames() : 0;
}

quint64 Sink::replacedSamples() const
{
    return d->replacedSamples.load(std::memory_order_relaxed);
}

double Sink::recordedTime() const
{
    const int rate = d->mixerRate();
    if (rate < 1)
        return 0.0;
    return static_cast<double>(d->recordedFrames.load(std::memory_order_relaxed)) / rate;
}

void Sink::setTime(double time)
{
    if (QThread::currentThread() == this) {
        // A chunk is being handed over: what is flushed now would be consumed a second time.
        BLDEBUG_Error(-1, "QTovelMixer::Sink::setTime: refused on the sink's own thread (%p)!!",
                      static_cast<void *>(this));
        return;
    }
    const int rate = d->mixerRate();
    const double position = representableTime(time, rate);
    const QMutexLocker lock(&d->ringMutex);
    if (d->ring)
        d->ring->flush();
    d->frameBase.store(framesOfTime(position, rate), std::memory_order_relaxed);
    d->recordTime = position;
    ++d->generation;
}

void Sink::state_change()
{
    notifyState();
    Q_EMIT sinkStateChanged(this);
}

Engine *Sink::mixerEngine() const
{
    return d->engine;
}

void Sink::drain_consumed_buffer(float *buffer, int frames, int, int channels, double time)
{
    writeSamples(buffer, frames, channels, time);
}

} // namespace QTovelMixer
