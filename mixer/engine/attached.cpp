// SPDX-License-Identifier: MIT
#include <mixer/engine/kinds_p.h>

#include <algorithm>

namespace QTovelMixer {

namespace {

bool isLive(const Source *source)
{
    return !source->wasStoped();
}

bool isLive(const Sink *sink)
{
    return !SinkAccess::isOver(*sink);
}

template <typename T>
bool works(const T *object)
{
    return isLive(object) && Kind<T>::Access::threadStarted(*object);
}

template <typename Question>
bool anyOf(const EngineAttached &attached, Question question)
{
    return std::any_of(attached.sources.begin(), attached.sources.end(), question) ||
           std::any_of(attached.sinks.begin(), attached.sinks.end(), question);
}

} // namespace

EngineAttached::EngineAttached(Engine *owner) : cleanUpTimer(new QTimer(owner))
{
    cleanUpTimer->setSingleShot(true);
    cleanUpTimer->setInterval(0);
    sources.reserve(EngineMix::maxChannels);
    sinks.reserve(EngineMix::maxChannels);
}

bool EngineAttached::contains(const Source *source) const
{
    return std::find(sources.begin(), sources.end(), source) != sources.end();
}

bool EngineAttached::contains(const Sink *sink) const
{
    return std::find(sinks.begin(), sinks.end(), sink) != sinks.end();
}

bool EngineAttached::hasLiveUsers() const
{
    return anyOf(*this, [](const auto *object) { return isLive(object); });
}

bool EngineAttached::hasWorkingUsers() const
{
    return anyOf(*this, [](const auto *object) { return works(object); });
}

namespace {

// One by one: a list of Qt's that is made whole does not notice that it found no memory.
template <typename T>
QList<T *> listed(const EngineAttached &attached, const std::vector<T *> &objects)
{
    const QMutexLocker locker(&attached.listLock);
    QList<T *> list;
    for (T *object : objects)
        list.append(object);
    return list;
}

} // namespace

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
    return listed(*d, d->sources);
}

QList<Sink *> Engine::activeSinks() const
{
    return listed(*d, d->sinks);
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

void EngineAttached::on_add(Source *source, Engine *owner)
{
    source->onAdded(owner);
}

void EngineAttached::on_add(Sink *sink, Engine *owner)
{
    sink->onAdded(owner);
}

void EngineAttached::setSourceChannelMask(Source *source, unsigned long long mask)
{
    if (source)
        source->setChannelsMask(mask);
}

void EngineAttached::setSourceTimeline(Source *source, Timeline *attached)
{
    if (source)
        source->setTimeline(attached);
}

} // namespace QTovelMixer
