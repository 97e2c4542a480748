// SPDX-License-Identifier: MIT
// Construction, activation, device failure.
#include <mixer/engine/engine_p.h>

#include <base/debug.h>
#include <base/log_line_p.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>
#include <mixer/api/device.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/meter/meter.h>

#include <QtCore/QMetaType>
#include <QtCore/QScopeGuard>
#include <QtCore/QThread>

#include <utility>

namespace QTovelMixer {

namespace {

template <typename T>
void registerPointerConverter()
{
    if (!QMetaType::hasRegisteredConverterFunction<QPointer<T>, QObject *>()) {
        QMetaType::registerConverter<QPointer<T>, QObject *>(
            [](const QPointer<T> &pointer) -> QObject * { return pointer.data(); });
    }
}

} // namespace

void Engine::Initialize()
{
    qRegisterMetaType<Device *>("QTovelMixer::Device*");
    qRegisterMetaType<Sink *>("QTovelMixer::Sink*");
    qRegisterMetaType<Source *>("QTovelMixer::Source*");
    qRegisterMetaType<SourcePointer>("QTovelMixer::SourcePointer");
    qRegisterMetaType<SinkPointer>("QTovelMixer::SinkPointer");
    qRegisterMetaType<StopReason>("QTovelMixer::StopReason");
    qRegisterMetaType<Backend>("QTovelMixer::Backend");
    qRegisterMetaType<Type>("QTovelMixer::Type");
    registerPointerConverter<Source>();
    registerPointerConverter<Sink>();
}

void Engine::Finalize() {}

Engine::Data::Data(Engine *owner, Api *backend)
    : EngineCalls(owner), EngineStream(owner, backend), EngineAttached(owner),
      EngineDeviceChoice(owner)
{
    prepareTrace();
    inputBuses.reserve(maxChannels);
    outputBuses.reserve(maxChannels);
    removedBuses.reserve(maxChannels);
    resetGainMatrix();
    timeline = new Timeline; // last: nothing gives it back when a constructor fails
}

Engine::Data::~Data()
{
    if (!IsRunningInMainThread())
        writeText(QtWarningMsg, "QTovelMixer::Engine::Data: Deleting timer outside mainthread");
    deleteMeters();
    for (const SavedState &state : savedStates)
        delete state.timeline;
    delete timeline;
    delete cleanUpTimer;
    delete watchdogTimer;
    delete deviceListTimer;
}

namespace {

// Playback may have begun since the timer was started, and probes need their distance.
void updateNowOrLater(Engine::Data &d)
{
    if (d.active && d.running && d.users() > 0) {
        if (!d.stoppedLink)
            d.engine->updateDeviceList(false);
    } else if (d.api && !d.api->canUpdateDeviceList()) {
        d.deviceListTimer->start();
    } else {
        d.engine->doDeviceListUpdate();
    }
}

} // namespace

// A backend hands its blocks to one engine.
Engine::Engine(Api *api) : d(std::make_unique<Data>(this, api && !api->engine() ? api : nullptr))
{
    d->isBackendTaken = api && !d->api;
    if (d->isBackendTaken)
        BLDEBUG_Error(-1, "QTovelMixer::Engine: The backend (%p) has an engine already!!",
                      static_cast<void *>(api));
    connect(d->deviceListTimer, &QTimer::timeout, this, [this] {
        const QPointer<Engine> alive(this);
        if (!Data::callFromLoop("updateDeviceList", [this] { updateNowOrLater(*d); }) && alive)
            d->deviceListTimer->start();
    });
    connect(d->watchdogTimer, &QTimer::timeout, this, [this] {
        // A tick that is itself late says that this thread was held up: backends that are
        // driven from it could not deliver blocks either.
        const bool late = d->watchdogClock.restart() > d->watchdogTimer->interval() * 3 / 2;
        if (!late && !d->mayStillRest())
            Data::callFromLoop("monitorTimeout", [this] { monitorTimeout(); });
    });
    connect(d->cleanUpTimer, &QTimer::timeout, this, [this] {
        const QPointer<Engine> alive(this);
        if (!Data::callFromLoop("cleanUp", [this] { d->cleanUp(); }) && alive)
            d->cleanUpTimer->start();
    });
    connect(this, &Engine::deactivated, this, &Engine::mixerChanged);
    // Last: a backend whose engine could not be made stays the caller's.
    if (d->api)
        d->api->setEngine(this);
}

Engine::~Engine()
{
    const QSignalBlocker silence(this);
    if (d->api)
        disconnect(d->api, nullptr, this, nullptr);
    d->deviceListTimer->stop();
    // All are told first, so that they end side by side.
    d->stop(StopReason::NoReason);
    while (!d->sources.empty())
        deleteSource(d->sources.front());
    while (!d->sinks.empty())
        deleteSink(d->sinks.front());
    for (const QPointer<Source> &source : std::exchange(d->retiredSources, {}))
        deleteSource(source);
    for (const QPointer<Sink> &sink : std::exchange(d->retiredSinks, {}))
        deleteSink(sink);
    d->closeMixerApi();
    d->deleteMeters();
    if (d->api)
        d->api->setEngine(nullptr);
    delete d->api.data();
}

void Engine::onMasterGainChanged() {}

void Engine::onStopped() {}

// Activation ------------------------------------------------------------------------------------

namespace {

Device *preferedDevice(const Api *api, DeviceKind kind, bool preferDefault)
{
    if (!api)
        return nullptr;
    Device *device = preferDefault ? api->defaultDevice(kind) : nullptr;
    return device ? device : api->activeDevice(kind);
}

} // namespace

void Engine::activate(bool preferDefaultOutput, bool preferDefaultInput)
{
    if (!d->onMainThread()) {
        d->callOnEngineThread("activate",
                              [=, this] { activate(preferDefaultOutput, preferDefaultInput); });
        return;
    }
    // Without a device because none opened: another attempt is what brings it back.
    const bool isBroken = d->openFailed && !d->apiOpen();
    if (d->active && !isBroken)
        return;
    if (d->isBackendTaken) {
        BLDEBUG_Error(-1, "QTovelMixer::activate: Another engine has the backend!!");
        return;
    }
    composeLine(QtInfoMsg, [this](QDebug &line) {
        line.nospace().noquote() << "Activating Mixer (" << backendString() << ") !";
    });
    const QPointer<Engine> alive(this);
    const unsigned activation = ++d->activations;
    d->active = true;
    auto undo = qScopeGuard([this] { d->active = false; });
    d->openFailed = false;
    d->activatedEmpty = false;
    if (d->apiRunning()) {
        undo.dismiss();
        return;
    }
    if (!d->apiOpen()) {
        Device *output = preferedDevice(d->api, DeviceKind::Output, preferDefaultOutput);
        Device *input = preferedDevice(d->api, DeviceKind::Input, preferDefaultInput);
        unsigned rate = preferedSampleRate(output, input);
        if (rate == 0)
            rate = 48000;
        const bool opened = select(output, input, rate, false);
        // A slot of `mixerChanged` may have deleted the engine, or decided otherwise.
        if (!alive || activation != d->activations || !opened) {
            undo.dismiss();
            return;
        }
        d->activatedEmpty = !output && !input;
    }
    undo.dismiss();
    d->startStreamForUsers();
    emit activated();
}

void Engine::deactivate(StopReason stopReason)
{
    if (!d->onMainThread()) {
        d->callOnEngineThread("deactivate", [=, this] { deactivate(stopReason); });
        return;
    }
    composeLine(QtInfoMsg, [this](QDebug &line) {
        line.nospace().noquote() << "Deactivating Mixer (" << backendString() << ") !";
    });
    ++d->activations;
    ++d->choices;
    stop(true, stopReason);
    d->stopMixerApi();
    d->closeMixerApi();
    d->deleteMeters();
    d->active = false;
    emit deactivated();
}

void Engine::setActive(bool value)
{
    if (value)
        activate();
    else
        deactivate(StopReason::UserStopAction);
}

void Engine::onApiDeviceFailure()
{
    if (!d->onMainThread()) {
        d->callLater("onApiDeviceFailure", [this] { onApiDeviceFailure(); });
        return;
    }
    // As a slot of the backend's signal it comes late; called directly it is meant as it is.
    const Api *const reporter = qobject_cast<const Api *>(sender());
    if (reporter && !reporter->failureIsCurrent()) {
        BLDEBUG_Log(-1,
                    "QTovelMixer::onApiDeviceFailure: Another device was opened since, ignored");
        return;
    }
    if (reporter && d->isLossTold) {
        BLDEBUG_Log(-1, "QTovelMixer::onApiDeviceFailure: This loss was told before, ignored");
        return;
    }
    const bool busy = d->active && d->running;
    const bool wasPlaying = busy && d->sourceCount > 0;
    const bool wasCapturing = busy && d->sourceCount == 0 && d->sinkCount > 0;
    const QString backendName = backendString();
    const QPointer<Engine> alive(this);
    deactivate(StopReason::DeviceFailed);
    if (!alive)
        return;
    emit deviceFailed(wasPlaying, wasCapturing, backendName);
}

} // namespace QTovelMixer

#include "../moc_engine.cpp"
