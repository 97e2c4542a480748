// SPDX-License-Identifier: MIT
// Choosing devices and opening them.
#include <mixer/engine/engine_p.h>

#include <base/log_line_p.h>
#include <mixer/api/api.h>
#include <mixer/api/control_panel_p.h>
#include <mixer/api/device.h>
#include <mixer/meter/channel_layout.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/store/store.h>

#include <QtCore/QDebug>
#include <QtCore/QScopeGuard>
#include <QtCore/QThread>

#include <cmath>
#include <stdexcept>

namespace QTovelMixer {

namespace {

constexpr unsigned long settleTime = 50; // ms between closing and opening a device

QString defaultChoice[] = {QStringLiteral("default"), QStringLiteral("default")};

bool isSide(DeviceKind kind)
{
    return kind == DeviceKind::Input || kind == DeviceKind::Output;
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

namespace {

/// What one `select` tries, in this order. Each operation returns true when that was the last
/// attempt: it has opened, or a slot of `mixerChanged` has deleted the engine or decided otherwise.
class Attempts
{
public:
    Attempts(Engine::Data &data, Device *output, Device *input, bool startApi)
        : m_data(data), m_alive(data.engine), m_output(output), m_input(input), m_startApi(startApi)
    {}

    bool atRate(unsigned rate)
    {
        return open(m_output, m_input, rate) || open(m_output, nullptr, rate) ||
               open(nullptr, m_input, rate);
    }
    bool withOutputOfThatName(const QList<Device *> &listed);
    bool withInputOfThatName(const QList<Device *> &listed);

    bool opened() const { return m_opened; }

private:
    bool open(Device *output, Device *input, unsigned rate);
    static void announce(const char *side, const Device *device, unsigned rate);
    static unsigned rateOf(const Device *device)
    {
        const unsigned rate = device->preferedSampleRate();
        return rate != 0 ? rate : 48000u;
    }

    Engine::Data &m_data;
    const QPointer<Engine> m_alive;
    Device *const m_output;
    Device *const m_input;
    const bool m_startApi;
    bool m_opened = false;
};

bool Attempts::open(Device *output, Device *input, unsigned rate)
{
    // To open nothing always succeeds: it is no fallback for a device that failed.
    if (!output && !input && (m_output || m_input))
        return false;
    const unsigned choice = m_data.choices + 1;
    m_opened = m_data.engine->open(output, input, rate, m_startApi);
    return m_opened || !m_alive || choice != m_data.choices;
}

bool Attempts::withOutputOfThatName(const QList<Device *> &listed)
{
    for (Device *device : listed) {
        if (!m_output || device == m_output || !device->canPlayback(false) ||
            device->name() != m_output->name())
            continue;
        const unsigned rate = rateOf(device);
        announce("output", m_output, rate);
        if (open(device, m_input, rate) || open(device, nullptr, rate))
            return true;
    }
    return false;
}

bool Attempts::withInputOfThatName(const QList<Device *> &listed)
{
    for (Device *device : listed) {
        if (!m_input || device == m_input || !device->canCapture(false) ||
            device->name() != m_input->name())
            continue;
        const unsigned rate = rateOf(device);
        announce("input", m_input, rate);
        if (open(nullptr, device, rate))
            return true;
    }
    return false;
}

void Attempts::announce(const char *side, const Device *device, unsigned rate)
{
    composeLine(QtInfoMsg, [&](QDebug &line) {
        line.nospace().noquote() << "QTovelMixer::Engine::select: " << side << " \""
                                 << device->name()
                                 << "\" did not open -- trying same-named alternative device at "
                                 << rate << " Hz";
    });
}

bool isOpen(const EngineStream &stream, Device *output, Device *input, unsigned rate)
{
    return stream.apiOpen() && stream.api->currentDevice(DeviceKind::Output) == output &&
           stream.api->currentDevice(DeviceKind::Input) == input &&
           stream.api->sampleRate() == rate;
}

} // namespace

bool Engine::select(Device *output, Device *input, unsigned int sampleRate, bool startapi)
{
    if (!d->api)
        return false;
    if (!d->onMainThread()) {
        if (d->refuseInBlock("select"))
            return false;
        // What is open is the main thread's to say.
        const auto choose = [=, this] {
            return isOpen(*d, output, input, sampleRate) ||
                   open(output, input, sampleRate, startapi);
        };
        bool answer = true;
        if (d->onWorkerThread())
            d->callLater("select", [choose] { choose(); });
        else
            callAndWait(this, [&] { answer = choose(); });
        return answer;
    }
    if (isOpen(*d, output, input, sampleRate))
        return true;

    Attempts attempts(*d, output, input, startapi);
    if (attempts.atRate(sampleRate))
        return attempts.opened();
    const unsigned prefered = preferedSampleRate(output, input);
    if (prefered != 0 && prefered != sampleRate) {
        composeLine(QtInfoMsg, [&](QDebug &line) {
            line.nospace().noquote()
                << "QTovelMixer::Engine::select: rate " << sampleRate
                << " Hz not supported by the device -- retrying at its preferred rate " << prefered
                << " Hz";
        });
        if (attempts.atRate(prefered))
            return attempts.opened();
    }
    const QList<Device *> listed = d->api->devices();
    if (attempts.withOutputOfThatName(listed) || attempts.withInputOfThatName(listed))
        return attempts.opened();
    return false;
}

namespace {

/// Opens the devices, and makes anew what belongs to them: buses, gains, meters.
bool openDevices(Engine::Data &d, Device *output, Device *input, unsigned wantedRate,
                 unsigned oldRate)
{
    const QMutexLocker locker(&d.updateLock);
    if (!d.openMixerApi(output, input, wantedRate))
        return false;
    const unsigned rate = d.rate();
    if (oldRate != 0 && rate != oldRate)
        d.adoptRate(oldRate);
    d.numInputChannels = d.api->numInputChannels();
    d.numOutputChannels = d.api->numOutputChannels();
    d.blockFrames = d.api->bufferFrames();
    ++d.streamGeneration;
    d.isLossTold = false;
    d.rebuildBuses(output, input);
    const MeterConfig inputConfig = Store::store()->findMeterConfig(Type::Input, input);
    const MeterConfig outputConfig = Store::store()->findMeterConfig(Type::Output, output);
    d.inputMeter = new Meter(Type::Input, int(rate), int(d.numInputChannels), inputConfig, nullptr);
    d.outputMeter =
        new Meter(Type::Output, int(rate), int(d.numOutputChannels), outputConfig, nullptr);
    tellLayout(*d.inputMeter, input, DeviceKind::Input);
    tellLayout(*d.outputMeter, output, DeviceKind::Output);
    d.outputName = Device::deviceName(output);
    d.inputName = Device::deviceName(input);
    return true;
}

} // namespace

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

    // A device that is open without all that belongs to it is none.
    auto undo = qScopeGuard([this] {
        d->openFailed = true;
        d->closeDevice();
    });
    const bool opened = openDevices(*d, outputDevice, inputDevice, sampleRate, oldRate);
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

} // namespace QTovelMixer
