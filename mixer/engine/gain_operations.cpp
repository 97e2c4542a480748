// SPDX-License-Identifier: MIT
// Gains, masks, effects, meter channels.
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

} // namespace QTovelMixer
