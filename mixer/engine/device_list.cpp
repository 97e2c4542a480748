// SPDX-License-Identifier: MIT
// The device list: what is in it, and its updates.
#include <mixer/engine/engine_p.h>

#include <base/log_line_p.h>
#include <mixer/api/device.h>

#include <QtCore/QDebug>

#include <algorithm>
#include <iterator>
#include <vector>

namespace QTovelMixer {

namespace {

constexpr int deviceListDelay = 2500; // ms

template <typename List>
unsigned nearest(const List &ascending, unsigned value)
{
    const auto upper = std::lower_bound(ascending.begin(), ascending.end(), value);
    if (upper == ascending.end())
        return ascending.back();
    if (upper == ascending.begin())
        return *upper;
    const unsigned lower = *std::prev(upper);
    return value - lower < *upper - value ? lower : *upper;
}

// A list of Qt's, shared with the device's own, would not notice when its copy finds no memory.
std::vector<unsigned> ascendingRates(const Device *device)
{
    const QList<unsigned> listed = device->sampleRates();
    std::vector<unsigned> rates(listed.begin(), listed.end());
    std::sort(rates.begin(), rates.end());
    return rates;
}

} // namespace

EngineDeviceChoice::EngineDeviceChoice(Engine *owner) : deviceListTimer(new QTimer(owner))
{
    deviceListTimer->setSingleShot(true);
    deviceListTimer->setInterval(deviceListDelay);
    deviceListTimer->setTimerType(Qt::PreciseTimer);
}

QList<Device *> Engine::devices() const
{
    return d->api ? d->api->devices() : QList<Device *>();
}

QString Engine::backendString() const
{
    return d->api ? d->api->backendString() : QString();
}

Backend Engine::backend() const
{
    return d->api ? d->api->backend() : NoBackend;
}

Device *Engine::currentDevice(DeviceKind kind) const
{
    return d->api ? d->api->currentDevice(kind) : nullptr;
}

QString Engine::currentDeviceName(DeviceKind kind) const
{
    return Device::deviceName(currentDevice(kind));
}

Device *Engine::defaultDevice(DeviceKind kind) const
{
    return d->api ? d->api->defaultDevice(kind) : nullptr;
}

Device *Engine::device(DeviceKind kind, const QString &name) const
{
    return d->api ? d->api->device(kind, name) : nullptr;
}

Device *Engine::device(DeviceKind kind, unsigned int number) const
{
    return d->api ? d->api->device(kind, number) : nullptr;
}

unsigned int Engine::sampleRate() const
{
    return d->api ? d->api->sampleRate() : 0;
}

unsigned int Engine::bufferFrames() const
{
    return d->api ? d->api->bufferFrames() : 0;
}

unsigned int Engine::numInputChannels() const
{
    return d->api ? d->api->numInputChannels() : 0;
}

unsigned int Engine::numOutputChannels() const
{
    return d->api ? d->api->numOutputChannels() : 0;
}

bool Engine::canPlayback(bool argument) const
{
    return d->api && d->api->canPlayback(argument);
}

bool Engine::canCapture(bool argument) const
{
    return d->api && d->api->canCapture(argument);
}

bool Engine::hasControlPanel() const
{
    return backend() != Disabled;
}

// Rates and sizes -------------------------------------------------------------------------------

unsigned int Engine::preferedSampleRate(Device *output, Device *input) const
{
    unsigned rate = output ? output->preferedSampleRate() : input ? input->preferedSampleRate() : 0;
    if (output && input)
        availableSampleRates(output, input, rate);
    return rate;
}

QList<unsigned int> Engine::availableSampleRates(Device *output, Device *input,
                                                 unsigned int &rate) const
{
    QList<unsigned> rates;
    if (output && input) {
        const std::vector<unsigned> ofOutput = ascendingRates(output);
        const std::vector<unsigned> ofInput = ascendingRates(input);
        std::set_intersection(ofOutput.begin(), ofOutput.end(), ofInput.begin(), ofInput.end(),
                              std::back_inserter(rates));
    } else if (output || input) {
        for (const unsigned one : ascendingRates(output ? output : input))
            rates.append(one);
    }
    if (rates.isEmpty())
        rate = 0;
    else if (!rates.contains(rate))
        rate = rates.contains(48000u) ? 48000u : nearest(rates, rate);
    return rates;
}

QList<unsigned int> Engine::availableBufferSizes(Device *output, Device *input,
                                                 unsigned int &size) const
{
    unsigned lo = 64;
    unsigned hi = 4096;
    for (const Device *device : {output, input}) {
        if (device) {
            lo = std::max(lo, device->minBufferFrames());
            hi = std::min(hi, device->maxBufferFrames());
        }
    }
    QList<unsigned> sizes;
    if (lo <= hi) {
        for (const unsigned candidate : {64u, 128u, 256u, 512u, 1024u, 2048u, 4096u}) {
            if (lo <= candidate && candidate <= hi)
                sizes.append(candidate);
        }
        if (sizes.isEmpty() || lo < sizes.front())
            sizes.prepend(lo);
        if (hi > sizes.back())
            sizes.append(hi);
    }
    size = sizes.isEmpty() ? 0 : nearest(sizes, size);
    return sizes;
}

// Updates ---------------------------------------------------------------------------------------

void Engine::updateDeviceList(bool deactivate_before_update)
{
    if (!d->onMainThread()) {
        if (d->refuseInBlock("updateDeviceList"))
            return;
        d->callLater("updateDeviceList", [=, this] { updateDeviceList(deactivate_before_update); });
        return;
    }
    disconnect(d->stoppedLink);
    if (d->active && d->running && d->sourceCount + d->sinkCount > 0) {
        d->stoppedLink = connect(this, &Engine::stopped, this, [this, deactivate_before_update] {
            Data::callFromLoop("updateDeviceList",
                               [=, this] { updateDeviceList(deactivate_before_update); });
        });
        return;
    }
    d->deviceListTimer->stop();
    disconnect(d->deactivatedLink);
    if (!deactivate_before_update || !d->active) {
        d->deviceListTimer->start();
        emit updatingDeviceList();
        return;
    }
    d->deactivatedLink = connect(
        this, &Engine::deactivated, this,
        [this] { Data::callFromLoop("updateDeviceList", [this] { updateDeviceList(false); }); },
        Qt::QueuedConnection);
    deactivate(StopReason::NoReason);
}

namespace {

void tellOfUpdate(const char *result, const QString &backend)
{
    composeLine(QtInfoMsg, [&](QDebug &line) {
        line.nospace().noquote() << "Update of audio device list " << result << " (" << backend
                                 << ") !";
    });
}

/// An engine whose device did not open, was lost, or was not there yet, tries again with the new
/// list.
bool mustTryAgain(const Engine::Data &d)
{
    if (d.apiOpen())
        return false;
    const Engine &engine = *d.engine;
    const bool lost =
        engine.currentDevice(DeviceKind::Output) || engine.currentDevice(DeviceKind::Input);
    const bool found =
        d.activatedEmpty && d.api &&
        (d.api->defaultDevice(DeviceKind::Output) || d.api->defaultDevice(DeviceKind::Input));
    return d.openFailed || lost || found;
}

} // namespace

void Engine::doDeviceListUpdate()
{
    if (!d->requireMainThread("doDeviceListUpdate"))
        return;
    const QPointer<Engine> alive(this);
    const QString name = backendString();
    composeLine(QtInfoMsg, [&](QDebug &line) {
        line.nospace().noquote() << " -> Updating audio device list... (" << name << ") "
                                 << sender();
    });
    if (d->api && backend() != Disabled) {
        const bool updated = d->api->updateDeviceList();
        tellOfUpdate(updated ? "SUCCESSFUL" : "FAILED", name);
        if (!updated)
            emit updateDeviceListFailed(name);
        if (!alive)
            return;
    }
    if (d->api && d->api->deviceListWasChanged())
        emit deviceListChanged();
    if (!alive)
        return;
    if (d->active && mustTryAgain(*d))
        d->active = false;
    if (!d->active) {
        d->callLater("activate", [this] {
            activate(getDefault(DeviceKind::Output) == QLatin1String("default"),
                     getDefault(DeviceKind::Input) == QLatin1String("default"));
        });
    }
}

} // namespace QTovelMixer
