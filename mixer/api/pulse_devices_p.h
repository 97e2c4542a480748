// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_PULSE_DEVICES_P_H
#define QTOVELMIXER_MIXER_API_PULSE_DEVICES_P_H

#include <mixer/api/rtaudio_device.h> // and with it, the types of RtAudio

#include <string>
#include <vector>

namespace QTovelMixer {

/// A sink, a source, or both under one description.
struct PulseDevice
{
    std::string sink;   ///< the server's name, empty when there is none
    std::string source; ///< as above
    RtAudio::DeviceInfo info;
};

/// What a PulseAudio server has, as it is now.
struct PulseDevices
{
    std::vector<PulseDevice> devices; ///< without numbers
    std::string reason;               ///< empty when the server answered
};

/// Asks for at most `timeout` ms. Threads: any.
PulseDevices pulseDevices(int timeout);

/// Gives the number that a device had before to the one of the same names and description, new ones
/// from `next` on to the others, and sorts them.
void numberDevices(std::vector<PulseDevice> &devices, const std::vector<PulseDevice> &before,
                   unsigned &next);

} // namespace QTovelMixer

#endif
