// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_DEVICE_CHOICE_H
#define TOVELMIX_DEVICE_CHOICE_H

#include <tovelmix/outcome.h>

#include <mixer/api/api.h>
#include <mixer/api/device.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>

namespace tovelmix {

/// What the user wants of the devices, as typed.
struct DeviceOptions
{
    QTovelMixer::Backend backend = QTovelMixer::Auto;
    QString device;         ///< that plays: name or identity; empty: the default one
    QString input;          ///< that records, likewise
    bool isVirtual = false; ///< no hardware: a device that runs in real time and is not heard
    unsigned rate = 0;      ///< Hz; 0: as the devices like it
    unsigned bufferFrames = 512;
    double seconds = 0.0; ///< 0: no limit
    bool follow = false;  ///< goes on after a device was lost
};

/// The audio systems that can be asked for, by name.
QStringList backendNames();

/// What a backend is called for the user.
QString backendName(const QTovelMixer::Api &api);

/// A backend with its devices listed, or null and what is missing.
std::unique_ptr<QTovelMixer::Api> openBackend(const DeviceOptions &options, Outcome &outcome);

struct Choice
{
    QTovelMixer::Device *device = nullptr;
    int score = 0; ///< of 128; how well what was typed fits
};

/// The listed device of this kind that fits `wanted` best; the default one when that is empty.
Choice chooseDevice(const QTovelMixer::Api &api, QTovelMixer::DeviceKind kind,
                    const QString &wanted);

/// As above for what the user typed: says what is missing, or, in `note`, which device was taken
/// when the identity is not exactly the one typed.
QTovelMixer::Device *requireDevice(const QTovelMixer::Api &api, QTovelMixer::DeviceKind kind,
                                   const QString &wanted, Outcome &outcome, QString &note);

} // namespace tovelmix

#endif
