// SPDX-License-Identifier: MIT
#include <mixer/api/api_rtaudio_p.h>

#include <base/debug.h>
#include <base/log_line_p.h>
#include <base/trace_p.h>
#include <mixer/api/rtaudio_device.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <algorithm>
#include <cmath>
#include <optional>

using QTovelMixer::Answer;
using QTovelMixer::attempt;
using QTovelMixer::Device;
using QTovelMixer::DeviceKind;
using QTovelMixer::logFailure;
using QTovelMixer::openTimeout;
using QTovelMixer::RtAudioDriver;
using QTovelMixer::RtAudioIdentity;
using QTovelMixer::RtAudioProbe;
using QTovelMixer::stopTimeout;
using QTovelMixer::TraceLine;

namespace {

constexpr unsigned lowestRate = 10; // Hz
constexpr unsigned highestRate = 192000;
constexpr int leastBuffers = 4;
constexpr double leastServerBuffer = 0.02; // s

std::optional<RtAudioIdentity> identityFor(Device *device, const QList<Device *> &devices,
                                           bool sameNumbers)
{
    auto *wanted = dynamic_cast<QTovelMixerRtAudioDevice *>(device);
    if (!wanted)
        return std::nullopt;
    std::vector<RtAudio::DeviceInfo> listed;
    for (Device *each : devices) {
        if (auto *one = dynamic_cast<QTovelMixerRtAudioDevice *>(each))
            listed.push_back(one->info());
    }
    RtAudioIdentity identity = QTovelMixer::identityOf(wanted->info(), listed);
    identity.numbered = sameNumbers;
    return identity;
}

/// What is asked of `openStream`, and what it gave.
struct Opening
{
    std::optional<RtAudioIdentity> outputDevice;
    std::optional<RtAudioIdentity> inputDevice;
    RtAudio::StreamParameters output;
    RtAudio::StreamParameters input;
    RtAudio::StreamOptions options;
    unsigned rate = 0;
    unsigned frames = 0;

    bool found = true;
    bool answered = true;
    Answer answer;
    long latency = 0;

    bool resolve(RtAudioDriver &driver);
    void run(RtAudioDriver &driver, void *userData);
};

// Numbers are an instance's own: each device is looked up where it will be opened.
bool Opening::resolve(RtAudioDriver &driver)
{
    const RtAudioProbe probe = QTovelMixer::probeDevices(driver);
    answered = probe.answered;
    const auto number = [&](const std::optional<RtAudioIdentity> &device, unsigned &id) {
        if (!device)
            return true;
        const RtAudio::DeviceInfo *match = QTovelMixer::findIdentity(*device, probe.devices);
        if (match)
            id = match->ID;
        return match != nullptr;
    };
    found =
        answered && number(outputDevice, output.deviceId) && number(inputDevice, input.deviceId);
    answer.threw = probe.threw && !found;
    return found;
}

void Opening::run(RtAudioDriver &driver, void *userData)
{
    if (!resolve(driver))
        return;
    answer = attempt(driver, [&] {
        const RtAudioErrorType type = driver.openStream(
            outputDevice ? &output : nullptr, inputDevice ? &input : nullptr, rate, &frames,
            &QTovelMixer::RtAudioInstance::streamCallback, userData, &options);
        if (type == RTAUDIO_NO_ERROR || type == RTAUDIO_WARNING)
            latency = driver.latency();
        return type;
    });
}

} // namespace

// Making and unmaking ---------------------------------------------------------------------------

QTovelMixerApiRtAudio::QTovelMixerApiRtAudio(QTovelMixer::Backend backend, const QString &name,
                                             const QFlags<Option> &options,
                                             unsigned int bufferFrames)
    : Api(backend, name, bufferFrames),
      r(std::make_unique<RtAudioData>(this,
                                      backend == QTovelMixer::Auto
                                          ? QTovelMixer::preferedRtAudioApi()
                                          : QTovelMixer::rtAudioApiOf(backend),
                                      options))
{
    QTovelMixer::prepareTrace();
    r->makeInstance();
}

QTovelMixerApiRtAudio::QTovelMixerApiRtAudio(QTovelMixer::Backend backend,
                                             const QFlags<Option> &options,
                                             unsigned int bufferFrames)
    : QTovelMixerApiRtAudio(backend, QTovelMixer::convertBackendToString(backend), options,
                            bufferFrames)
{
    r->named = false;
}

QTovelMixerApiRtAudio::~QTovelMixerApiRtAudio()
{
    if (isOpen())
        QTovelMixerApiRtAudio::close();
    if (r->audio)
        r->retire(stopTimeout);
    r->waitForOrphans();
}

void QTovelMixerApiRtAudio::installDeviceFailureCallback()
{
    r->attach();
}

QTovelMixer::Backend QTovelMixerApiRtAudio::backend() const
{
    const int api = r->apiInUse;
    return api < 0 ? QTovelMixer::NoBackend : QTovelMixer::backendOf(RtAudio::Api(api));
}

bool QTovelMixerApiRtAudio::isOpen() const
{
    return r->audio && r->audio->isOpen();
}

bool QTovelMixerApiRtAudio::isRunning() const
{
    return r->audio && r->audio->isRunning();
}

bool QTovelMixerApiRtAudio::showControlPanel(DeviceKind kind)
{
    Q_UNUSED(kind)
    return false;
}

// Devices ---------------------------------------------------------------------------------------

bool QTovelMixerApiRtAudio::updateDeviceList()
{
    r->refresh();
    if (!r->audio) {
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::updateDeviceList Audio API is NULL!");
        return false;
    }
    const quint64 generation = r->generation;
    const RtAudioProbe probe = r->probe();
    if (!probe.answered) {
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio::updateDeviceList: the sound server does not answer");
        const QList<Device *> listed = devices();
        beginDeviceUpdate();
        for (Device *device : listed)
            addDevice(device);
        endDeviceUpdate();
        return false;
    }
    r->listedGeneration = generation;
    beginDeviceUpdate();
    if (probe.threw)
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio::updateDeviceList: RtAudio :: getDeviceCount : exception "
            "received!");
    for (const RtAudio::DeviceInfo &info : probe.devices) {
        auto made = std::make_unique<QTovelMixerRtAudioDevice>(this, info);
        auto *device = dynamic_cast<QTovelMixerRtAudioDevice *>(findDevice(made->uniqueId()));
        if (device)
            device->setInfo(info);
        else
            device = made.release();
        addDevice(device);
        if (device->isAvailable())
            continue;
        QTovelMixer::composeLine(QtInfoMsg, [device](QDebug &line) {
            line.nospace().noquote()
                << "QTovelMixerApiRtAudio::updateDeviceList: Unsuccessfull Probe \""
                << device->name() << "\"";
        });
    }
    endDeviceUpdate();
    return true;
}

// The stream ------------------------------------------------------------------------------------

bool QTovelMixerApiRtAudio::open(Device *output, Device *input, unsigned int sampleRate)
{
    r->refresh();
    if (!r->audio || (!output && !input) || sampleRate < lowestRate || sampleRate > highestRate) {
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::open: %s",
                                  !r->audio ? "Audio API is NULL!"
                                  : !output && !input
                                      ? "no device"
                                      : "the sample rate lies outside 10 to 192000 Hz");
        return false;
    }
    const bool sameNumbers = r->listedGeneration == r->generation;
    const auto opening = std::make_shared<Opening>();
    opening->rate = sampleRate;
    unsigned frames = bufferFrames();
    const auto clamp = [&frames](Device *device) {
        frames = std::max(device->minBufferFrames(), std::min(device->maxBufferFrames(), frames));
    };
    if (checkDevice(output) && output->canPlayback(false)) {
        opening->outputDevice = identityFor(output, devices(), sameNumbers);
        opening->output.nChannels = output->numOutputChannels();
        clamp(output);
    }
    if (checkDevice(input) && input->canCapture(false)) {
        opening->inputDevice = identityFor(input, devices(), sameNumbers);
        opening->input.nChannels = input->numInputChannels();
        clamp(input);
    }
    opening->frames = frames;
    // What users see in their volume control.
    const QString application = QCoreApplication::applicationName();
    opening->options.streamName =
        (r->named || application.isEmpty() ? name() : application).toStdString();
    opening->options.flags =
        (r->options.testFlag(ScheduleRealtime) ? RTAUDIO_SCHEDULE_REALTIME : 0u) |
        (r->options.testFlag(MinimizeLatency) ? RTAUDIO_MINIMIZE_LATENCY : 0u);
    // Without a number PulseAudio keeps far more than it needs.
    const int buffers = std::max(
        leastBuffers, int(std::ceil(leastServerBuffer * sampleRate / std::max(frames, 1u))));
    opening->options.numberOfBuffers = unsigned(buffers);

    // The instance outlives its own jobs.
    QTovelMixer::RtAudioInstance *const self = r->audio.get();
    if (!r->callOrReplace([opening, self](RtAudioDriver &driver) { opening->run(driver, self); },
                          openTimeout)) {
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::open: the sound server does not answer");
        return false;
    }
    r->audio->setProbed();
    if (!opening->found && !opening->answer.threw) {
        if (!opening->answered)
            r->giveUpThisTurn();
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::open: %s",
                                  opening->answered ? "the device is not there any more"
                                                    : "the sound server does not answer");
        return false;
    }
    if (logFailure(opening->answer, "open", "openStream :")) {
        r->noteError(opening->answer.text);
        return false;
    }
    r->adoptStream({sampleRate, opening->frames,
                    opening->inputDevice ? opening->input.nChannels : 0,
                    opening->outputDevice ? opening->output.nChannels : 0, buffers});
    QTovelMixer::composeLine(QtInfoMsg, [&](QDebug &line) {
        line.noquote() << "QTovelMixerApiRtAudio::open::streamLatency:"
                       << double(opening->latency) * 1000.0 / sampleRate << "ms";
    });
    BLDEBUG_Log(1,
                "QTovelMixer::open: Output: %s (%d channels) / Input: %s (%d channels) / Sample "
                "Rate: %d Hz / %d samples buffer ",
                Device::deviceName(output).toUtf8().constData(),
                int(Device::numOutputChannels(output)),
                Device::deviceName(input).toUtf8().constData(),
                int(Device::numInputChannels(input)), int(sampleRate), int(opening->frames));
    return true;
}

bool QTovelMixerApiRtAudio::start()
{
    TraceLine("RtAudio::start")
        .item("api", this)
        .item("open", isOpen())
        .item("running", isRunning())
        .item("sampleRate", sampleRate())
        .item("inChannels", r->inputChannels.load())
        .item("outChannels", r->outputChannels.load());
    rearmDeviceFailure();
    if (!isOpen())
        return false;
    if (!isRunning())
        r->audio->beginStream(r->streamRate);
    const auto answer = std::make_shared<Answer>();
    if (!r->callOrReplace(
            [answer](RtAudioDriver &driver) {
                *answer = attempt(driver, [&] { return driver.startStream(); });
            },
            stopTimeout)) {
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::start: the sound server does not answer");
        return false;
    }
    if (logFailure(*answer, "start", "startStream :")) {
        r->noteError(answer->text);
        // Its server is gone, and a client that is left open would not survive the next probe.
        if (r->api == RtAudio::UNIX_JACK)
            close();
        return false;
    }
    r->audio->setStarted(true);
    return isRunning();
}

bool QTovelMixerApiRtAudio::stop()
{
    TraceLine("RtAudio::stop BEGIN")
        .item("api", this)
        .item("running", isRunning())
        .item("closing", r->closing.load())
        .item("callbacks", r->callbacksInFlight.load())
        .item("thread", QThread::currentThreadId());
    if (isRunning()) {
        const auto gone = [this](DeviceKind kind) {
            Device *device = currentDevice(kind);
            return device && !devices().contains(device);
        };
        if (gone(DeviceKind::Input))
            QTovelMixer::writeWarning(
                "QTovelMixerApiRtAudio::stop: input device disappeared while stream was "
                "running");
        if (gone(DeviceKind::Output))
            QTovelMixer::writeWarning(
                "QTovelMixerApiRtAudio::stop: output device disappeared while stream was "
                "running");
        r->abortRunning();
    }
    TraceLine("RtAudio::stop END").item("api", this);
    return !isRunning();
}

bool QTovelMixerApiRtAudio::close()
{
    const auto trace = [this](const char *event) {
        TraceLine(event)
            .item("api", this)
            .item("open", isOpen())
            .item("running", isRunning())
            .item("callbacks", r->callbacksInFlight.load());
    };
    trace("RtAudio::close BEGIN");
    if (isOpen())
        r->closeOpen();
    else
        r->refresh();
    r->closing = 0;
    r->dropBlocks();
    trace("RtAudio::close END");
    return !isOpen();
}

QTovelMixerApiRtAudio::StreamStatus QTovelMixerApiRtAudio::streamStatus() const
{
    return r->status();
}
