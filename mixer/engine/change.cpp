// SPDX-License-Identifier: MIT
#include <mixer/engine/engine_p.h>

#include <base/trace_p.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace QTovelMixer {

namespace {

// Half a tick of the timeline's grid of 1/192000 s: closer positions are the same position.
constexpr double samePosition = 1.0 / 384000.0;

bool movesPosition(MixChange::Kind kind)
{
    return kind != MixChange::Sources && kind != MixChange::Everything;
}

template <typename T>
Snapshot<T> snapshotOf(const std::vector<T *> &list)
{
    return Snapshot<T>(list.begin(), list.end());
}

/// Without what an outer change has locked and not yet released.
template <typename T>
Snapshot<T> notLocked(const std::vector<T *> &all, const std::vector<T *> &locked)
{
    Snapshot<T> others;
    std::copy_if(all.begin(), all.end(), std::back_inserter(others), [&locked](const T *object) {
        return std::find(locked.begin(), locked.end(), object) == locked.end();
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

} // namespace

void EngineChange::update_source_lock()
{
    const Engine::Data &d = whole(*this);
    const Snapshot<Source> wanted = notLocked(d.sources, lockedSources);
    // All are told before the first is waited for: meanwhile the others would begin new reads.
    for (Source *source : wanted)
        SourceAccess::announceUpdate(*source);
    // The hook of one may delete others.
    for (Source *source : wanted) {
        if (!d.contains(source))
            continue;
        source->update_lock();
        if (!d.contains(source))
            continue;
        lockedSources.push_back(source);
        SourceAccess::withdrawUpdate(*source);
    }
}

void EngineChange::update_source_unlock()
{
    const Engine::Data &d = whole(*this);
    for (Source *source : snapshotOf(d.sources)) {
        if (d.contains(source))
            source->update_unlock();
    }
}

// What was added has made room for itself in the lists of locks, so that nothing here runs out of
// memory.
void EngineChange::begin(MixChange::Kind kind)
{
    Q_ASSERT(changeDepth >= 0);
    // A host may take long to write. Until it has, blocks are mixed and recorded as before.
    if (kind != MixChange::Sources && changeDepth == 0)
        lockSinks();
    holdLines();
    suspend();
    // A source's lock is a plain mutex, so that only the outermost change may take it; it gives
    // back exactly the locks that it took, whatever happens to the list inside the change.
    if (changeDepth++ == 0)
        update_source_lock();
    updateLock.lock();
    if (movesPosition(kind) && changeDepth == 1)
        takeSnapshot();
}

void EngineChange::releaseBlocks(MixChange::Kind kind)
{
    Q_ASSERT(changeDepth > 0);
    // Outside the material (past its end, or with no limits at all) there is no position to
    // keep: the clock goes on untouched.
    const bool outside = savedTimelineTime < 0.0 && savedTime > 0.0;
    const bool keeps = kind == MixChange::KeepPosition;
    if (movesPosition(kind) && changeDepth == 1 && !(keeps && outside))
        restorePosition(kind);
    updateLock.unlock();
}

void EngineChange::releaseWorkers()
{
    if (--changeDepth > 0)
        return;
    Q_ASSERT(changeDepth == 0);
    releaseAll(lockedSources, [](Source *source) { source->update_unlock(); });
    releaseAll(lockedSinks, [](Sink *sink) { SinkAccess::unlockRing(*sink); });
}

void EngineChange::end()
{
    decrement(holdCount);
    gate.post();
    releaseLines();
}

void EngineChange::update_lock()
{
    begin(MixChange::KeepPosition);
}

void EngineChange::update_unlock()
{
    releaseBlocks(MixChange::KeepPosition);
    releaseWorkers();
    end();
}

MixChange::MixChange(EngineChange &record, Kind kind) : m_record(record), m_kind(kind)
{
    m_record.begin(m_kind);
}

MixChange::~MixChange()
{
    if (m_blocksWait)
        releaseBlocks();
    if (m_workersWait)
        releaseWorkers();
    m_record.end();
}

void MixChange::releaseBlocks()
{
    m_blocksWait = false;
    m_record.releaseBlocks(m_kind);
}

void MixChange::releaseWorkers()
{
    m_workersWait = false;
    m_record.releaseWorkers();
}

void EngineChange::lockSinks()
{
    const Snapshot<Sink> wanted = notLocked(whole(*this).sinks, lockedSinks);
    for (Sink *sink : wanted)
        SinkAccess::announceUpdate(*sink);
    for (Sink *sink : wanted) {
        SinkAccess::lockRing(*sink);
        lockedSinks.push_back(sink);
    }
}

// A free-wheeling block keeps this lock from its look at the suspension to its end: a source
// silenced in between would lose a block. Device threads do not take it.
void EngineChange::suspend()
{
    const QMutexLocker locker(&freewheelLock);
    holdCount.fetch_add(1);
}

void EngineChange::takeSnapshot()
{
    const Engine::Data &d = whole(*this);
    savedTime = d.seconds(d.mixTime);
    savedTimelineTime = d.timeline->time(savedTime, false, 0.0, -1.0);
    savedLoopOffset = d.timeline->timeToLoop(savedTime);
}

void EngineChange::restorePosition(MixChange::Kind kind)
{
    Engine::Data &d = whole(*this);
    const double t = d.timeline->mixer_time(savedTimelineTime);
    const double moved = d.timeline->time(t, false, 0.0, -1.0) - savedTimelineTime;
    const bool differs = !(std::abs(moved) < samePosition);
    for (Source *source : snapshotOf(d.sources)) {
        if (!d.contains(source))
            continue;
        if (differs)
            source->setTime(t);
        else
            source->adjustTime(t, savedLoopOffset);
    }
    const qint64 shift = d.toFrames(t) - d.mixTime;
    for (Sink *sink : snapshotOf(d.sinks)) {
        if (!d.contains(sink))
            continue;
        // A sink that nobody told to stop keeps what it has recorded.
        const bool goesOn =
            kind == MixChange::RestartPlayback && SinkAccess::data(*sink).stopRequested == 0;
        if (differs && !goesOn)
            sink->setTime(t);
        else
            SinkAccess::shiftFrameBase(*sink, shift);
    }
    d.setMixTime(t);
    d.timeline->adjustLoopTime(d.seconds(d.mixTime));
}

} // namespace QTovelMixer
