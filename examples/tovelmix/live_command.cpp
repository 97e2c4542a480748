// SPDX-License-Identifier: MIT
#include <tovelmix/live_command.h>

#include <tovelmix/hardware.h>

#include <mixer/meter/meter.h>

#include <QtCore/QTimerEvent>

#include <utility>

namespace tovelmix {

using QTovelMixer::Device;
using QTovelMixer::DeviceKind;
using QTovelMixer::Engine;
using QTovelMixer::Meter;
using QTovelMixer::StopReason;

namespace {

constexpr int retryIntervalMs = 500;
constexpr unsigned usualRate = 48000;

} // namespace

bool LiveEngine::stop_mixer(bool force, QTovelMixer::Source *source, StopReason reason)
{
    if (isRunning())
        m_stopTime = time();
    return Engine::stop_mixer(force, source, reason);
}

LiveCommand::LiveCommand(const DeviceOptions &options, Side side) : m_options(options), m_side(side)
{}

LiveCommand::~LiveCommand() = default;

bool LiveCommand::fail(ExitStatus status, const QString &line)
{
    m_outcome = {status, line};
    return false;
}

// Opening ---------------------------------------------------------------------------------------

bool LiveCommand::start()
{
    if (!prepare())
        return false;
    std::unique_ptr<QTovelMixer::Api> api = openBackend(m_options, m_outcome);
    if (!api)
        return false;
    Engine::Initialize();
    m_api = api.get();
    m_engine = std::make_unique<LiveEngine>(api.release());
    // Queued: the engine is done with the stop by then, and may be used again.
    connect(m_engine.get(), &Engine::stopped, this, &LiveCommand::onStopped, Qt::QueuedConnection);
    connect(m_engine.get(), &Engine::deviceFailed, this, &LiveCommand::onDeviceFailed,
            Qt::QueuedConnection);
    Device *output = nullptr;
    Device *input = nullptr;
    if (!chooseDevices(output, input))
        return false;
    if (!openDevices(output, input))
        return fail(Failed, QString("%1 cannot be opened").arg(m_name));
    return begin();
}

bool LiveCommand::chooseDevices(Device *&output, Device *&input)
{
    QStringList notes;
    const auto choose = [&](DeviceKind kind, const QString &wanted, Device *&device) {
        QString note;
        device = requireDevice(*m_api, kind, wanted, m_outcome, note);
        if (!note.isEmpty())
            notes << note + '\n';
        return device != nullptr;
    };
    if ((m_side & PlayingSide) && !choose(DeviceKind::Output, m_options.device, output))
        return false;
    if ((m_side & RecordingSide) && !choose(DeviceKind::Input, m_options.input, input))
        return false;
    m_notes = notes.join(QString());
    return true;
}

bool LiveCommand::openDevices(Device *output, Device *input)
{
    QStringList names;
    for (Device *device : {output, input}) {
        if (device)
            names << device->name();
    }
    m_name = names.join(" and ");
    m_outputIdentity = output ? output->uniqueId() : QString();
    m_inputIdentity = input ? input->uniqueId() : QString();
    unsigned rate = m_options.rate;
    if (rate == 0)
        rate = m_engine->preferedSampleRate(output, input);
    if (rate == 0)
        rate = usualRate;
    const bool open = m_engine->select(output, input, rate, false) &&
                      (!output || m_engine->numOutputChannels() > 0) &&
                      (!input || m_engine->numInputChannels() > 0);
    m_engine->activate();
    return open && m_engine->isActive();
}

bool LiveCommand::begin()
{
    m_reading.reset(
        int(m_side == PlayingSide ? m_engine->numOutputChannels() : m_engine->numInputChannels()));
    if (Meter *const shown = meter()) {
        connect(shown, &Meter::meterValuesChanged, this, &LiveCommand::readMeter);
        shown->setTruePeakEnabled(m_side != PlayingSide);
        shown->start();
    }
    m_deviceFailed = false;
    m_ending = false;
    m_engine->forgetStop();
    m_attached = attach();
    return m_attached;
}

Meter *LiveCommand::meter() const
{
    return m_side == PlayingSide ? m_engine->outputMeter() : m_engine->inputMeter();
}

void LiveCommand::readMeter()
{
    if (!m_attached)
        return;
    m_reading.read(meter());
    onReading();
}

double LiveCommand::attachedTime() const
{
    return m_attached && m_engine->isRunning() ? m_engine->time() : 0.0;
}

double LiveCommand::outputLatency() const
{
    const qint64 frames = hardwareLatency(*m_api);
    return frames > 0 ? double(frames) / m_engine->sampleRate() : 0.0;
}

QString LiveCommand::title() const
{
    return m_notes + QString("%1 through %2, %3 Hz, blocks of %4 frames\n")
                         .arg(m_name, backendName(*m_api))
                         .arg(m_engine->sampleRate())
                         .arg(m_engine->bufferFrames());
}

// Ending ----------------------------------------------------------------------------------------

void LiveCommand::end()
{
    m_ending = true;
    m_engine->stop(true, StopReason::UserStopAction);
}

void LiveCommand::interrupt()
{
    m_interrupted = true;
    if (m_attached)
        end();
    else
        finish();
}

void LiveCommand::onStopped(StopReason reason)
{
    if (!std::exchange(m_attached, false))
        return;
    onDetached(m_engine->playedTime());
    if (m_interrupted || m_outcome.status != Done || isComplete())
        finish();
    else if (!m_deviceFailed && (m_ending || reason == StopReason::AudioFinished))
        finish();
    else
        lose();
}

void LiveCommand::onDeviceFailed()
{
    m_deviceFailed = true;
    // With the work still in the mix, `stopped` follows.
    if (m_engine->numActiveSources() + m_engine->numActiveSinks() == 0)
        onStopped(StopReason::DeviceFailed);
}

void LiveCommand::finish()
{
    if (std::exchange(m_finished, true))
        return;
    m_retryTimer.stop();
    if (m_engine->isActive())
        m_engine->deactivate(StopReason::UserStopAction);
    conclude();
    emit finished();
}

// Losing a device -------------------------------------------------------------------------------

void LiveCommand::lose()
{
    if (m_engine->isActive())
        m_engine->deactivate(StopReason::DeviceFailed);
    const QString line = QString("lost %1 %2").arg(m_name, place());
    if (!m_options.follow) {
        fail(Failed, line);
        finish();
        return;
    }
    m_reading.reset(int(m_reading.levels().size()));
    emit announced(line + ", waiting for it or another default device");
    m_retryTimer.start(retryIntervalMs, this);
}

void LiveCommand::timerEvent(QTimerEvent *event)
{
    if (event->timerId() == m_retryTimer.timerId())
        tryAgain();
}

void LiveCommand::tryAgain()
{
    if (!m_api->canUpdateDeviceList() || !m_api->updateDeviceList())
        return;
    const auto choose = [this](DeviceKind kind, const QString &identity) {
        Device *const same = chooseDevice(*m_api, kind, identity).device;
        return same ? same : m_api->defaultDevice(kind);
    };
    Device *const output =
        m_side & PlayingSide ? choose(DeviceKind::Output, m_outputIdentity) : nullptr;
    Device *const input =
        m_side & RecordingSide ? choose(DeviceKind::Input, m_inputIdentity) : nullptr;
    if (((m_side & PlayingSide) && !output) || ((m_side & RecordingSide) && !input))
        return;
    const QString lostOutput = m_outputIdentity;
    const QString lostInput = m_inputIdentity;
    if (!openDevices(output, input)) {
        m_outputIdentity = lostOutput;
        m_inputIdentity = lostInput;
        m_engine->deactivate(StopReason::DeviceFailed);
        return;
    }
    m_retryTimer.stop();
    if (begin())
        emit announced(QString("going on with %1 %2").arg(m_name, place()));
    else
        finish();
}

} // namespace tovelmix
