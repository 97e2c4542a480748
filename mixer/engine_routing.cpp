// SPDX-License-Identifier: MIT
// Sources and sinks: adding, removing, deleting.
#include <mixer/engine_kinds_p.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>

#include <QtCore/QThread>

#include <algorithm>
#include <iterator>

namespace QTovelMixer {

namespace {

template <typename T>
void forget(std::vector<QPointer<T>> &list, const T *object)
{
    list.erase(std::remove_if(list.begin(), list.end(),
                              [object](const QPointer<T> &entry) {
                                  return entry.isNull() || entry == object;
                              }),
               list.end());
}

} // namespace

// Adding ----------------------------------------------------------------------------------------

bool Engine::addSource(Source *source, float gain, Options options)
{
    if (!d->requireMainThread("addSource"))
        return false;
    if (!source || !d->active || !canPlayback() || source->numChannels() < 1 || d->contains(source))
        return false;
    return d->add(source, gain, options);
}

bool Engine::addSink(Sink *sink, float gain, Options options)
{
    if (!d->requireMainThread("addSink"))
        return false;
    // A sink may record the device, or the mix on a device that only plays.
    if (!sink || !d->active || !(canPlayback() || canCapture()) || sink->numChannels() < 1 ||
        d->contains(sink))
        return false;
    return d->add(sink, gain, options);
}

template <typename T>
bool Engine::Data::add(T *object, float gain, Options options)
{
    std::vector<Bus> buses = makeBuses(channelsOf(object), engine->bufferFrames());
    const Span span = spanOf(object, options);
    // Workers read the limits, so that they are held off when the limits change.
    if (span.widens)
        lockMix();
    else
        updateLock.lock();
    startMixerApi();
    const bool fits = Kind<T>::buses(*this).size() + buses.size() <= maxChannels;
    if (fits)
        attach(object, gain, std::move(buses), span);
    else
        BLDEBUG_Error(-1, Kind<T>::noRoom, static_cast<void *>(object));
    if (span.widens)
        unlockMix();
    else
        updateLock.unlock();
    if (!fits)
        stopMixerApi();
    else if (!options.testFlag(NoAddedSignal))
        Kind<T>::announce(engine, object);
    return fits;
}

Engine::Data::Span Engine::Data::spanOf(const Source *source, Options options) const
{
    Span span;
    span.follows = !options.testFlag(NoTimeline);
    span.begin = source->contentStart();
    span.end = span.begin + source->contentDuration();
    span.widens = span.follows && timeline->limitsExpanded(span.begin, span.end);
    return span;
}

Engine::Data::Span Engine::Data::spanOf(const Sink *, Options) const
{
    return {};
}

template <typename T>
void Engine::Data::attach(T *object, float gain, std::vector<Bus> added, const Span &span)
{
    Link &link = Kind<T>::links(*this)[object];
    link.gain = gain;
    link.holdsStream = Kind<T>::holdsStream(object);
    if (link.holdsStream)
        streamUsers.fetch_add(1);
    {
        const QMutexLocker locker(&listLock);
        Kind<T>::list(*this).push_back(object);
    }
    std::vector<Bus> &buses = Kind<T>::buses(*this);
    const unsigned first = unsigned(buses.size());
    std::move(added.begin(), added.end(), std::back_inserter(buses));
    Kind<T>::writeGains(*this, object, first, gain);
    planMix();
    follow(object, span);
    Kind<T>::connectTo(engine, object, link);
    on_add(object, engine);
    Kind<T>::count(*this).fetch_add(1);
    raiseApiRefs(users());
}

void Engine::Data::follow(Source *source, const Span &span)
{
    if (span.follows)
        source->setTimeline(timeline);
    if (span.widens)
        timeline->setLimits(span.begin, span.end);
}

void Engine::Data::follow(Sink *, const Span &) {}

bool Engine::play(Source *source, float gain)
{
    if (!d->requireMainThread("play") || !d->active)
        return false;
    const QPointer<Source> guarded(source);
    if (!addSource(source, gain)) {
        if (!d->contains(source))
            deleteSource(source);
        return false;
    }
    // A slot of `sourceAdded` may have taken it away again.
    if (!guarded || !d->contains(source))
        return false;
    if (source->timeline() && !source->range().isValid()) {
        // The clock may be anywhere; the source begins where it is now.
        const MixHold hold(*d);
        source->setTime(time());
    }
    source->start(QThread::InheritPriority);
    d->prime(source);
    return true;
}

// Removing --------------------------------------------------------------------------------------

bool Engine::Data::detach(Source *source)
{
    return takeOut(source);
}

bool Engine::Data::detach(Sink *sink)
{
    return takeOut(sink);
}

void Engine::Data::unfollow(Source *source)
{
    source->setTimeline(nullptr);
}

void Engine::Data::unfollow(Sink *) {}

template <typename T>
bool Engine::Data::takeOut(T *object)
{
    std::vector<Bus> removed;
    const QMutexLocker locker(&updateLock);
    auto &objects = Kind<T>::list(*this);
    const auto position = std::find(objects.begin(), objects.end(), object);
    if (position == objects.end())
        return false;
    auto &buses = Kind<T>::buses(*this);
    const unsigned bus = Kind<T>::firstBus(*this, object);
    const unsigned count = std::min(channelsOf(object), unsigned(buses.size()) - bus);
    {
        const QMutexLocker listLocker(&listLock);
        objects.erase(position);
    }
    auto &held = Kind<T>::locked(*this);
    const auto locked = std::find(held.begin(), held.end(), object);
    if (locked != held.end()) {
        held.erase(locked);
        Kind<T>::updateUnlock(object);
    }
    const Link link = std::move(Kind<T>::links(*this)[object]);
    Kind<T>::links(*this).erase(object);
    for (const QMetaObject::Connection &connection : link.connections)
        QObject::disconnect(connection);
    const auto first = buses.begin() + bus;
    std::move(first, first + count, std::back_inserter(removed));
    buses.erase(first, first + count);
    Kind<T>::removeGains(*this, bus, count);
    if (link.holdsStream)
        decrement(streamUsers);
    unfollow(object);
    Kind<T>::count(*this).fetch_sub(1);
    gate.post();
    return true;
}

void Engine::removeSource()
{
    removeSource(qobject_cast<Source *>(sender()));
}

void Engine::removeSink()
{
    removeSink(qobject_cast<Sink *>(sender()));
}

void Engine::removeSource(Source *source)
{
    d->remove(source, sender());
}

void Engine::removeSink(Sink *sink)
{
    d->remove(sink, sender());
}

template <typename T>
void Engine::Data::remove(T *object, QObject *caller)
{
    StopReason reason = StopReason::NoReason;
    {
        const QMutexLocker locker(&updateLock);
        TraceLine(Kind<T>::removeEvent)
            .item(Kind<T>::item, object)
            .item("sender", caller)
            .item("sources", quint64(sources.size()))
            .item("sinks", quint64(sinks.size()));
        const char *const refusal = !contains(object)     ? Kind<T>::unknown
                                    : !onMainThread()     ? Kind<T>::wrongThread
                                    : object->isRunning() ? Kind<T>::stillRunning
                                                          : nullptr;
        if (refusal) {
            BLDEBUG_Error(-1, refusal, static_cast<void *>(object));
            return;
        }
        reason = object->stopReason();
    }
    // A slot of `stopped` may delete it first.
    const QPointer<T> guarded(object);
    detach(object);
    Kind<T>::retired(*this).push_back(guarded);
    const unsigned generation = streamGeneration;
    if (users() == 0)
        emit engine->stopped(reason);
    // A slot of `stopped` may have closed the stream, and opened another one since.
    if (generation == streamGeneration)
        stopMixerApi();
    checkRest();
    QMetaObject::invokeMethod(
        engine, [this, guarded] { Kind<T>::destroy(engine, guarded); }, Qt::QueuedConnection);
}

// Two counters that know nothing of each other: the users of the device stream, and those that
// forbid edits of the timeline.
void Engine::Data::checkRest() const
{
    Q_ASSERT(users() > 0 || streamUsers == 0);
    Q_ASSERT(users() > 0 || apiOpen() || apiRefs == 0);
}

// Objects that were told to stop before they were ever started have no thread that could end.
void Engine::Data::removeUnstarted()
{
    removeUnstarted(sources);
    removeUnstarted(sinks);
}

template <typename T>
void Engine::Data::removeUnstarted(const std::vector<T *> &objects)
{
    using Access = typename Kind<T>::Access;
    for (T *object : objects) {
        if (!Kind<T>::wasStopped(object) || Access::threadStarted(*object))
            continue;
        QMetaObject::invokeMethod(
            engine,
            [this, guarded = QPointer<T>(object)] {
                if (guarded && contains(guarded) && !Access::threadStarted(*guarded))
                    Kind<T>::remove(engine, guarded);
            },
            Qt::QueuedConnection);
    }
}

void Engine::deleteSource(Source *source)
{
    d->destroy(source);
}

void Engine::deleteSink(Sink *sink)
{
    d->destroy(sink);
}

template <typename T>
void Engine::Data::destroy(T *object)
{
    if (!object)
        return;
    const bool listed = detach(object);
    forget(Kind<T>::retired(*this), static_cast<const T *>(object));
    Kind<T>::Access::endAndWait(*object);
    delete object;
    if (listed)
        releaseStream();
}

/// Takes one use of the stream back. A block that waits for a change of the mix to end cannot end
/// before: the stream is then stopped afterwards.
void Engine::Data::releaseStream()
{
    if (bracketDepth == 0) {
        stopMixerApi();
        return;
    }
    const auto later = [this, generation = streamGeneration] {
        if (generation == streamGeneration)
            stopMixerApi();
    };
    QMetaObject::invokeMethod(engine, later, Qt::QueuedConnection);
}

bool Engine::isValid(Source *source) const
{
    const QMutexLocker locker(&d->listLock);
    return d->contains(source);
}

bool Engine::isValid(Sink *sink) const
{
    const QMutexLocker locker(&d->listLock);
    return d->contains(sink);
}

QList<Source *> Engine::activeSources() const
{
    const QMutexLocker locker(&d->listLock);
    return QList<Source *>(d->sources.begin(), d->sources.end());
}

QList<Sink *> Engine::activeSinks() const
{
    const QMutexLocker locker(&d->listLock);
    return QList<Sink *>(d->sinks.begin(), d->sinks.end());
}

int Engine::numActiveSources() const
{
    return int(activeSources().size());
}

int Engine::numActiveSinks() const
{
    return int(activeSinks().size());
}

} // namespace QTovelMixer
