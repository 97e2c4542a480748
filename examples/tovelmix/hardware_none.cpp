// SPDX-License-Identifier: MIT
// For a library without sound systems.
#include <tovelmix/hardware.h>

namespace tovelmix {

QStringList hardwareBackends()
{
    return {};
}

std::unique_ptr<QTovelMixer::Api> createHardware(const DeviceOptions &)
{
    return nullptr;
}

qint64 hardwareLatency(const QTovelMixer::Api &)
{
    return 0;
}

} // namespace tovelmix
