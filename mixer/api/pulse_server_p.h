// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_PULSE_SERVER_P_H
#define QTOVELMIXER_MIXER_API_PULSE_SERVER_P_H

namespace QTovelMixer {

enum class PulseServerState {
    Ready,      ///< it has a default sink and a default source
    NoDefaults, ///< it answers and lacks one of them
    NoServer,   ///< nobody listens
    NoAnswer,   ///< it took longer than it was given
    Unknown     ///< the client library is not there to ask with
};

/// Asks the PulseAudio server that clients of this process would use, for at most `timeout` ms,
/// without starting one. Threads: any.
PulseServerState pulseServerState(int timeout);

} // namespace QTovelMixer

#endif
