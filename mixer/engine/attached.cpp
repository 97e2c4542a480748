// SPDX-License-Identifier: MIT
// Sources and sinks: adding, removing, deleting.
#include <mixer/engine/kinds_p.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>

#include <QtCore/QScopeGuard>
#include <QtCore/QThread>

#include <algorithm>
#include <iterator>
#include <optional>

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

/// A source with a range of its own reads that, also where its host does not know how long the
/// material is and says so with a negative number.
bool hasLength(const Source &source)
{
    const double duration = source.contentDuration();
    return duration >= 0.0 || (duration < 0.0 && source.range().isValid());
}

} // namespace

// Adding ----------------------------------------------------------------------------------------

bool Engine::addSource(Source *source, float gain, Options options)
{
    if (!d->requireMainThread("addSource"))
        return false;
    if (!source || !d->active || !canPlayback() || source->numChannels() < 1)
        return false;
    if (!Data::requireFinite("addSource", gain))
        return false;
    const int rate = source->sampleRate();
    if (!d->refusal(source) && !ResamplerBank::canConvert(rate, int(sampleRate()))) {
        BLDEBUG_Error(-1, "QTovelMixer::addSource: Cannot play %d Hz at %u Hz (%p)!!", rate,
                      sampleRate(), static_cast<void *>(source));
        return false;
    }
    if (!d->refusal(source) && !hasLength(*source)) {
        BLDEBUG_Error(-1, "QTovelMixer::addSource: Invalid length of material (%p)!!",
                      static_cast<void *>(source));
        return false;
    }
    return d->add(source, gain, options);
}

bool Engine::addSink(Sink *sink, float gain, Options options)
{
    if (!d->requireMainThread("addSink"))
        return false;
    // A sink may record the device, or the mix on a device that only plays.
    if (!sink || !d->active || !(canPlayback() || canCapture()) || sink->numChannels() < 1)
        return false;
    return Data::requireFinite("addSink", gain) && d->add(sink, gain, options);
}

template <typename T>
const char *Engine::Data::refusal(const T *object) const
{
    using Access = typename Kind<T>::Access;
    if (contains(object))
        return Kind<T>::added;
    if (Access::engine(*object) != engine)
        return Kind<T>::foreign;
    const auto &retired = Kind<T>::retired(const_cast<Data &>(*this));
    const bool isRemoved = std::any_of(retired.begin(), retired.end(),
                                       [object](const auto &entry) { return entry == object; });
    return isRemoved || Access::isUsedUp(*object) ? Kind<T>::usedUp : nullptr;
}

template <typename T>
bool Engine::Data::add(T *object, float gain, Options options)
{
    if (const char *const text = refusal(object)) {
        BLDEBUG_Error(-1, text, static_cast<void *>(object));
        return false;
    }
    // No bus is made for an object that will be refused: it may claim any number of channels.
    const unsigned channels = channelsOf(object);
    const bool fits = Kind<T>::buses(*this).size() + channels <= maxChannels;
    Arrival<T> arrival;
    const auto disconnectUnused = qScopeGuard([&arrival] { disconnect(arrival.link); });
    const Span span = spanOf(object, options);
    if (fits)
        prepare(object, channels, gain, arrival);
    auto undo = qScopeGuard([this] { stopMixerApi(); });
    {
        // Workers read the limits, so that they are held off when the limits change.
        std::optional<MixHold> hold;
        if (span.widens)
            hold.emplace(*this);
        const QMutexLocker locker(&updateLock);
        startMixerApi();
        if (!fits) {
            BLDEBUG_Error(-1, Kind<T>::noRoom, static_cast<void *>(object));
            return false;
        }
        attach(object, arrival, span);
    }
    undo.dismiss();
    if (!options.testFlag(NoAddedSignal))
        Kind<T>::announce(engine, object);
    return true;
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

// A block may be waiting while the update lock is held. So all that takes memory, or locks of
// Qt's, which inherit no priority, is done before.
template <typename T>
void Engine::Data::prepare(T *object, unsigned channels, float gain, Arrival<T> &arrival)
{
    arrival.buses = makeBuses(channels, blockFrames);
    arrival.gains = initialGains(object, channels, engine->currentDevice(Kind<T>::wiredTo));
    makeRoom<T>(Kind<T>::buses(*this).size() + channels);
    Link &link = arrival.link[object];
    link.gain = gain;
    link.holdsStream = Kind<T>::holdsStream(object);
    Kind<T>::connectTo(engine, object, link);
}

template <typename T>
void Engine::Data::disconnect(const std::map<const T *, Link> &links)
{
    for (const auto &[object, link] : links) {
        for (const QMetaObject::Connection &connection : link.connections)
            QObject::disconnect(connection);
    }
}

/// What it takes over is no longer in `arrival` afterwards.
template <typename T>
void Engine::Data::attach(T *object, Arrival<T> &arrival, const Span &span)
{
    std::vector<Bus> &buses = Kind<T>::buses(*this);
    const unsigned first = unsigned(buses.size());
    Kind<T>::Access::setBuses(*object, unsigned(arrival.buses.size()));
    const Link &link = arrival.link[object];
    const float gain = link.gain;
    if (link.holdsStream)
        streamUsers.fetch_add(1);
    Kind<T>::links(*this).insert(arrival.link.extract(object));
    {
        const QMutexLocker locker(&listLock);
        Kind<T>::list(*this).push_back(object);
    }
    auto undo = qScopeGuard([this, object] { withdraw(object); });
    std::move(arrival.buses.begin(), arrival.buses.end(), std::back_inserter(buses));
    writeGains(object, first, gain, arrival.gains);
    planMix();
    follow(object, span);
    on_add(object, engine);
    undo.dismiss();
    Kind<T>::count(*this).fetch_add(1);
    raiseApiRefs(users());
}

/// Room for one object more in all that it will ever stand in: taking it out takes no memory.
template <typename T>
void Engine::Data::makeRoom(size_t buses)
{
    const size_t listed = Kind<T>::list(*this).size() + 1;
    Kind<T>::locked(*this).reserve(listed);
    Kind<T>::retired(*this).reserve(Kind<T>::retired(*this).size() + listed);
    if (Kind<T>::list(*this).capacity() >= listed && Kind<T>::buses(*this).capacity() >= buses)
        return;
    const QMutexLocker locker(&updateLock);
    {
        const QMutexLocker listLocker(&listLock);
        Kind<T>::list(*this).reserve(listed);
    }
    Kind<T>::buses(*this).reserve(buses);
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
    const QPointer<Engine> alive(this);
    const QPointer<Source> guarded(source);
    if (!addSource(source, gain)) {
        Engine *const owner = source ? SourceAccess::engine(*source) : nullptr;
        if (!owner || !owner->isValid(source))
            deleteSource(source);
        return false;
    }
    // A slot of `sourceAdded` may have taken it away again, or the engine.
    if (!alive || !guarded || !d->contains(source))
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
    keepPosition();
    if (!withdraw(object))
        return false;
    Kind<T>::count(*this).fetch_sub(1);
    gate.post();
    return true;
}

/// Undoes `attach`, or as much of it as was done.
template <typename T>
bool Engine::Data::withdraw(T *object)
{
    // Given back when the lock is free again.
    std::map<const T *, Link> gone;
    HostGains wishes;
    const auto release = qScopeGuard([this, &gone] {
        disconnect(gone);
        removedBuses.clear();
    });
    const QMutexLocker locker(&updateLock);
    auto &objects = Kind<T>::list(*this);
    const auto position = std::find(objects.begin(), objects.end(), object);
    if (position == objects.end())
        return false;
    auto &buses = Kind<T>::buses(*this);
    const unsigned bus = Kind<T>::firstBus(*this, object);
    const unsigned count = std::min(busesOf(object), unsigned(buses.size()) - bus);
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
    gone.insert(Kind<T>::links(*this).extract(object));
    wishes = hostGains.take(object);
    const auto first = buses.begin() + bus;
    std::move(first, first + count, std::back_inserter(removedBuses));
    buses.erase(first, first + count);
    Kind<T>::removeGains(*this, bus, count);
    if (!gone.empty() && gone.begin()->second.holdsStream)
        decrement(streamUsers);
    unfollow(object);
    return true;
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
    d->remove(source, isAudioThread() ? nullptr : sender());
}

void Engine::removeSink(Sink *sink)
{
    d->remove(sink, isAudioThread() ? nullptr : sender());
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
    // A slot of `stopped` may delete it first, or the engine.
    const QPointer<Engine> alive(engine);
    const QPointer<T> guarded(object);
    detach(object);
    Kind<T>::retired(*this).push_back(guarded);
    const unsigned generation = streamGeneration;
    if (users() == 0)
        emit engine->stopped(reason);
    if (!alive)
        return;
    // A slot of `stopped` may have closed the stream, and opened another one since.
    if (generation == streamGeneration)
        stopMixerApi();
    checkRest();
    queueCleanUp([this, guarded] { Kind<T>::destroy(engine, guarded); });
}

// What memory allows for is done in the order in which it was asked for, each in an event of its
// own. The timer has its connection since the engine was made.
template <typename Operation>
void Engine::Data::queueCleanUp(Operation operation)
{
    try {
        callLater("cleanUp", operation);
    } catch (const std::bad_alloc &) {
        cleanUpTimer->start();
    }
}

void Engine::Data::cleanUp()
{
    for (; owedStops > 0; --owedStops) {
        if (owedGeneration == streamGeneration)
            stopMixerApi();
    }
    const QPointer<Engine> alive(engine);
    cleanUp(sources);
    if (alive)
        cleanUp(sinks);
}

template <typename T>
void Engine::Data::cleanUp(const std::vector<T *> &objects)
{
    const QPointer<Engine> alive(engine);
    for (T *object : Snapshot<T>(objects.begin(), objects.end())) {
        if (contains(object) && isUnstarted(object))
            Kind<T>::remove(engine, object);
        if (!alive)
            return;
    }
    std::vector<QPointer<T>> &retired = Kind<T>::retired(*this);
    while (!retired.empty()) {
        const QPointer<T> object = retired.back();
        retired.pop_back();
        Kind<T>::destroy(engine, object);
    }
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
        if (!isUnstarted(object))
            continue;
        queueCleanUp([this, guarded = QPointer<T>(object)] {
            if (guarded && contains(guarded) && !Access::threadStarted(*guarded))
                Kind<T>::remove(engine, guarded);
        });
    }
}

template <typename T>
bool Engine::Data::isUnstarted(const T *object)
{
    return Kind<T>::wasStopped(object) && !Kind<T>::Access::threadStarted(*object);
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
    if (!object || !requireMainThread(Kind<T>::deleting))
        return;
    Engine *const owner = Kind<T>::Access::engine(*object);
    if (owner && owner != engine)
        return Kind<T>::destroy(owner, object);
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
    if (onMainThread() && bracketDepth == 0) {
        stopMixerApi();
        return;
    }
    const auto later = [this, generation = streamGeneration] {
        if (generation == streamGeneration)
            stopMixerApi();
    };
    try {
        callLater("releaseStream", later);
    } catch (const std::bad_alloc &) {
        owedStops = owedGeneration == streamGeneration ? owedStops + 1 : 1;
        owedGeneration = streamGeneration;
        cleanUpTimer->start();
    }
}

void Engine::letGo(Source *source)
{
    d->letGo(source);
}

void Engine::letGo(Sink *sink)
{
    d->letGo(sink);
}

/// What the host deletes itself leaves as what `destroy` deletes.
template <typename T>
void Engine::Data::letGo(T *object)
{
    if (!onMainThread()) {
        {
            const QMutexLocker locker(&listLock);
            if (!contains(object))
                return;
        }
        BLDEBUG_Error(-1, Kind<T>::goneElsewhere, static_cast<void *>(object));
    }
    if (detach(object))
        releaseStream();
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

// One by one: a list of Qt's that is made whole does not notice that it found no memory.
template <typename T>
QList<T *> Engine::Data::listed(const std::vector<T *> &objects) const
{
    const QMutexLocker locker(&listLock);
    QList<T *> list;
    for (T *object : objects)
        list.append(object);
    return list;
}

QList<Source *> Engine::activeSources() const
{
    return d->listed(d->sources);
}

QList<Sink *> Engine::activeSinks() const
{
    return d->listed(d->sinks);
}

int Engine::numActiveSources() const
{
    const QMutexLocker locker(&d->listLock);
    return int(d->sources.size());
}

int Engine::numActiveSinks() const
{
    const QMutexLocker locker(&d->listLock);
    return int(d->sinks.size());
}

} // namespace QTovelMixer
