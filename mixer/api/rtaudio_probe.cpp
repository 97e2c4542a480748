// SPDX-License-Identifier: MIT
#include <mixer/api/rtaudio_probe_p.h>

namespace QTovelMixer {

namespace {

bool alike(const RtAudio::DeviceInfo &a, const RtAudio::DeviceInfo &b)
{
    return a.name == b.name && a.inputChannels == b.inputChannels &&
           a.outputChannels == b.outputChannels;
}

} // namespace

RtAudioProbe probeDevices(RtAudioDriver &driver)
{
    RtAudioProbe probe;
    probe.answered = true;
    try {
        const auto ids = driver.deviceIds();
        if (!ids) {
            probe.answered = false;
            return probe;
        }
        for (unsigned id : *ids)
            probe.devices.push_back(driver.deviceInfo(id));
    } catch (...) {
        probe.threw = true;
    }
    return probe;
}

RtAudioIdentity identityOf(const RtAudio::DeviceInfo &device,
                           const std::vector<RtAudio::DeviceInfo> &among)
{
    RtAudioIdentity identity{device, 0, true};
    for (const RtAudio::DeviceInfo &other : among) {
        if (alike(other, device) && other.ID < device.ID)
            ++identity.place;
    }
    return identity;
}

const RtAudio::DeviceInfo *findIdentity(const RtAudioIdentity &identity,
                                        const std::vector<RtAudio::DeviceInfo> &devices)
{
    const RtAudio::DeviceInfo *first = nullptr;
    const RtAudio::DeviceInfo *placed = nullptr;
    size_t place = 0;
    for (const RtAudio::DeviceInfo &device : devices) {
        if (!alike(device, identity.info))
            continue;
        if (identity.numbered && device.ID == identity.info.ID)
            return &device;
        if (!first)
            first = &device;
        if (place++ == identity.place)
            placed = &device;
    }
    return placed ? placed : first;
}

void adoptDefaults(std::vector<RtAudio::DeviceInfo> &devices,
                   const std::vector<RtAudio::DeviceInfo> &fresh)
{
    const std::vector<RtAudio::DeviceInfo> before = devices;
    for (RtAudio::DeviceInfo &device : devices) {
        RtAudioIdentity identity = identityOf(device, before);
        identity.numbered = false;
        if (const RtAudio::DeviceInfo *found = findIdentity(identity, fresh)) {
            device.isDefaultOutput = found->isDefaultOutput;
            device.isDefaultInput = found->isDefaultInput;
        }
    }
}

} // namespace QTovelMixer
