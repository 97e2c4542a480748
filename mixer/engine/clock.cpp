// SPDX-License-Identifier: MIT
// The clock: where it stands, and setting it.
#include <mixer/engine/engine_p.h>

#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

double Engine::time() const
{
    return d->active ? d->seconds(d->mixTime.load(std::memory_order_relaxed)) : 0.0;
}

double Engine::position() const
{
    return d->isRunning() ? d->livePosition() : d->keptPosition;
}

double Engine::Data::livePosition() const
{
    double position = timeline->position(seconds(mixTime.load(std::memory_order_relaxed)));
    for (const Source *source : sources) {
        if (source->timeline() == timeline)
            position = SourceAccess::boundedByPause(*source, position);
    }
    return position;
}

void Engine::Data::keepPosition()
{
    if (isRunning())
        keptPosition = livePosition();
}

double Engine::Data::clockAt(double position) const
{
    // Without limits there is no material to map from: positions count from the beginning.
    if (timeline->start() < 0.0 || timeline->end() < 0.0)
        return std::max(position, 0.0);
    return timeline->mixer_time(position);
}

double Engine::startTime() const
{
    return d->startTime;
}

void Engine::setTime(double time)
{
    if (!d->requireMainThread("setTime"))
        return;
    const double t = std::isfinite(time) ? time : 0.0;
    const MixChange change(*d, MixChange::Everything);
    d->setTime(d->clockAt(t), t);
    d->timeline->adjustLoopTime(d->seconds(d->mixTime));
    // Inside another change this is the position to keep.
    d->takeSnapshot();
    d->keptPosition = d->livePosition();
}

void Engine::Data::setTime(double time, double start)
{
    forEach(*this, sources, [time](Source *source) { source->setTime(time); });
    forEach(*this, sinks, [time](Sink *sink) { sink->setTime(time); });
    setMixTime(time);
    if (start >= 0.0)
        startTime = start;
}

void Engine::Data::adjSourceTime(double time, double offset)
{
    forEach(*this, sources, [=](Source *source) { source->adjustTime(time, offset); });
    setMixTime(time);
}

qint64 Engine::Data::toFrames(double time) const
{
    const double frames = std::floor(time * rate() + 0.5);
    return std::isfinite(frames) && std::abs(frames) < 9.0e18 ? qint64(frames) : 0;
}

} // namespace QTovelMixer
