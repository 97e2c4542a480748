// SPDX-License-Identifier: MIT
// Sources and sinks: adding, removing, deleting.
#include <mixer/engine_p.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>
#include <mixer/io/sink.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

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
    const unsigned channels = channelsOf(source);
    const double begin = source->contentStart();
    const double end = begin + source->contentDuration();
    const bool follow = !options.testFlag(NoTimeline);
    const bool widen = follow && d->timeline->limitsExpanded(begin, end);
    std::vector<Data::Bus> buses = Data::makeBuses(channels, bufferFrames());

    // Workers read the limits, so that they are held off when the limits change.
    if (widen)
        d->lockMix();
    else
        d->updateLock.lock();
    const auto unlock = [this, widen] {
        if (widen)
            d->unlockMix();
        else
            d->updateLock.unlock();
    };

    d->startMixerApi();
    if (d->inputBuses.size() + channels > Data::maxChannels) {
        BLDEBUG_Error(-1, "QTovelMixer::addSource: Unable to add source (%p)!!",
                      static_cast<void *>(source));
        unlock();
        d->stopMixerApi();
        return false;
    }
    Data::Link &link = d->sourceLinks[source];
    link.gain = gain;
    link.holdsStream = source->isContinuous();
    if (link.holdsStream)
        d->streamUsers.fetch_add(1);
    {
        const QMutexLocker locker(&d->listLock);
        d->sources.push_back(source);
    }
    const unsigned row = unsigned(d->inputBuses.size());
    std::move(buses.begin(), buses.end(), std::back_inserter(d->inputBuses));
    d->writeSourceGains(source, row, currentDevice(DeviceKind::Output), gain);
    d->planMix();
    if (follow) {
        source->setTimeline(d->timeline);
        if (widen)
            d->timeline->setLimits(begin, end);
    }
    link.connections[0] =
        connect(source, &Source::sourceStateChanged, this, &Engine::sourceStateChanged);
    link.connections[1] = connect(source, &Source::sourceFinished, this, &Engine::sourceFinished);
    link.connections[2] =
        connect(source, &QThread::finished, this, qOverload<>(&Engine::removeSource));
    d->on_add(source, this);
    d->sourceCount.fetch_add(1);
    d->raiseApiRefs(d->users());
    unlock();
    if (!options.testFlag(NoAddedSignal))
        emit sourceAdded(source);
    return true;
}

bool Engine::addSink(Sink *sink, float gain, Options options)
{
    if (!d->requireMainThread("addSink"))
        return false;
    // A sink may record the device, or the mix on a device that only plays.
    if (!sink || !d->active || !(canPlayback() || canCapture()) || sink->numChannels() < 1 ||
        d->contains(sink))
        return false;
    const unsigned channels = channelsOf(sink);
    std::vector<Data::Bus> buses = Data::makeBuses(channels, bufferFrames());
    {
        const QMutexLocker locker(&d->updateLock);
        d->startMixerApi();
        if (d->outputBuses.size() + channels <= Data::maxChannels) {
            Data::Link &link = d->sinkLinks[sink];
            link.gain = gain;
            link.holdsStream = true;
            d->streamUsers.fetch_add(1);
            {
                const QMutexLocker listLocker(&d->listLock);
                d->sinks.push_back(sink);
            }
            const unsigned column = unsigned(d->outputBuses.size());
            std::move(buses.begin(), buses.end(), std::back_inserter(d->outputBuses));
            d->writeSinkGains(sink, column, currentDevice(DeviceKind::Input), gain);
            d->planMix();
            link.connections[0] =
                connect(sink, &Sink::sinkStateChanged, this, &Engine::sinkStateChanged);
            link.connections[1] = connect(sink, &Sink::sinkFinished, this, &Engine::sinkFinished);
            link.connections[2] =
                connect(sink, &QThread::finished, this, qOverload<>(&Engine::removeSink));
            d->on_add(sink, this);
            d->sinkCount.fetch_add(1);
            d->raiseApiRefs(d->users());
        } else {
            BLDEBUG_Error(-1, "QTovelMixer::addSink: Unable to add sink (%p)!!",
                          static_cast<void *>(sink));
        }
    }
    if (!d->contains(sink)) {
        d->stopMixerApi();
        return false;
    }
    if (!options.testFlag(NoAddedSignal))
        emit sinkAdded(sink);
    return true;
}

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
    std::vector<Bus> removed;
    const QMutexLocker locker(&updateLock);
    const auto position = std::find(sources.begin(), sources.end(), source);
    if (position == sources.end())
        return false;
    const unsigned row = rowOf(source);
    const unsigned count = std::min(channelsOf(source), unsigned(inputBuses.size()) - row);
    {
        const QMutexLocker listLocker(&listLock);
        sources.erase(position);
    }
    const auto locked = std::find(lockedSources.begin(), lockedSources.end(), source);
    if (locked != lockedSources.end()) {
        lockedSources.erase(locked);
        source->update_unlock();
    }
    const Link link = std::move(sourceLinks[source]);
    sourceLinks.erase(source);
    for (const QMetaObject::Connection &connection : link.connections)
        QObject::disconnect(connection);
    const auto first = inputBuses.begin() + row;
    std::move(first, first + count, std::back_inserter(removed));
    inputBuses.erase(first, first + count);
    remove_input_gains(row, count);
    if (link.holdsStream)
        decrement(streamUsers);
    source->setTimeline(nullptr);
    sourceCount.fetch_sub(1);
    gate.post();
    return true;
}

bool Engine::Data::detach(Sink *sink)
{
    std::vector<Bus> removed;
    const QMutexLocker locker(&updateLock);
    const auto position = std::find(sinks.begin(), sinks.end(), sink);
    if (position == sinks.end())
        return false;
    const unsigned column = columnOf(sink);
    const unsigned count = std::min(channelsOf(sink), unsigned(outputBuses.size()) - column);
    {
        const QMutexLocker listLocker(&listLock);
        sinks.erase(position);
    }
    const Link link = std::move(sinkLinks[sink]);
    sinkLinks.erase(sink);
    for (const QMetaObject::Connection &connection : link.connections)
        QObject::disconnect(connection);
    const auto first = outputBuses.begin() + column;
    std::move(first, first + count, std::back_inserter(removed));
    outputBuses.erase(first, first + count);
    remove_output_gains(column, count);
    if (link.holdsStream)
        decrement(streamUsers);
    sinkCount.fetch_sub(1);
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
    QObject *const caller = sender();
    StopReason reason = StopReason::NoReason;
    {
        const QMutexLocker locker(&d->updateLock);
        TraceLine("Engine::removeSource")
            .item("source", source)
            .item("sender", caller)
            .item("sources", quint64(d->sources.size()))
            .item("sinks", quint64(d->sinks.size()));
        const char *refusal = nullptr;
        if (!d->contains(source))
            refusal = "QTovelMixer::removeSource: invalid source pointer (%p)!!";
        else if (!d->onMainThread())
            refusal = "QTovelMixer::removeSource: cannot remove source outside main thread!!";
        else if (source->isRunning())
            refusal = "QTovelMixer::removeSource: cannot remove source in running state!!";
        if (refusal) {
            BLDEBUG_Error(-1, refusal, static_cast<void *>(source));
            return;
        }
        reason = source->stopReason();
    }
    // A slot of `stopped` may delete it first.
    const QPointer<Source> guarded(source);
    d->detach(source);
    d->retiredSources.push_back(guarded);
    const unsigned generation = d->streamGeneration;
    if (d->users() == 0)
        emit stopped(reason);
    // A slot of `stopped` may have closed the stream, and opened another one since.
    if (generation == d->streamGeneration)
        d->stopMixerApi();
    d->checkRest();
    QMetaObject::invokeMethod(
        this, [this, guarded] { deleteSource(guarded); }, Qt::QueuedConnection);
}

void Engine::removeSink(Sink *sink)
{
    QObject *const caller = sender();
    StopReason reason = StopReason::NoReason;
    {
        const QMutexLocker locker(&d->updateLock);
        TraceLine("Engine::removeSink")
            .item("sink", sink)
            .item("sender", caller)
            .item("sources", quint64(d->sources.size()))
            .item("sinks", quint64(d->sinks.size()));
        const char *refusal = nullptr;
        if (!d->contains(sink))
            refusal = "QTovelMixer::removeSink: invalid sink pointer (%p)!!";
        else if (!d->onMainThread())
            refusal = "QTovelMixer::removeSink: cannot remove sink outside main thread!!";
        else if (sink->isRunning())
            refusal = "QTovelMixer::removeSink: cannot remove sink in running state!!";
        if (refusal) {
            BLDEBUG_Error(-1, refusal, static_cast<void *>(sink));
            return;
        }
        reason = sink->stopReason();
    }
    // A slot of `stopped` may delete it first.
    const QPointer<Sink> guarded(sink);
    d->detach(sink);
    d->retiredSinks.push_back(guarded);
    const unsigned generation = d->streamGeneration;
    if (d->users() == 0)
        emit stopped(reason);
    if (generation == d->streamGeneration)
        d->stopMixerApi();
    d->checkRest();
    QMetaObject::invokeMethod(
        this, [this, guarded] { deleteSink(guarded); }, Qt::QueuedConnection);
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
    for (Source *source : sources) {
        if (!source->wasStoped() || SourceAccess::threadStarted(*source))
            continue;
        QMetaObject::invokeMethod(
            engine,
            [this, guarded = QPointer<Source>(source)] {
                if (guarded && contains(guarded) && !SourceAccess::threadStarted(*guarded))
                    engine->removeSource(guarded);
            },
            Qt::QueuedConnection);
    }
    for (Sink *sink : sinks) {
        if (SinkAccess::data(*sink).stopRequested == 0 || SinkAccess::threadStarted(*sink))
            continue;
        QMetaObject::invokeMethod(
            engine,
            [this, guarded = QPointer<Sink>(sink)] {
                if (guarded && contains(guarded) && !SinkAccess::threadStarted(*guarded))
                    engine->removeSink(guarded);
            },
            Qt::QueuedConnection);
    }
}

void Engine::deleteSource(Source *source)
{
    if (!source)
        return;
    d->detach(source);
    forget(d->retiredSources, source);
    SourceAccess::endAndWait(*source);
    delete source;
}

void Engine::deleteSink(Sink *sink)
{
    if (!sink)
        return;
    d->detach(sink);
    forget(d->retiredSinks, sink);
    SinkAccess::endAndWait(*sink);
    delete sink;
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
