// SPDX-License-Identifier: MIT
#include <mixer/api/api_p.h>

#include <base/debug.h>
#include <base/log_line_p.h>
#include <mixer/api/block_answer_p.h>
#include <mixer/api/device.h>
// A backend hands its blocks and its failure to the engine above it.
#include <mixer/engine.h>

#include <algorithm>

namespace QTovelMixer {

namespace {

constexpr unsigned int mostBufferFrames = 4096;
constexpr qint64 updateDistance = 1500; // ms

} // namespace

void Api::Data::setCurrent(Device *output, Device *input)
{
    currentOutput = output;
    currentInput = input;
}

bool Api::Data::updateAllowed(qint64 elapsed) const
{
    return firstUpdate || elapsed >= updateDistance;
}

Api::Api(Backend backend, const QString &name, unsigned int bufferFrames)
    : d(std::make_unique<Data>())
{
    d->name = name;
    d->backend = backend;
    d->bufferFrames = std::min(bufferFrames, mostBufferFrames);
    // On the thread that reports: the engine hears of it later, and may have opened another device
    // by then.
    connect(
        this, &Api::deviceFailure, this, [this] { d->failedOpening = d->openings.load(); },
        Qt::DirectConnection);
}

Api::~Api()
{
    qDeleteAll(d->knownDevices);
}

const QString &Api::name() const
{
    return d->name;
}

Backend Api::backend() const
{
    return d->backend;
}

QString Api::backendString() const
{
    return convertBackendToString(backend());
}

const QList<Device *> &Api::devices() const
{
    return d->devices;
}

unsigned int Api::bufferFrames() const
{
    return d->bufferFrames.load(std::memory_order_relaxed);
}

unsigned int Api::sampleRate() const
{
    return d->sampleRate.load(std::memory_order_relaxed);
}

unsigned int Api::numInputChannels() const
{
    return d->currentInput ? d->currentInput->numInputChannels() : 0;
}

unsigned int Api::numOutputChannels() const
{
    return d->currentOutput ? d->currentOutput->numOutputChannels() : 0;
}

bool Api::canCapture(bool argument) const
{
    return d->currentInput && d->currentInput->canCapture(argument);
}

bool Api::canPlayback(bool argument) const
{
    return d->currentOutput && d->currentOutput->canPlayback(argument);
}

Device *Api::currentDevice(DeviceKind kind) const
{
    switch (kind) {
    case DeviceKind::Input:
        return d->currentInput;
    case DeviceKind::Output:
        return d->currentOutput;
    }
    return nullptr;
}

Device *Api::activeDevice(DeviceKind kind) const
{
    Device *current = currentDevice(kind);
    if (!current)
        return nullptr;
    Device *active = findActiveDevice(current);
    return active ? active : defaultDevice(kind);
}

Device *Api::defaultDevice(DeviceKind kind) const
{
    const auto first = [this](auto fits) -> Device * {
        const auto found = std::find_if(d->devices.cbegin(), d->devices.cend(), fits);
        return found != d->devices.cend() ? *found : nullptr;
    };
    Device *device = first([kind](const Device *entry) { return entry->isDefault(kind); });
    return device ? device
                  : first([kind](const Device *entry) { return entry->hasChannels(kind); });
}

Device *Api::device(DeviceKind kind, const QString &name) const
{
    if (name == QLatin1String("null"))
        return nullptr;
    if (name == QLatin1String("default"))
        return defaultDevice(kind);
    Device *best = nullptr;
    unsigned char bestScore = 0;
    for (Device *candidate : d->devices) {
        if (!candidate->hasChannels(kind))
            continue;
        const unsigned char score = candidate->matchScore(name);
        if (score > bestScore) {
            best = candidate;
            bestScore = score;
        }
    }
    return best ? best : defaultDevice(kind);
}

Device *Api::device(DeviceKind kind, unsigned int number) const
{
    for (Device *candidate : d->devices) {
        if (candidate->hasChannels(kind) && unsigned(candidate->deviceId()) == number)
            return candidate;
    }
    return defaultDevice(kind);
}

bool Api::checkDevice(Device *device) const
{
    return device && d->devices.contains(device) && device->owner() == this;
}

bool Api::showControlPanel(DeviceKind kind)
{
    Q_UNUSED(kind)
    return false;
}

void Api::onPause() {}

void Api::onResume() {}

bool Api::mayPauseAgain() const
{
    return false;
}

void Api::setBufferFrames(unsigned int frames)
{
    d->bufferFrames = frames;
}

// The device list -------------------------------------------------------------------------------

void Api::beginDeviceUpdate()
{
    d->previousDevices = d->devices;
    d->devices.clear();
    d->listChanged = false;
}

Device *Api::findDevice(const QString &uniqueId) const
{
    for (Device *device : d->knownDevices) {
        if (device->uniqueId() == uniqueId)
            return device;
    }
    return nullptr;
}

Device *Api::findActiveDevice(Device *device) const
{
    if (!device || d->devices.contains(device))
        return device;
    for (Device *candidate : d->devices) {
        if (candidate->fullName() == device->fullName() &&
            candidate->numInputChannels() == device->numInputChannels() &&
            candidate->numOutputChannels() == device->numOutputChannels())
            return candidate;
    }
    return nullptr;
}

void Api::addDevice(Device *device)
{
    if (!device)
        return;
    Device *existing = findDevice(device->uniqueId());
    if (existing && existing != device) {
        writeText(QtCriticalMsg,
                  "TovelMixer::Api::addNewDevice: Trying to add existing device. Use "
                  "findDevice(...) to check if the device already exists");
        return;
    }
    if (existing)
        d->previousDevices.removeOne(device);
    else
        d->knownDevices.append(device);
    d->devices.append(device);
}

void Api::endDeviceUpdate()
{
    d->listChanged = d->firstUpdate;
    d->changedSinceOpen = false;
    int changes = 0;
    for (Device *device : std::as_const(d->devices)) {
        if (!device->isAvailable()) {
            device->m_listed = false;
            ++changes;
        } else if (!device->m_listed) {
            composeLine(QtInfoMsg,
                        [device](QDebug &line) { line << "New device found:" << device; });
            device->m_listed = true;
            ++changes;
        }
    }
    for (Device *device : std::as_const(d->previousDevices)) {
        if (device->m_listed) {
            composeLine(QtInfoMsg, [device](QDebug &line) { line << "Device removed:" << device; });
            device->m_listed = false;
            ++changes;
        }
    }
    if (changes > 0) {
        d->listChanged = true;
        d->changedSinceOpen = true;
    }
    d->firstUpdate = false;
    d->lastUpdate.restart();
    d->clockShift = 0;
}

bool Api::deviceListWasChanged() const
{
    return d->listChanged;
}

bool Api::canUpdateDeviceList() const
{
    return d->updateAllowed(d->lastUpdate.isValid() ? d->lastUpdate.elapsed() + d->clockShift : 0);
}

// The stream ------------------------------------------------------------------------------------

void Api::setEngine(Engine *engine)
{
    if (Engine *before = d->engine)
        disconnect(this, &Api::deviceFailure, before, &Engine::onApiDeviceFailure);
    d->engine = nullptr; // in case that memory runs out now
    if (engine)
        connect(this, &Api::deviceFailure, engine, &Engine::onApiDeviceFailure,
                Qt::QueuedConnection);
    d->engine = engine;
}

Engine *Api::engine() const
{
    return d->engine;
}

bool Api::openApi(Device *output, Device *input, unsigned int sampleRate)
{
    const auto nothingOpen = [this](bool answer) {
        d->setCurrent(nullptr, nullptr);
        return answer;
    };
    if (!output && !input) {
        ++d->openings;
        return nothingOpen(true);
    }
    unsigned int rate = sampleRate;
    Engine *engine = d->engine;
    if (!engine || engine->availableSampleRates(output, input, rate).isEmpty() || rate == 0)
        return nothingOpen(false);
    if (!open(output, input, rate))
        return nothingOpen(false);
    ++d->openings;
    d->sampleRate = rate;
    d->setCurrent(output && output->canPlayback(false) ? output : nullptr,
                  input && input->canCapture(false) ? input : nullptr);
    d->changedSinceOpen = false;
    return true;
}

bool Api::closeApi()
{
    close();
    d->setCurrent(nullptr, nullptr);
    return true;
}

int Api::mixerCallback(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                       unsigned int frames, double streamTime, unsigned int status) noexcept
{
    Engine *engine = d->engine;
    if (!engine)
        return BlockAnswer::abort;
    return engine->mixerCallback(input, output, frames, streamTime, status);
}

int Api::mixWhenReady(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                      unsigned int frames, double streamTime, int milliseconds) noexcept
{
    static_assert(notReady == Engine::BlockNotReady);
    Engine *engine = d->engine;
    if (!engine)
        return BlockAnswer::abort;
    return engine->mixWhenReady(input, output, frames, streamTime, milliseconds);
}

void Api::wakeMix()
{
    if (Engine *engine = d->engine)
        engine->wakeMix();
}

quint64 Api::blocksDroppedByEngine() const
{
    const Engine *engine = d->engine;
    return engine ? engine->droppedBlocks() : 0;
}

void Api::reportDeviceFailure()
{
    int armed = 0;
    if (!d->failureReported.compare_exchange_strong(armed, 1))
        return;
    BLDEBUG_Error(-1,
                  "QTovelMixer::Api: audio device failure detected (%s) -- requesting mixer "
                  "teardown",
                  backendString().toLocal8Bit().constData());
    emit deviceFailure();
}

void Api::rearmDeviceFailure()
{
    d->failureReported = 0;
}

bool Api::failureIsCurrent() const
{
    return d->failedOpening == d->openings;
}

} // namespace QTovelMixer
