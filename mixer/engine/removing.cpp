// SPDX-License-Identifier: MIT
// Sources and sinks: on their way out of the mix. An object is detached, then retired until the
// event loop destroys it.
#include <mixer/engine/kinds_p.h>

#include <base/trace_p.h>

#include <QtCore/QScopeGuard>

#include <algorithm>
#include <iterator>

namespace QTovelMixer {

namespace {

using Data = Engine::Data;
using Link = EngineAttached::Link;

void leaveTimeline(Source *source)
{
    source->setTimeline(nullptr);
}

void leaveTimeline(Sink *) {}

template <typename T>
bool detachUncounted(Data &d, T *object)
{
    // Given back when the lock is free again.
    std::map<const T *, Link> gone;
    HostGains wishes;
    const auto release = qScopeGuard([&d, &gone] {
        disconnect(gone);
        d.removedBuses.clear();
    });
    const QMutexLocker locker(&d.updateLock);
    auto &objects = Kind<T>::list(d);
    const auto position = std::find(objects.begin(), objects.end(), object);
    if (position == objects.end())
        return false;
    auto &buses = Kind<T>::buses(d);
    const unsigned bus = Kind<T>::firstBus(d, object);
    const unsigned count = std::min(busesOf(object), unsigned(buses.size()) - bus);
    {
        const QMutexLocker listLocker(&d.listLock);
        objects.erase(position);
    }
    auto &held = Kind<T>::locked(d);
    const auto locked = std::find(held.begin(), held.end(), object);
    if (locked != held.end()) {
        held.erase(locked);
        Kind<T>::unlockRing(object);
    }
    gone.insert(Kind<T>::links(d).extract(object));
    wishes = d.hostGains.take(object);
    const auto first = buses.begin() + bus;
    std::move(first, first + count, std::back_inserter(d.removedBuses));
    buses.erase(first, first + count);
    Kind<T>::removeGains(d, bus, count);
    if (!gone.empty() && gone.begin()->second.holdsStream)
        decrement(d.streamUsers);
    leaveTimeline(object);
    return true;
}

/// Takes a listed object out of the mix. Returns false when it is not listed.
template <typename T>
bool detach(Data &d, T *object)
{
    d.keepPosition();
    if (!detachUncounted(d, object))
        return false;
    Kind<T>::count(d).fetch_sub(1);
    d.gate.post();
    return true;
}

/// Calls `operation` from an event of its own. Without memory `cleanUp`, which does the same work,
/// is called instead. While there is memory, operations run in the order of the requests.
template <typename Operation>
void queueCleanUp(Data &d, Operation operation)
{
    try {
        d.callLater("cleanUp", operation);
    } catch (const std::bad_alloc &) {
        d.cleanUpTimer->start();
    }
}

// Two counters that know nothing of each other: the users of the device stream, and those that
// forbid edits of the timeline.
void checkRest(const Data &d)
{
    Q_ASSERT(d.users() > 0 || d.streamUsers == 0);
    Q_ASSERT(d.users() > 0 || d.apiOpen() || d.apiRefs == 0);
    Q_UNUSED(d)
}

/// Why an object cannot be removed; null when it can.
template <typename T>
const char *removalRefusal(const Data &d, const T *object)
{
    return !d.contains(object)   ? Kind<T>::unknown
           : !d.onMainThread()   ? Kind<T>::wrongThread
           : object->isRunning() ? Kind<T>::stillRunning
                                 : nullptr;
}

template <typename T>
void remove(Data &d, T *object, QObject *caller)
{
    StopReason reason = StopReason::NoReason;
    {
        const QMutexLocker locker(&d.updateLock);
        TraceLine(Kind<T>::removeEvent)
            .item(Kind<T>::item, object)
            .item("sender", caller)
            .item("sources", quint64(d.sources.size()))
            .item("sinks", quint64(d.sinks.size()));
        if (const char *const text = removalRefusal(d, object)) {
            BLDEBUG_Error(-1, text, static_cast<void *>(object));
            return;
        }
        reason = object->stopReason();
    }
    // A slot of `stopped` may delete it first, or the engine.
    const QPointer<Engine> alive(d.engine);
    const QPointer<T> guarded(object);
    detach(d, object);
    Kind<T>::retired(d).push_back(guarded);
    const unsigned generation = d.streamGeneration;
    if (d.users() == 0)
        emit d.engine->stopped(reason);
    if (!alive)
        return;
    // A slot of `stopped` may have closed the stream, and opened another one since.
    if (generation == d.streamGeneration)
        d.stopMixerApi();
    checkRest(d);
    queueCleanUp(d, [engine = d.engine, guarded] { Kind<T>::destroy(engine, guarded); });
}

template <typename T>
bool isUnstarted(const T *object)
{
    return Kind<T>::wasStopped(object) && !Kind<T>::Access::threadStarted(*object);
}

template <typename T>
void queueRemovalOfUnstarted(Data &d, const std::vector<T *> &objects)
{
    for (T *object : objects) {
        if (!isUnstarted(object))
            continue;
        queueCleanUp(d, [&d, guarded = QPointer<T>(object)] {
            if (guarded && d.contains(guarded) && !Kind<T>::Access::threadStarted(*guarded))
                Kind<T>::remove(d.engine, guarded);
        });
    }
}

/// What was queued with `queueCleanUp`, or could not be. The engine may be gone afterwards.
template <typename T>
void cleanUpAll(Data &d, const std::vector<T *> &objects)
{
    const QPointer<Engine> alive(d.engine);
    for (T *object : Snapshot<T>(objects.begin(), objects.end())) {
        if (d.contains(object) && isUnstarted(object))
            Kind<T>::remove(d.engine, object);
        if (!alive)
            return;
    }
    std::vector<QPointer<T>> &retired = Kind<T>::retired(d);
    while (!retired.empty()) {
        const QPointer<T> object = retired.back();
        retired.pop_back();
        Kind<T>::destroy(d.engine, object);
    }
}

/// Neither the object nor one that is gone is in the list afterwards.
template <typename T>
void eraseRetired(std::vector<QPointer<T>> &list, const T *object)
{
    std::erase_if(list,
                  [object](const QPointer<T> &entry) { return entry.isNull() || entry == object; });
}

template <typename T>
void destroy(Data &d, T *object)
{
    if (!object || !d.requireMainThread(Kind<T>::deleting))
        return;
    Engine *const owner = Kind<T>::Access::engine(*object);
    if (owner && owner != d.engine)
        return Kind<T>::destroy(owner, object);
    const bool listed = detach(d, object);
    eraseRetired(Kind<T>::retired(d), static_cast<const T *>(object));
    Kind<T>::Access::endAndWait(*object);
    delete object;
    if (listed)
        d.releaseStream();
}

/// What the host deletes itself leaves as what `destroy` deletes.
template <typename T>
void detachDeleted(Data &d, T *object)
{
    if (!d.onMainThread()) {
        {
            const QMutexLocker locker(&d.listLock);
            if (!d.contains(object))
                return;
        }
        BLDEBUG_Error(-1, Kind<T>::goneElsewhere, static_cast<void *>(object));
    }
    if (detach(d, object))
        d.releaseStream();
}

} // namespace

bool undoAttach(Engine::Data &d, Source *source)
{
    return detachUncounted(d, source);
}

bool undoAttach(Engine::Data &d, Sink *sink)
{
    return detachUncounted(d, sink);
}

void EngineAttached::removeUnstarted()
{
    queueRemovalOfUnstarted(whole(*this), sources);
    queueRemovalOfUnstarted(whole(*this), sinks);
}

void EngineAttached::cleanUp()
{
    Data &d = whole(*this);
    d.releaseOwed();
    const QPointer<Engine> alive(d.engine);
    cleanUpAll(d, sources);
    if (alive)
        cleanUpAll(d, sinks);
}

void Engine::removeSource()
{
    Source *const source = qobject_cast<Source *>(sender());
    Data::callFromLoop("removeSource", [this, source] { removeSource(source); });
}

void Engine::removeSink()
{
    Sink *const sink = qobject_cast<Sink *>(sender());
    Data::callFromLoop("removeSink", [this, sink] { removeSink(sink); });
}

// To ask for the sender takes a lock.
void Engine::removeSource(Source *source)
{
    remove(*d, source, isAudioThread() ? nullptr : sender());
}

void Engine::removeSink(Sink *sink)
{
    remove(*d, sink, isAudioThread() ? nullptr : sender());
}

void Engine::deleteSource(Source *source)
{
    destroy(*d, source);
}

void Engine::deleteSink(Sink *sink)
{
    destroy(*d, sink);
}

void Engine::letGo(Source *source)
{
    detachDeleted(*d, source);
}

void Engine::letGo(Sink *sink)
{
    detachDeleted(*d, sink);
}

} // namespace QTovelMixer
