// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_DEVICE_CHOICE_P_H
#define QTOVELMIXER_MIXER_ENGINE_DEVICE_CHOICE_P_H

#include <mixer/engine.h>

#include <QtCore/QString>
#include <QtCore/QTimer>

namespace QTovelMixer {

/// The device list, and which devices were chosen from it. Threads: main.
struct EngineDeviceChoice
{
    explicit EngineDeviceChoice(Engine *owner);

    /// Ends what plays at the rate of the device before; the clock keeps its seconds.
    void adoptRate(unsigned oldRate);

    QString outputName; ///< of the open device
    QString inputName;
    unsigned activations = 0;    ///< raised by `activate` and `deactivate`
    unsigned choices = 0;        ///< raised by whatever opens or closes devices for the host
    bool openFailed = false;     ///< the last attempt to open a device
    bool activatedEmpty = false; ///< there was no device at all
    QTimer *deviceListTimer;     ///< from `updateDeviceList` to the update
    QMetaObject::Connection stoppedLink;
    QMetaObject::Connection deactivatedLink;
};

} // namespace QTovelMixer

#endif
