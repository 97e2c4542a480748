// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_SCORED_DEVICE_H
#define QTOVELMIXER_TESTS_MIXER_API_SCORED_DEVICE_H

#include <support/test_api.h>

/// A device that fits a remembered identity as well as it is told to, and counts its end.
struct ScoredDevice : public TestDevice
{
    ScoredDevice(QTovelMixer::Api *api, const QString &ownName, unsigned outputChannels,
                 unsigned char ownScore)
        : TestDevice(api), score(ownScore)
    {
        deviceName = ownName;
        fullDeviceName = ownName;
        outputs = outputChannels;
    }
    ~ScoredDevice() override { ++deleted; }

    unsigned char matchScore(const QString &) const override { return score; }

    unsigned char score;
    static inline int deleted = 0;
};

/// One update that finds these devices.
template <typename... Devices>
void listExactly(TestApi &api, Devices... devices)
{
    api.beginDeviceUpdate();
    (api.addDevice(devices), ...);
    api.endDeviceUpdate();
}

#endif
