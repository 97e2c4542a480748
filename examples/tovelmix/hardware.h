// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_HARDWARE_H
#define TOVELMIX_HARDWARE_H

#include <tovelmix/device_choice.h>

namespace tovelmix {

/// The sound systems that this library was built for; none in a build without them.
QStringList hardwareBackends();

/// A backend of a sound system, its devices not yet listed. Null when none can be used.
std::unique_ptr<QTovelMixer::Api> createHardware(const DeviceOptions &options);

/// Frames until what is mixed now has left the device; 0 when the backend does not know.
qint64 hardwareLatency(const QTovelMixer::Api &api);

} // namespace tovelmix

#endif
