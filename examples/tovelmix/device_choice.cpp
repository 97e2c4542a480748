// SPDX-License-Identifier: MIT
#include <tovelmix/device_choice.h>

namespace tovelmix {

using QTovelMixer::Api;
using QTovelMixer::Device;
using QTovelMixer::DeviceKind;

namespace {

constexpr int exactScore = 128;

QString others(const QString &used)
{
    QStringList names = QTovelMixerApiRtAudio::getAvailableBackends();
    names.removeAll(used);
    return names.isEmpty() ? QString() : QString("; --backend also knows %1").arg(names.join(", "));
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
    return QStringList("Auto") + QTovelMixerApiRtAudio::getAvailableBackends();
}

std::unique_ptr<QTovelMixerApiRtAudio> openBackend(const DeviceOptions &options, Outcome &outcome)
{
    using RtAudioApi = QTovelMixerApiRtAudio;
    auto api = std::make_unique<RtAudioApi>(options.backend, "tovelmix", RtAudioApi::Options(),
                                            options.bufferFrames);
    if (api->backend() == QTovelMixer::NoBackend) {
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
                   QString("%1 has no device that %2").arg(api.backendString(), verb(kind))};
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
