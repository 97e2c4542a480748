// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_PULSE_API_P_H
#define QTOVELMIXER_MIXER_API_PULSE_API_P_H

#include <mixer/api/rtaudio_device.h> // and with it, the types of RtAudio

namespace QTovelMixer {

/// What the carried RtAudio makes when it is asked for PulseAudio. The caller owns it.
RtApi *makePulseApi();

} // namespace QTovelMixer

#endif
