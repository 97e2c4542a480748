// SPDX-License-Identifier: MIT
// Start, pause, resume and stop of everything.
#include <mixer/engine/engine_p.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

#include <QtCore/QThread>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

namespace {

const char *reasonName(StopReason reason)
{
    switch (reason) {
    case StopReason::NoReason:
        return "NoReason";
    case StopReason::AudioFinished:
        return "AudioFinished";
    case StopReason::PausePositionReached:
        return "PausePositionReached";
    case StopReason::UserStopAction:
        return "UserStopAction";
    case StopReason::UserPauseAction:
        return "UserPauseAction";
    case StopReason::DeviceListChanged:
        return "DeviceListChanged";
    case StopReason::DeviceFailed:
        return "DeviceFailed";
    case StopReason::WorkerFailed:
        break; // the hosts' logs know the names of the seven above only
    }
    return nullptr;
}

} // namespace

bool Engine::start(double time)
{
    if (!d->requireMainThread("start") || !d->active)
        return false;
    if (d->changeDepth > 0) {
        // Priming would wait for workers that the change holds off.
        BLDEBUG_Error(-1, "QTovelMixer::start: refused inside a change of the mix!!");
        return false;
    }
    ++d->playbacks;
    d->startStreamForUsers();
    if (d->hasLiveUsers() && !d->apiRunning())
        return false;
    const double begin = std::isfinite(time) ? time : 0.0;
    d->startAll(d->clockAt(begin), begin);
    emit started();
    return true;
}

void Engine::Data::startAll(double time, double begin)
{
    MixChange change(*this, MixChange::Everything);
    // Under the update lock: a block that began before the suspension may still be inside a source.
    setTime(time, begin);
    change.releaseBlocks();
    forEach(*this, sources, [](Source *source) { source->start(QThread::InheritPriority); });
    forEach(*this, sinks, [](Sink *sink) { sink->start(QThread::InheritPriority); });
    // All are let go before the first is waited for.
    change.releaseWorkers();
    prime();
    running = true;
    keptPosition = livePosition();
}

void Engine::Data::prime()
{
    forEach(*this, sources, [](Source *source) { source->prime(); });
}

void Engine::Data::prime(Source *source)
{
    source->prime();
}

// Before the start there is nothing to resume: however often a pause is asked for then, one
// `resume` after the start ends it.
bool Engine::Data::pause()
{
    const bool counted = std::exchange(pausedAtRest, !running) && !running;
    if (!counted)
        suspend();
    return forEach(*this, sources, [this, counted](Source *source) {
        if (std::exchange(sourceLinks[source].paused, true) && counted)
            SourceAccess::takeBackSilence(*source);
        // A slot may delete the source, or the engine: nothing is left to do afterwards.
        source->pause(PauseMode(pauseMode));
    });
}

bool Engine::pause()
{
    if (!d->requireMainThread("pause") || !d->active)
        return false;
    if (d->running && d->holdCount != 0 && !(d->api && d->api->mayPauseAgain()))
        return false;
    if (d->api)
        d->api->onPause();
    if (!d->pause())
        return true;
    d->removeUnstarted();
    emit paused();
    return true;
}

// Only posted: the engine's state belongs to its own thread, which may be waiting for the worker.
void Engine::pauseFor(Source *source)
{
    d->callLater("pause",
                 [this, guarded = QPointer<Source>(source), playback = d->playbacks.load()] {
                     if (guarded && playback == d->playbacks)
                         pause();
                 });
}

// No block sees the clock run while a source is still silent.
bool Engine::Data::resume()
{
    resuming.fetch_add(1);
    decrement(holdCount);
    pausedAtRest = false;
    const bool alive = forEach(*this, sources, [this](Source *source) {
        sourceLinks[source].paused = false;
        source->resume();
    });
    if (!alive)
        return false;
    resuming.fetch_sub(1);
    gate.post();
    return true;
}

bool Engine::resume()
{
    if (!d->requireMainThread("resume") || !d->active || !d->running || d->holdCount == 0)
        return false;
    if (d->api && d->api->mayPauseAgain())
        return false;
    if (!d->resume())
        return true;
    if (d->api)
        d->api->onResume();
    emit resumed();
    return true;
}

void Engine::Data::stop(StopReason reason)
{
    forEach(*this, sources, [reason](Source *source) { source->stop(reason); });
    forEach(*this, sinks, [reason](Sink *sink) { sink->stop(reason); });
}

bool Engine::Data::stop(Source *source, StopReason reason)
{
    source->stop(reason);
    return std::all_of(sources.begin(), sources.end(),
                       [](const Source *other) { return other->wasStoped(); });
}

void Engine::Data::stop(Sink *sink, StopReason reason)
{
    sink->stop(reason);
}

bool Engine::stop(bool force, StopReason reason)
{
    return stop_mixer(force, nullptr, reason);
}

bool Engine::stop(Source *source, bool force, StopReason reason)
{
    if (!source)
        return false;
    return stop_mixer(force, source, reason);
}

namespace {

bool stopFromElsewhere(Engine::Data &d, bool force, Source *source, StopReason reason)
{
    if (Engine::Data::refuseInBlock("stop"))
        return false;
    Engine *const engine = d.engine;
    bool answer = true;
    if (Engine::Data::onWorkerThread()) {
        d.callLater("stop", [=, guarded = QPointer<Source>(source)] {
            if (!source || guarded)
                engine->stop_mixer(force, guarded, reason);
        });
    } else {
        callAndWait(engine, [&] { answer = engine->stop_mixer(force, source, reason); });
    }
    return answer;
}

} // namespace

bool Engine::stop_mixer(bool force, Source *source, StopReason stopReason)
{
    if (!d->onMainThread())
        return stopFromElsewhere(*d, force, source, stopReason);
    TraceLine("Engine::stop_mixer")
        .item("force", force)
        .item("source", source)
        .item("stopReason", int(stopReason))
        .item("isActive", d->active.load())
        .item("isRunning", d->running.load())
        .item("sources", quint64(d->sources.size()))
        .item("sinks", quint64(d->sinks.size()));
    if (!force && !(d->active && d->running))
        return false;
    if (source && !d->contains(source)) {
        BLDEBUG_Error(-1, "QTovelMixer::stop: Invalid source (%p)!!", static_cast<void *>(source));
        return false;
    }
    if (!source)
        d->stop(stopReason);
    const bool allStopped = !source || d->stop(source, stopReason);
    d->removeUnstarted();
    if (!allStopped)
        return false;
    ++d->playbacks;
    if (d->active && d->monitoring && (d->monitorTrigger & MonitorUntilStop) != 0)
        setMonitoring(false);
    d->keepPosition();
    d->running = false;
    d->holdCount = 0;
    d->pausedAtRest = false;
    {
        const MixChange change(*d, source ? MixChange::RestartPlayback : MixChange::Restart);
        d->timeline->reset();
    }
    onStopped();
    return true;
}

bool Engine::isActive() const
{
    return d->active;
}

bool Engine::isRunning() const
{
    return d->isRunning();
}

bool Engine::isPlaying() const
{
    return d->active && d->running && d->sourceCount > 0;
}

bool Engine::isPaused() const
{
    return d->active && d->running && d->holdCount != 0 && !(d->api && d->api->mayPauseAgain());
}

bool Engine::isMonitoring() const
{
    return d->active && d->monitoring;
}

void Engine::setPauseMode(PauseMode mode)
{
    d->pauseMode = mode;
}

PauseMode Engine::pauseMode() const
{
    return PauseMode(d->pauseMode);
}

void Engine::setMonitorTrigger(MonitorTrigger trigger)
{
    d->monitorTrigger = trigger;
}

MonitorTrigger Engine::monitorTrigger() const
{
    return MonitorTrigger(d->monitorTrigger);
}

void Engine::printStopReason(StopReason reason)
{
    if (const char *name = reasonName(reason))
        qDebug("StopReason: %s", name);
}

} // namespace QTovelMixer
