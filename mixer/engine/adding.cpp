// SPDX-License-Identifier: MIT
// Sources and sinks: on their way into the mix.
#include <mixer/engine/kinds_p.h>

#include <mixer/io/resampler_bank_p.h>

#include <QtCore/QScopeGuard>
#include <QtCore/QThread>

#include <algorithm>
#include <iterator>
#include <optional>

namespace QTovelMixer {

namespace {

using Data = Engine::Data;
using Link = EngineAttached::Link;

/// What a source brings along for the timeline.
struct Span
{
    bool follows = false;
    bool widens = false; ///< the limits
    double begin = 0.0;  ///< seconds
    double end = 0.0;
};

/// All that adding takes memory for, made before the update lock is taken.
template <typename T>
struct Arrival
{
    std::vector<EngineMix::Bus> buses;
    std::vector<float> gains; ///< its wiring to the device; empty for none
    std::map<const T *, Link> link;
};

/// A source with a range of its own reads that, also where its host does not know how long the
/// material is and says so with a negative number.
bool hasLength(const Source &source)
{
    const double duration = source.contentDuration();
    return duration >= 0.0 || (duration < 0.0 && source.range().isValid());
}

Span spanOf(const Data &d, const Source *source, Options options)
{
    Span span;
    span.follows = !options.testFlag(NoTimeline);
    span.begin = source->contentStart();
    span.end = span.begin + source->contentDuration();
    span.widens = span.follows && d.timeline->limitsExpanded(span.begin, span.end);
    return span;
}

Span spanOf(const Data &, const Sink *, Options)
{
    return {};
}

void follow(Data &d, Source *source, const Span &span)
{
    if (span.follows)
        source->setTimeline(d.timeline);
    if (span.widens)
        d.timeline->setLimits(span.begin, span.end);
}

void follow(Data &, Sink *, const Span &) {}

/// Why an object cannot be added, with a place for its address; null when it can.
template <typename T>
const char *refusal(const Data &d, const T *object)
{
    using Access = typename Kind<T>::Access;
    if (d.contains(object))
        return Kind<T>::added;
    if (Access::engine(*object) != d.engine)
        return Kind<T>::foreign;
    const auto &retired = Kind<T>::retired(d);
    const bool isRemoved = std::any_of(retired.begin(), retired.end(),
                                       [object](const auto &entry) { return entry == object; });
    return isRemoved || Access::isUsedUp(*object) ? Kind<T>::usedUp : nullptr;
}

/// Room for one object more in all that it will ever stand in: detaching it takes no memory.
template <typename T>
void makeRoom(Data &d, size_t buses)
{
    const size_t listed = Kind<T>::list(d).size() + 1;
    Kind<T>::locked(d).reserve(listed);
    Kind<T>::retired(d).reserve(Kind<T>::retired(d).size() + listed);
    if (Kind<T>::list(d).capacity() >= listed && Kind<T>::buses(d).capacity() >= buses)
        return;
    const QMutexLocker locker(&d.updateLock);
    {
        const QMutexLocker listLocker(&d.listLock);
        Kind<T>::list(d).reserve(listed);
    }
    Kind<T>::buses(d).reserve(buses);
}

// A block may be waiting while the update lock is held. So all that takes memory, or locks of
// Qt's, which inherit no priority, is done before.
template <typename T>
void prepare(Data &d, T *object, unsigned channels, float gain, Arrival<T> &arrival)
{
    arrival.buses = EngineMix::makeBuses(channels, d.blockFrames);
    arrival.gains = d.initialGains(object, channels, d.engine->currentDevice(Kind<T>::wiredTo));
    makeRoom<T>(d, Kind<T>::buses(d).size() + channels);
    Link &link = arrival.link[object];
    link.gain = gain;
    link.holdsStream = Kind<T>::holdsStream(object);
    Kind<T>::connectTo(d.engine, object, link);
}

/// What it takes over is no longer in `arrival` afterwards.
template <typename T>
void attach(Data &d, T *object, Arrival<T> &arrival, const Span &span)
{
    std::vector<EngineMix::Bus> &buses = Kind<T>::buses(d);
    const unsigned first = unsigned(buses.size());
    Kind<T>::Access::setBuses(*object, unsigned(arrival.buses.size()));
    const Link &link = arrival.link[object];
    const float gain = link.gain;
    if (link.holdsStream)
        d.streamUsers.fetch_add(1);
    Kind<T>::links(d).insert(arrival.link.extract(object));
    {
        const QMutexLocker locker(&d.listLock);
        Kind<T>::list(d).push_back(object);
    }
    auto undo = qScopeGuard([&d, object] { undoAttach(d, object); });
    std::move(arrival.buses.begin(), arrival.buses.end(), std::back_inserter(buses));
    d.writeGains(object, first, gain, arrival.gains);
    d.planMix();
    follow(d, object, span);
    d.on_add(object, d.engine);
    undo.dismiss();
    Kind<T>::count(d).fetch_add(1);
    d.raiseApiRefs(d.users());
}

template <typename T>
bool add(Data &d, T *object, float gain, Options options)
{
    if (const char *const text = refusal(d, object)) {
        BLDEBUG_Error(-1, text, static_cast<void *>(object));
        return false;
    }
    // No bus is made for an object that will be refused: it may claim any number of channels.
    const unsigned channels = channelsOf(object);
    const bool fits = Kind<T>::buses(d).size() + channels <= EngineMix::maxChannels;
    Arrival<T> arrival;
    const auto disconnectUnused = qScopeGuard([&arrival] { disconnect(arrival.link); });
    const Span span = spanOf(d, object, options);
    if (fits)
        prepare(d, object, channels, gain, arrival);
    auto undo = qScopeGuard([&d] { d.stopMixerApi(); });
    {
        // Workers read the limits, so that they are held off when the limits change.
        std::optional<MixChange> change;
        if (span.widens)
            change.emplace(d, MixChange::Sources);
        const QMutexLocker locker(&d.updateLock);
        d.startMixerApi();
        if (!fits) {
            BLDEBUG_Error(-1, Kind<T>::noRoom, static_cast<void *>(object));
            return false;
        }
        attach(d, object, arrival, span);
    }
    undo.dismiss();
    if (!options.testFlag(NoAddedSignal))
        Kind<T>::announce(d.engine, object);
    return true;
}

} // namespace

bool Engine::addSource(Source *source, float gain, Options options)
{
    if (!d->requireMainThread("addSource"))
        return false;
    if (!source || !d->active || !canPlayback() || source->numChannels() < 1)
        return false;
    if (!Data::requireFinite("addSource", gain))
        return false;
    const int rate = source->sampleRate();
    if (!refusal(*d, source) && !ResamplerBank::canConvert(rate, int(sampleRate()))) {
        BLDEBUG_Error(-1, "QTovelMixer::addSource: Cannot play %d Hz at %u Hz (%p)!!", rate,
                      sampleRate(), static_cast<void *>(source));
        return false;
    }
    if (!refusal(*d, source) && !hasLength(*source)) {
        BLDEBUG_Error(-1, "QTovelMixer::addSource: Invalid length of material (%p)!!",
                      static_cast<void *>(source));
        return false;
    }
    return add(*d, source, gain, options);
}

bool Engine::addSink(Sink *sink, float gain, Options options)
{
    if (!d->requireMainThread("addSink"))
        return false;
    // A sink may record the device, or the mix on a device that only plays.
    if (!sink || !d->active || !(canPlayback() || canCapture()) || sink->numChannels() < 1)
        return false;
    return Data::requireFinite("addSink", gain) && add(*d, sink, gain, options);
}

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
        const MixChange change(*d, MixChange::Sources);
        source->setTime(time());
    }
    source->start(QThread::InheritPriority);
    d->prime(source);
    return true;
}

} // namespace QTovelMixer
