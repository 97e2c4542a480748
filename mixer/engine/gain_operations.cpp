// SPDX-License-Identifier: MIT
// Gains, masks, effects, meter channels, and the timeline's edits.
#include <mixer/engine/engine_p.h>

#include <base/debug.h>
#include <mixer/api/api.h>
#include <mixer/io/effect.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/meter/meter.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace QTovelMixer {

namespace {

bool refuse(const char *format, const void *object)
{
    BLDEBUG_Error(-1, format, object);
    return false;
}

bool refuseChannel(const char *format, int channel, const void *object)
{
    BLDEBUG_Error(-1, format, channel, object);
    return false;
}

bool checkSource(const Engine::Data &data, const Source *source, int channel)
{
    if (!data.contains(source))
        return refuse("QTovelMixer::setGain: Invalid source (%p)!!", source);
    if (channel < 0 || channel >= source->numChannels())
        return refuseChannel("QTovelMixer::setGain: Invalid channel (%d) for source (%p)!!",
                             channel, source);
    return true;
}

// The mix takes the first channels of a device that has more.
bool checkDeviceChannel(int channel, unsigned channels)
{
    if (channel >= 0 && unsigned(channel) < std::min(channels, Engine::Data::maxChannels))
        return true;
    BLDEBUG_Error(-1, "QTovelMixer::setGain: Invalid input channel (%d)!!", channel);
    return false;
}

bool checkSink(const Engine::Data &data, const Sink *sink, int channel)
{
    if (!data.contains(sink))
        return refuse("QTovelMixer::setGain: Invalid sink (%p)!!", sink);
    if (channel < 0 || channel >= sink->numChannels())
        return refuseChannel("QTovelMixer::setGain: Invalid channel (%d) for sink (%p)!!", channel,
                             sink);
    return true;
}

} // namespace

bool Engine::Data::requireFinite(const char *operation, float gain)
{
    if (std::isfinite(gain))
        return true;
    BLDEBUG_Error(-1, "QTovelMixer::%s: Invalid gain!!", operation);
    return false;
}

bool Engine::Data::setCell(const HostGains::Cell &cell, float gain)
{
    // Nobody but this thread changes the matrix or what it stands for, so that it is read here
    // without the lock. No block waits while a plan is made.
    unsigned row = 0;
    unsigned column = 0;
    if (!cellOf(cell, row, column))
        return false;
    hostGains.setCell(cell, gain);
    const bool wasHeard = matrix.gain[row][column] != 0.0f;
    const bool mayFollow = wasHeard == (gain != 0.0f);
    if (!mayFollow)
        sparePlan->rebuildFor(matrix, int(inputBuses.size()), int(outputBuses.size()),
                              {row, column, gain});
    const QMutexLocker locker(&updateLock);
    matrix.setCell(row, column, gain);
    if (!mayFollow)
        std::swap(plan, sparePlan);
    else if (!plan->follow(matrix, row, column))
        planMix();
    return true;
}

bool Engine::setGain(Source *source, int channel, int output, float gain)
{
    if (!d->requireMainThread("setGain") || !checkSource(*d, source, channel) ||
        !checkDeviceChannel(output, numOutputChannels()))
        return false;
    return Data::requireFinite("setGain", gain) &&
           d->setCell({source, nullptr, unsigned(channel), unsigned(output)}, gain);
}

bool Engine::setGain(int input, Sink *sink, int channel, float gain)
{
    if (!d->requireMainThread("setGain") || !checkSink(*d, sink, channel) ||
        !checkDeviceChannel(input, numInputChannels()))
        return false;
    return Data::requireFinite("setGain", gain) &&
           d->setCell({nullptr, sink, unsigned(input), unsigned(channel)}, gain);
}

bool Engine::setGain(Source *source, int channel, Sink *sink, int sinkChannel, float gain)
{
    if (!d->requireMainThread("setGain") || !checkSource(*d, source, channel) ||
        !checkSink(*d, sink, sinkChannel))
        return false;
    return Data::requireFinite("setGain", gain) &&
           d->setCell({source, sink, unsigned(channel), unsigned(sinkChannel)}, gain);
}

bool Engine::addRoute(Source *source, Sink *sink, float gain)
{
    if (!source || !sink || !d->requireMainThread("addRoute"))
        return false;
    if (!d->contains(sink))
        return refuse("QTovelMixer::addRoute: Invalid sink (%p)!!", sink);
    if (!d->contains(source))
        return refuse("QTovelMixer::addRoute: Invalid source (%p)!!", source);
    if (!Data::requireFinite("addRoute", gain))
        return false;
    HostGains wish = HostGains::route(source, sink, gain);
    if (!d->writeRoute(source, sink, gain))
        return false;
    const QMutexLocker locker(&d->updateLock);
    d->hostGains.adopt(wish);
    return true;
}

bool Engine::setChannelsMask(Source *source, unsigned long long mask, float gain, bool flag)
{
    Q_UNUSED(gain)
    Q_UNUSED(flag)
    if (!d->requireMainThread("setChannelsMask"))
        return false;
    if (!d->contains(source))
        return refuse("QTovelMixer::setChannelsMask: Invalid source (%p)!!", source);
    HostGains wish = HostGains::mask(source, mask);
    const QMutexLocker locker(&d->updateLock);
    d->hostGains.adopt(wish);
    d->writeMask(source, mask);
    d->setSourceChannelMask(source, mask);
    return true;
}

void Engine::setMasterOutputGain(float gain)
{
    if (!Data::requireFinite("setMasterOutputGain", gain))
        return;
    d->masterOutputGain = gain;
    onMasterGainChanged();
}

void Engine::setMasterInputGain(float gain)
{
    if (!Data::requireFinite("setMasterInputGain", gain))
        return;
    d->masterInputGain = gain;
    onMasterGainChanged();
}

float Engine::masterOutputGain() const
{
    return d->masterOutputGain;
}

float Engine::masterInputGain() const
{
    return d->masterInputGain;
}

void Engine::setMonitoring(bool value)
{
    if (!d->requireMainThread("setMonitoring") || !d->active || !canPlayback())
        return;
    d->writeMonitorGains(value);
    d->monitoring = value;
}

// Effects ---------------------------------------------------------------------------------------

Effect *Engine::Data::replaceEffect(Effect *&slot, QMetaObject::Connection &link, Effect *effect)
{
    if (!requireMainThread("replaceEffect"))
        return nullptr;
    // First: an effect whose end nobody noticed must not be used.
    QMetaObject::Connection watched;
    if (effect) {
        watched = QObject::connect(
            effect, &QObject::destroyed, engine,
            [this, &slot] {
                const QMutexLocker locker(&updateLock);
                slot = nullptr;
            },
            Qt::DirectConnection);
    }
    Effect *replaced = nullptr;
    {
        const QMutexLocker locker(&updateLock);
        replaced = slot;
        slot = effect;
    }
    QObject::disconnect(link);
    link = watched;
    if (replaced && replaced != effect)
        replaced->onReplaced();
    return replaced;
}

Effect *Engine::replaceOutputEffect(Effect *effect)
{
    return d->replaceEffect(d->outputEffect, d->outputEffectLink, effect);
}

Effect *Engine::replaceInputEffect(Effect *effect)
{
    return d->replaceEffect(d->inputEffect, d->inputEffectLink, effect);
}

void Engine::setOutputEffectBypass(bool bypass)
{
    if (!d->requireMainThread("setOutputEffectBypass") || !d->active)
        return;
    d->outputEffectBypass = bypass;
    emit mixerChanged();
}

void Engine::setInputEffectBypass(bool bypass)
{
    if (!d->requireMainThread("setInputEffectBypass") || !d->active)
        return;
    d->inputEffectBypass = bypass;
    emit mixerChanged();
}

bool Engine::outputEffectBypass() const
{
    return d->outputEffectBypass != 0;
}

bool Engine::inputEffectBypass() const
{
    return d->inputEffectBypass != 0;
}

// Meters ----------------------------------------------------------------------------------------

void Engine::setChannelMeterEnabled(Type type, int channel, bool enabled)
{
    if (!d->active || channel > 127 || !d->requireMainThread("setChannelMeterEnabled"))
        return;
    Meter *meter = type == Type::Input    ? d->inputMeter
                   : type == Type::Output ? d->outputMeter
                                          : nullptr;
    if (meter && meter->setChannelEnabled(channel, enabled))
        emit meterLayoutChanged();
}

Meter *Engine::inputMeter() const
{
    return d->inputMeter;
}

Meter *Engine::outputMeter() const
{
    return d->outputMeter;
}

// The timeline ----------------------------------------------------------------------------------

Timeline *Engine::timeline() const
{
    return d->timeline;
}

bool Engine::isLooping() const
{
    return d->timeline->isLooping();
}

void Engine::setTime(double time)
{
    if (!d->requireMainThread("setTime"))
        return;
    const double t = std::isfinite(time) ? time : 0.0;
    d->holdSinks();
    const MixHold hold(*d);
    const bool unset = d->timeline->start() < 0.0 || d->timeline->end() < 0.0;
    d->setTime(unset ? std::max(t, 0.0) : d->timeline->mixer_time(t), t);
    d->timeline->adjustLoopTime(d->seconds(d->mixTime));
    // Inside a bracket this is the position to keep.
    d->takeSnapshot();
    d->keptPosition = d->livePosition();
}

bool Engine::Data::mayEdit(const char *operation) const
{
    return requireMainThread(operation) && streamUsers == 0;
}

void Engine::addSelection(double begin, double end)
{
    if (begin == end || !d->mayEdit("addSelection"))
        return;
    const MixBracket bracket(*d);
    d->timeline->addSlice(begin, end);
}

void Engine::removeSelection(double begin, double end)
{
    if (!d->mayEdit("removeSelection"))
        return;
    const MixBracket bracket(*d);
    d->timeline->removeSlice(begin, end);
}

void Engine::clearSelections()
{
    if (!d->mayEdit("clearSelections"))
        return;
    const MixBracket bracket(*d);
    d->timeline->clearSlices();
}

void Engine::setLimits(double begin, double end)
{
    if (!d->mayEdit("setLimits"))
        return;
    const MixBracket bracket(*d);
    d->timeline->setLimits(begin, end);
}

void Engine::expandLimits(double begin, double end)
{
    if (d->timeline->limitsExpanded(begin, end))
        setLimits(begin, end);
}

void Engine::collapsLimits(double begin, double end)
{
    if (d->timeline->limitsCollapsed(begin, end))
        setLimits(begin, end);
}

void Engine::setLooping(bool value)
{
    if (!d->requireMainThread("setLooping") || !d->active)
        return;
    {
        const MixBracket bracket(*d);
        d->timeline->setLooping(value);
    }
    emit mixerChanged();
}

} // namespace QTovelMixer
