// SPDX-License-Identifier: MIT
// Device list, device choice, opening.
#include <mixer/engine/engine_p.h>

#include <base/log_line_p.h>
#include <mixer/api/api.h>
#include <mixer/api/control_panel_p.h>
#include <mixer/api/device.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/meter/channel_layout.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/store/store.h>

#include <QtCore/QDebug>
#include <QtCore/QScopeGuard>
#include <QtCore/QThread>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace QTovelMixer {

namespace {

constexpr int deviceListDelay = 2500;    // ms
constexpr unsigned long settleTime = 50; // ms between closing and opening a device

QString defaultChoice[] = {QStringLiteral("default"), QStringLiteral("default")};

bool isSide(DeviceKind kind)
{
    return kind == DeviceKind::Input || kind == DeviceKind::Output;
}

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

// Meters weigh channels by what they are, where the device tells.
void tellLayout(Meter &meter, const Device *device, DeviceKind side)
{
    if (device)
        meter.setLayout(ChannelLayout::fromNames(device->channelNames(side)));
}

void warnOfWidth(const char *side, unsigned channels)
{
    if (channels > Engine::Data::maxChannels)
        writeWarning("QTovelMixer::Engine::open: the mix uses the first %u of %u %s channels",
                     Engine::Data::maxChannels, channels, side);
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

bool Engine::showControlPanel(DeviceKind kind)
{
    if (!isSide(kind) || !d->requireMainThread("showControlPanel"))
        return false;
    showSoundSettings(kind);
    return true;
}

void Engine::setDefault(DeviceKind kind, const QString &name)
{
    if (!isSide(kind))
        throw std::logic_error("QTovelMixer::Engine::setDefault invalid device kind");
    if (name != QLatin1String("default") && name != QLatin1String("null"))
        throw std::logic_error("QTovelMixer::Engine::setDefault deviceName must be: "
                               "\"default\" or \"null\"");
    composeLine(QtInfoMsg, [&](QDebug &line) {
        line.noquote() << (kind == DeviceKind::Input ? "Setting Default Input Device to"
                                                     : "Setting Default Output Device to")
                       << name;
    });
    defaultChoice[kind] = name;
}

QString Engine::getDefault(DeviceKind kind)
{
    if (!isSide(kind))
        throw std::logic_error("QTovelMixer::Engine::getDefault invalid device kind");
    return defaultChoice[kind];
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

// Choosing and opening --------------------------------------------------------------------------

bool Engine::select(Device *output, Device *input, unsigned int sampleRate, bool startapi)
{
    if (!d->api)
        return false;
    const auto isOpen = [=, this] {
        return d->apiOpen() && d->api->currentDevice(DeviceKind::Output) == output &&
               d->api->currentDevice(DeviceKind::Input) == input &&
               d->api->sampleRate() == sampleRate;
    };
    if (!d->onMainThread()) {
        if (d->refuseInBlock("select"))
            return false;
        // What is open is the main thread's to say.
        const auto choose = [=, this] {
            return isOpen() || open(output, input, sampleRate, startapi);
        };
        bool answer = true;
        if (d->onWorkerThread())
            d->callLater("select", [choose] { choose(); });
        else
            callAndWait(this, [&] { answer = choose(); });
        return answer;
    }
    if (isOpen())
        return true;

    // To open nothing always succeeds: it is no fallback for a device that failed.
    const bool wanted = output || input;
    const QPointer<Engine> alive(this);
    bool opened = false;
    // True when this was the last attempt: it succeeded, or a slot of `mixerChanged` has deleted
    // the engine or decided otherwise.
    const auto tryOpen = [&](Device *out, Device *in, unsigned rate) {
        if (!out && !in && wanted)
            return false;
        const unsigned choice = d->choices + 1;
        opened = open(out, in, rate, startapi);
        return opened || !alive || choice != d->choices;
    };
    const auto tryAll = [&](unsigned rate) {
        return tryOpen(output, input, rate) || tryOpen(output, nullptr, rate) ||
               tryOpen(nullptr, input, rate);
    };
    if (tryAll(sampleRate))
        return opened;
    const unsigned prefered = preferedSampleRate(output, input);
    if (prefered != 0 && prefered != sampleRate) {
        composeLine(QtInfoMsg, [&](QDebug &line) {
            line.nospace().noquote()
                << "QTovelMixer::Engine::select: rate " << sampleRate
                << " Hz not supported by the device -- retrying at its preferred rate " << prefered
                << " Hz";
        });
        if (tryAll(prefered))
            return opened;
    }

    const QList<Device *> listed = d->api->devices();
    const auto announce = [](const char *side, const Device *device, unsigned rate) {
        composeLine(QtInfoMsg, [&](QDebug &line) {
            line.nospace().noquote()
                << "QTovelMixer::Engine::select: " << side << " \"" << device->name()
                << "\" did not open -- trying same-named alternative device at " << rate << " Hz";
        });
    };
    const auto rateOf = [](const Device *device) {
        const unsigned rate = device->preferedSampleRate();
        return rate != 0 ? rate : 48000u;
    };
    for (Device *device : listed) {
        if (!output || device == output || !device->canPlayback(false) ||
            device->name() != output->name())
            continue;
        const unsigned rate = rateOf(device);
        announce("output", output, rate);
        if (tryOpen(device, input, rate) || tryOpen(device, nullptr, rate))
            return opened;
    }
    for (Device *device : listed) {
        if (!input || device == input || !device->canCapture(false) ||
            device->name() != input->name())
            continue;
        const unsigned rate = rateOf(device);
        announce("input", input, rate);
        if (tryOpen(nullptr, device, rate))
            return opened;
    }
    return false;
}

bool Engine::open(Device *outputDevice, Device *inputDevice, unsigned int sampleRate, bool startapi)
{
    if (!d->requireMainThread("open"))
        return false;
    const QPointer<Engine> alive(this);
    const unsigned choice = ++d->choices;
    const unsigned oldRate = this->sampleRate();
    d->activatedEmpty = false;
    d->openFailed = false;
    d->closeDevice();
    QThread::msleep(settleTime);

    bool opened = false;
    // A device that is open without all that belongs to it is none.
    auto undo = qScopeGuard([this] {
        d->openFailed = true;
        d->closeDevice();
    });
    {
        const QMutexLocker locker(&d->updateLock);
        opened = d->openMixerApi(outputDevice, inputDevice, sampleRate);
        if (opened) {
            if (oldRate != 0 && this->sampleRate() != oldRate)
                d->adoptRate(oldRate);
            d->numInputChannels = d->api->numInputChannels();
            d->numOutputChannels = d->api->numOutputChannels();
            d->blockFrames = d->api->bufferFrames();
            ++d->streamGeneration;
            d->isLossTold = false;
            d->rebuildBuses(outputDevice, inputDevice);
            const int rate = int(this->sampleRate());
            const MeterConfig inputConfig =
                Store::store()->findMeterConfig(Type::Input, inputDevice);
            const MeterConfig outputConfig =
                Store::store()->findMeterConfig(Type::Output, outputDevice);
            d->inputMeter =
                new Meter(Type::Input, rate, int(d->numInputChannels), inputConfig, nullptr);
            d->outputMeter =
                new Meter(Type::Output, rate, int(d->numOutputChannels), outputConfig, nullptr);
            tellLayout(*d->inputMeter, inputDevice, DeviceKind::Input);
            tellLayout(*d->outputMeter, outputDevice, DeviceKind::Output);
            d->outputName = Device::deviceName(outputDevice);
            d->inputName = Device::deviceName(inputDevice);
        }
    }
    undo.dismiss();
    if (!opened) {
        // Nothing plays without a device: it goes on with another one, or is told of the loss.
        if (d->isBusy())
            d->reportLostStream();
        composeLine(QtWarningMsg, [&](QDebug &line) {
            line.nospace().noquote()
                << "QTovelMixer::Engine::open: Failed to open mixerApi (Output: " << outputDevice
                << " / Input: " << inputDevice << " / Sample Rate: " << sampleRate << "Hz)";
        });
    }
    warnOfWidth("input", opened ? d->numInputChannels : 0);
    warnOfWidth("output", opened ? d->numOutputChannels : 0);
    emit mixerChanged();
    if (!alive)
        return false;
    if (choice != d->choices)
        return d->apiOpen(); // a slot has opened or closed devices since
    // Not before the slots have run: one that activates would go on for ever.
    d->openFailed = !opened;
    if (opened && d->active && startapi) {
        d->startMixerApi();
        d->raiseApiRefs(d->users() + 1);
    } else if (opened && d->active && d->streaming) {
        d->startStreamForUsers();
    }
    return opened;
}

// Workers keep the ring and the resamplers of the rate that they began with: they end, and the
// clock keeps its seconds.
void EngineDeviceChoice::adoptRate(unsigned oldRate)
{
    Engine::Data &d = whole(*this);
    d.stop(StopReason::DeviceListChanged);
    d.removeUnstarted();
    d.mixTime = qint64(std::floor(double(d.mixTime) / oldRate * d.rate() + 0.5));
}

// The device list -------------------------------------------------------------------------------

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
    if (d->api) {
        if (backend() != Disabled) {
            if (d->api->updateDeviceList()) {
                composeLine(QtInfoMsg, [&](QDebug &line) {
                    line.nospace().noquote()
                        << "Update of audio device list SUCCESSFUL (" << name << ") !";
                });
            } else {
                composeLine(QtInfoMsg, [&](QDebug &line) {
                    line.nospace().noquote()
                        << "Update of audio device list FAILED (" << name << ") !";
                });
                emit updateDeviceListFailed(name);
                if (!alive)
                    return;
            }
        }
        if (d->api->deviceListWasChanged())
            emit deviceListChanged();
        if (!alive)
            return;
    }
    // An engine whose device did not open, was lost, or was not there yet, tries again with the new
    // list.
    const bool lost = currentDevice(DeviceKind::Output) || currentDevice(DeviceKind::Input);
    const bool found =
        d->activatedEmpty && d->api &&
        (d->api->defaultDevice(DeviceKind::Output) || d->api->defaultDevice(DeviceKind::Input));
    if (d->active && !d->apiOpen() && (d->openFailed || lost || found))
        d->active = false;
    if (!d->active) {
        d->callLater("activate", [this] {
            activate(getDefault(DeviceKind::Output) == QLatin1String("default"),
                     getDefault(DeviceKind::Input) == QLatin1String("default"));
        });
    }
}

} // namespace QTovelMixer
