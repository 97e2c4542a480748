// SPDX-License-Identifier: MIT
// The private record: update bracket, gain matrix, clock, transport of all.
#include <mixer/engine/engine_p.h>

#include <base/debug.h>
#include <base/log_line_p.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>
#include <mixer/gains.h>
#include <mixer/io/effect.h>
#include <mixer/io/sink.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>
#include <mixer/meter/meter_p.h>

#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

namespace QTovelMixer {

namespace {

// Half a tick of the timeline's grid of 1/192000 s: closer positions are the same position.
constexpr double samePosition = 1.0 / 384000.0;
constexpr int deviceListDelay = 2500; // ms

/// What an outer release still holds is held for a change that begins inside it as well.
template <typename Snapshot, typename T>
Snapshot notHeld(const std::vector<T *> &all, const std::vector<T *> &held)
{
    Snapshot others;
    std::copy_if(all.begin(), all.end(), std::back_inserter(others), [&held](const T *object) {
        return std::find(held.begin(), held.end(), object) == held.end();
    });
    return others;
}

/// Empties the list and keeps its room. `release` may take others out of the list, or add some.
template <typename T, typename Release>
void releaseAll(std::vector<T *> &list, Release release)
{
    while (!list.empty()) {
        T *const object = list.front();
        list.erase(list.begin());
        release(object);
    }
}

qint64 toFrames(double seconds, unsigned rate)
{
    const double frames = std::floor(seconds * rate + 0.5);
    return std::isfinite(frames) && std::abs(frames) < 9.0e18 ? qint64(frames) : 0;
}

} // namespace

Engine::Data::Data(Engine *owner, Api *backend)
    : engine(owner), self(owner), api(backend), deviceListTimer(new QTimer(owner)),
      watchdogTimer(new QTimer(owner)), cleanUpTimer(new QTimer(owner))
{
    prepareTrace();
    cleanUpTimer->setSingleShot(true);
    cleanUpTimer->setInterval(0);
    deviceListTimer->setSingleShot(true);
    deviceListTimer->setInterval(deviceListDelay);
    deviceListTimer->setTimerType(Qt::PreciseTimer);
    sources.reserve(128);
    sinks.reserve(128);
    inputBuses.reserve(128);
    outputBuses.reserve(128);
    removedBuses.reserve(128);
    resetGainMatrix();
    timeline = new Timeline; // last: nothing gives it back when a constructor fails
}

Engine::Data::~Data()
{
    if (!IsRunningInMainThread())
        writeText(QtWarningMsg, "QTovelMixer::Engine::Data: Deleting timer outside mainthread");
    deleteMeters();
    for (const SavedState &state : savedStates)
        delete state.timeline;
    delete timeline;
    delete cleanUpTimer;
    delete watchdogTimer;
    delete deviceListTimer;
}

// First whether it is a block: to ask for the identity of a thread that Qt does not know allocates.
bool Engine::Data::onMainThread() const
{
    return !isAudioThread() &&
           (QThread::currentThread() == engine->thread() || IsRunningInMainThread());
}

bool Engine::Data::onWorkerThread()
{
    const QThread *const current = QThread::currentThread();
    return qobject_cast<const Source *>(current) || qobject_cast<const Sink *>(current) ||
           isMeterThread(current);
}

bool Engine::Data::requireMainThread(const char *operation) const
{
    if (onMainThread())
        return true;
    if (!refuseInBlock(operation))
        BLDEBUG_Error(-1, "QTovelMixer::%s: refused outside main thread!!", operation);
    return false;
}

bool Engine::Data::refuseInBlock(const char *operation)
{
    if (!isAudioThread())
        return false;
    BLDEBUG_Error(-1, "QTovelMixer::%s: refused inside a block!!", operation);
    return true;
}

// The gain matrix -----------------------------------------------------------------------------

void Engine::Data::set_mixer_gains(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                                   float gain, const float *gains)
{
    std::vector<float> table;
    if (!gains) {
        table.resize(size_t(rows) * cols);
        gains = col0 != 0 ? Gains::inputMixerGains(int(rows), int(cols), table.data())
                          : Gains::outputMixerGains(int(rows), int(cols), table.data());
    }
    if (!gains)
        return;
    const QMutexLocker locker(&updateLock);
    matrix.set(row0, rows, col0, cols, gain, gains);
    planMix();
}

void Engine::Data::set_input_mask(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                                  unsigned long long mask)
{
    const QMutexLocker locker(&updateLock);
    matrix.setMask(row0, rows, col0, cols, mask);
    planMix();
}

void Engine::Data::remove_input_gains(unsigned first, unsigned count)
{
    const QMutexLocker locker(&updateLock);
    matrix.removeRows(first, count);
    planMix();
}

void Engine::Data::remove_output_gains(unsigned first, unsigned count)
{
    const QMutexLocker locker(&updateLock);
    matrix.removeColumns(first, count);
    planMix();
}

void Engine::Data::resetGainMatrix()
{
    const QMutexLocker locker(&updateLock);
    matrix.reset();
    planMix();
}

void Engine::Data::planMix()
{
    plan->rebuild(matrix, int(inputBuses.size()), int(outputBuses.size()));
}

// The bracket ---------------------------------------------------------------------------------

void Engine::Data::update_source_lock()
{
    const Snapshot<Source> wanted = notHeld<Snapshot<Source>>(sources, lockedSources);
    // All are told before the first is waited for: meanwhile the others would begin new reads.
    for (Source *source : wanted)
        SourceAccess::announceUpdate(*source);
    // The hook of one may delete others.
    for (Source *source : wanted) {
        if (!contains(source))
            continue;
        source->update_lock();
        if (!contains(source))
            continue;
        lockedSources.push_back(source);
        SourceAccess::withdrawUpdate(*source);
    }
}

void Engine::Data::update_source_unlock()
{
    for (Source *source : Snapshot<Source>(sources.begin(), sources.end())) {
        if (contains(source))
            source->update_unlock();
    }
}

// A source's lock is a plain mutex, so that only the outermost bracket may take it; it gives
// back exactly the locks that it took, whatever happens to the list inside the bracket. What was
// added has made room for itself in the lists of locks, so that nothing here runs out of memory.
void Engine::Data::lockMix()
{
    Q_ASSERT(bracketDepth >= 0);
    holdLines();
    raiseHold();
    if (bracketDepth++ == 0)
        update_source_lock();
    updateLock.lock();
}

void Engine::Data::unlockMix()
{
    Q_ASSERT(bracketDepth > 0);
    updateLock.unlock();
    releaseWorkers();
    decrement(holdCount);
    gate.post();
    releaseLines();
}

void Engine::Data::releaseWorkers()
{
    if (--bracketDepth > 0)
        return;
    Q_ASSERT(bracketDepth == 0);
    releaseAll(lockedSources, [](Source *source) { source->update_unlock(); });
    releaseAll(lockedSinks, [](Sink *sink) { SinkAccess::updateUnlock(*sink); });
}

// A host may take long to write. Until it has, blocks are mixed and recorded as before.
void Engine::Data::holdSinks()
{
    if (bracketDepth > 0)
        return;
    const Snapshot<Sink> wanted = notHeld<Snapshot<Sink>>(sinks, lockedSinks);
    for (Sink *sink : wanted)
        SinkAccess::announceUpdate(*sink);
    for (Sink *sink : wanted) {
        SinkAccess::takeAnnouncedLock(*sink);
        lockedSinks.push_back(sink);
    }
}

void Engine::Data::takeSnapshot()
{
    savedTime = seconds(mixTime);
    savedTimelineTime = timeline->time(savedTime, false, 0.0, -1.0);
    savedLoopOffset = timeline->timeToLoop(savedTime);
}

void Engine::Data::update_lock()
{
    holdSinks();
    lockMix();
    if (bracketDepth == 1)
        takeSnapshot();
}

void Engine::Data::update_unlock()
{
    endBracket(Position::Keep);
}

void Engine::Data::endBracket(Position position)
{
    // Outside the material (past its end, or with no limits at all) there is no position to
    // keep: the clock goes on untouched.
    const bool outside = savedTimelineTime < 0.0 && savedTime > 0.0;
    if (bracketDepth == 1 && (position != Position::Keep || !outside)) {
        const double t = timeline->mixer_time(savedTimelineTime);
        const double moved = timeline->time(t, false, 0.0, -1.0) - savedTimelineTime;
        const bool differs = !(std::abs(moved) < samePosition);
        for (Source *source : Snapshot<Source>(sources.begin(), sources.end())) {
            if (!contains(source))
                continue;
            if (differs)
                source->setTime(t);
            else
                source->adjustTime(t, savedLoopOffset);
        }
        const qint64 shift = toFrames(t, rate()) - mixTime;
        for (Sink *sink : Snapshot<Sink>(sinks.begin(), sinks.end())) {
            if (!contains(sink))
                continue;
            // A sink that nobody told to stop keeps what it has recorded.
            const bool goesOn =
                position == Position::RestartPlayback && SinkAccess::data(*sink).stopRequested == 0;
            if (differs && !goesOn)
                sink->setTime(t);
            else
                SinkAccess::shiftFrameBase(*sink, shift);
        }
        setMixTime(t);
        timeline->adjustLoopTime(seconds(mixTime));
    }
    unlockMix();
}

// The clock and the transport of all ------------------------------------------------------------

void Engine::Data::setMixTime(double time)
{
    mixTime = toFrames(time, rate());
}

void Engine::Data::adjSourceTime(double time, double offset)
{
    for (Source *source : Snapshot<Source>(sources.begin(), sources.end())) {
        if (contains(source))
            source->adjustTime(time, offset);
    }
    setMixTime(time);
}

// The host's hooks and slots run inside these, and may take other objects away, or the engine.
bool Engine::Data::forEachSource(const std::function<void(Source *)> &operation)
{
    const QPointer<Engine> alive(engine);
    for (Source *source : Snapshot<Source>(sources.begin(), sources.end())) {
        if (contains(source))
            operation(source);
        if (!alive)
            return false;
    }
    return true;
}

bool Engine::Data::forEachSink(const std::function<void(Sink *)> &operation)
{
    const QPointer<Engine> alive(engine);
    for (Sink *sink : Snapshot<Sink>(sinks.begin(), sinks.end())) {
        if (contains(sink))
            operation(sink);
        if (!alive)
            return false;
    }
    return true;
}

void Engine::Data::setTime(double time, double start)
{
    forEachSource([time](Source *source) { source->setTime(time); });
    forEachSink([time](Sink *sink) { sink->setTime(time); });
    setMixTime(time);
    if (start >= 0.0)
        startTime = start;
}

void Engine::Data::prime()
{
    forEachSource([](Source *source) { source->prime(); });
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
        raiseHold();
    return forEachSource([=, this](Source *source) { pause(source, counted); });
}

// A slot may delete the source, or the engine: nothing is left to do afterwards.
void Engine::Data::pause(Source *source, bool counted)
{
    if (std::exchange(sourceLinks[source].paused, true) && counted)
        SourceAccess::takeBackSilence(*source);
    source->pause(PauseMode(pauseMode));
}

// No block sees the clock run while a source is still silent.
bool Engine::Data::resume()
{
    resuming.fetch_add(1);
    decrement(holdCount);
    pausedAtRest = false;
    const bool alive = forEachSource([this](Source *source) {
        sourceLinks[source].paused = false;
        source->resume();
    });
    if (!alive)
        return false;
    resuming.fetch_sub(1);
    gate.post();
    return true;
}

void Engine::Data::stop(StopReason reason)
{
    forEachSource([reason](Source *source) { source->stop(reason); });
    forEachSink([reason](Sink *sink) { sink->stop(reason); });
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

void Engine::Data::setSourceChannelMask(Source *source, unsigned long long mask)
{
    if (source)
        source->setChannelsMask(mask);
}

void Engine::Data::setSourceTimeline(Source *source, Timeline *attached)
{
    if (source)
        source->setTimeline(attached);
}

void Engine::Data::on_add(Source *source, Engine *owner)
{
    source->onAdded(owner);
}

void Engine::Data::on_add(Sink *sink, Engine *owner)
{
    sink->onAdded(owner);
}

} // namespace QTovelMixer
