// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_RTAUDIO_PROBE_P_H
#define QTOVELMIXER_MIXER_API_RTAUDIO_PROBE_P_H

#include <mixer/api/rtaudio_driver_p.h>

namespace QTovelMixer {

/// What an instance tells of its devices.
struct RtAudioProbe
{
    bool answered = false;
    bool threw = false; ///< the devices before that are kept
    std::vector<RtAudio::DeviceInfo> devices;
};

RtAudioProbe probeDevices(RtAudioDriver &driver);

/// A device by what stays the same over instances: its name, its channel counts, and its place
/// among those that are alike.
struct RtAudioIdentity
{
    RtAudio::DeviceInfo info;
    size_t place = 0;
    bool numbered = true; ///< its number comes from the instance that is searched
};

RtAudioIdentity identityOf(const RtAudio::DeviceInfo &device,
                           const std::vector<RtAudio::DeviceInfo> &among);
/// The device of this identity; among several that are alike, the one with its number, or at its
/// place. Null when there is none.
const RtAudio::DeviceInfo *findIdentity(const RtAudioIdentity &identity,
                                        const std::vector<RtAudio::DeviceInfo> &devices);

/// Copies the flags of default devices from a fresher probe: an instance looks at them when it
/// first sees a device, and never again.
void adoptDefaults(std::vector<RtAudio::DeviceInfo> &devices,
                   const std::vector<RtAudio::DeviceInfo> &fresh);

} // namespace QTovelMixer

#endif
