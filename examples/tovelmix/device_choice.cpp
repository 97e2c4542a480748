// SPDX-License-Identifier: MIT
#include <tovelmix/device_choice.h>

#include <tovelmix/hardware.h>

#include <mixer/api/api_virtual.h>

namespace tovelmix {

using QTovelMixer::Api;
using QTovelMixer::Device;
using QTovelMixer::DeviceKind;

namespace {

constexpr int exactScore = 128;

QString others(const QString &used)
{
    QStringList names = hardwareBackends();
    names.removeAll(used);
    return names.isEmpty() ? QString() : QString("; --backend also knows %1").arg(names.join(", "));
}

std::unique_ptr<Api> openVirtual(const DeviceOptions &options)
{
    auto api = std::make_unique<QTovelMixerApiVirtual>(QTovelMixerApiVirtual::Pacing::RealTime,
                                                       options.bufferFrames);
    QTovelMixerApiVirtual::DeviceSetup setup;
    setup.name = "Silent device";
    setup.outputChannels = 2;
    setup.sampleRates = {8000, 16000, 22050, 32000, 44100, 48000, 88200, 96000, 192000};
    setup.defaultOutput = true;
    setup.minBufferFrames = 1;
    api->plug(setup);
    api->updateDeviceList();
    return api;
}

QString verb(DeviceKind kind)
{
    return kind == DeviceKind::Output ? "plays" : "records";
}

QString option(DeviceKind kind)
{
    return kind == DeviceKind::Output ? "--device" : "--input";
}

} // namespace

QStringList backendNames()
{
    return QStringList("Auto") + hardwareBackends();
}

QString backendName(const Api &api)
{
    return dynamic_cast<const QTovelMixerApiVirtual *>(&api) ? api.name() : api.backendString();
}

std::unique_ptr<Api> openBackend(const DeviceOptions &options, Outcome &outcome)
{
    if (options.isVirtual)
        return openVirtual(options);
    std::unique_ptr<Api> api = createHardware(options);
    if (!api) {
        outcome = {NothingThere, "no sound system can be used"};
        return nullptr;
    }
    const bool answered = api->updateDeviceList();
    if (answered && !api->devices().isEmpty())
        return api;
    const QString name = api->backendString();
    const QString what = answered ? "no sound device: %1 has none, or its server does not run%2"
                                  : "no sound device: the %1 server does not answer%2";
    outcome = {NothingThere, what.arg(name, others(name))};
    return nullptr;
}

Choice chooseDevice(const Api &api, DeviceKind kind, const QString &wanted)
{
    if (wanted.isEmpty() || wanted == "default") {
        Device *const device = api.defaultDevice(kind);
        return {device, device ? exactScore : 0};
    }
    Choice best;
    for (Device *device : api.devices()) {
        if (!device->hasChannels(kind))
            continue;
        const int score = device->matchScore(wanted);
        if (score > best.score)
            best = {device, score};
    }
    return best;
}

Device *requireDevice(const Api &api, DeviceKind kind, const QString &wanted, Outcome &outcome,
                      QString &note)
{
    if (!api.defaultDevice(kind)) {
        outcome = {NothingThere,
                   QString("%1 has no device that %2").arg(backendName(api), verb(kind))};
        return nullptr;
    }
    const Choice choice = chooseDevice(api, kind, wanted);
    if (!choice.device)
        outcome = {Misused,
                   QString("%1: no device that %2 is called '%3' (tovelmix devices lists them)")
                       .arg(option(kind), verb(kind), wanted)};
    else if (choice.score < exactScore)
        note = QString("%1 '%2': took %3, score %4 of %5")
                   .arg(option(kind), wanted, choice.device->uniqueId())
                   .arg(choice.score)
                   .arg(exactScore);
    return choice.device;
}

} // namespace tovelmix
