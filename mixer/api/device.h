// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_DEVICE_H
#define QTOVELMIXER_MIXER_API_DEVICE_H

#include <base/export.h>
#include <mixer/types.h>

#include <QtCore/QDebug>
#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTextStream>

namespace QTovelMixer {

/// One audio endpoint that a backend has found: its names, its channels, what it accepts, and the
/// identity by which a choice of device is remembered between runs.
///
/// Ownership: a device belongs to the backend that made it, for the backend's whole life, so that
/// a pointer stays good while the hardware comes and goes.
/// Threads: main.
class QTOVELMIXER_EXPORT Device
{
    Q_DISABLE_COPY_MOVE(Device)

public:
    // The keys of the JSON form.
    static const QString kFullName;
    static const QString kName;
    static const QString kManufacture;
    static const QString kNumInputChannels;
    static const QString kNumOutputChannels;
    static const QString kIsDefaultInput;
    static const QString kIsDefaultOutput;
    static const QString kSampleRates;
    static const QString kDeviceId;

    /// A device of `owner`, not listed yet.
    explicit Device(Api *owner);
    virtual ~Device();

    /// True for a device of the same backend with the same name and manufacturer. Null: false.
    virtual bool isSameDevice(const Device *other) const;
    /// The device has channels of this kind.
    virtual bool hasChannels(DeviceKind kind) const;
    /// The system's default device of this kind.
    virtual bool isDefault(DeviceKind kind) const;
    virtual bool isValid() const = 0;
    /// The identity under which hosts remember the device.
    virtual QString uniqueId() const = 0;
    virtual QString fullName() const = 0;
    virtual QString name() const = 0;
    virtual QString manufacture() const = 0;
    virtual unsigned int numInputChannels() const = 0;
    virtual unsigned int numOutputChannels() const = 0;
    /// False for a device that was found but cannot be used.
    virtual bool isAvailable() const = 0;
    virtual bool isDefaultInput() const = 0;
    virtual bool isDefaultOutput() const = 0;
    virtual bool isDuplex() const = 0;
    virtual bool canPlayback(bool argument = false) const = 0;
    virtual bool canCapture(bool argument = false) const = 0;
    /// Hz; 0 when the device has none.
    virtual unsigned int preferedSampleRate() const = 0;
    /// Hz.
    virtual QList<unsigned int> sampleRates() const = 0;
    /// Frames; 64, 4096 and 1024 unless a kind of device says otherwise.
    virtual unsigned int minBufferFrames() const;
    virtual unsigned int maxBufferFrames() const;
    virtual unsigned int defaultBufferFrames() const;
    /// The backend's number for the device.
    virtual int deviceId() const = 0;
    /// How well a remembered identity fits: 128 for the identity itself, 0 for another device,
    /// and in between what a kind of device knows of near misses. Higher is better.
    virtual unsigned char matchScore(const QString &id) const;
    /// True when the input hears what an output of the machine plays: a policy that looks for a
    /// microphone leaves it out. `defaultDevice` does not. False where the system does not tell.
    virtual bool isMonitor() const;
    /// What the device is, in the system's word: "headset", "webcam", "speaker" … Empty where
    /// unknown.
    virtual QString formFactor() const;
    /// How it is attached, in the system's word: "usb", "bluetooth", "pci" … Empty where unknown.
    virtual QString bus() const;
    /// Which speaker or microphone each channel is, in the system's words: "front-left", "lfe",
    /// "aux0" … One for each channel of this kind, in their order; empty where unknown.
    virtual QStringList channelNames(DeviceKind kind) const;

    /// The backend that made the device.
    Api *owner() const;
    /// True while the device is in its backend's list and available.
    bool isListed() const;

    /// Sets the device's keys in `json`; other keys are left alone.
    void write(QJsonObject &json) const;
    QJsonObject toJsonObject() const;

    /// The device's name; "null" for a null or invalid device.
    static QString deviceName(Device *device);
    /// 0 for a null or invalid device.
    static unsigned int numInputChannels(Device *device);
    /// 0 for a null or invalid device.
    static unsigned int numOutputChannels(Device *device);

private:
    friend class Api;

    Api *m_owner;
    bool m_listed = false;
};

/// Writes the name.
QTOVELMIXER_EXPORT QTextStream &operator<<(QTextStream &stream, const Device &device);
/// Writes the name, or "null".
QTOVELMIXER_EXPORT QTextStream &operator<<(QTextStream &stream, const Device *device);
/// Writes the quoted name, number, direction, channel counts and preferred rate.
QTOVELMIXER_EXPORT QDebug operator<<(QDebug debug, const Device &device);
/// As for a reference, or null.
QTOVELMIXER_EXPORT QDebug operator<<(QDebug debug, const Device *device);

} // namespace QTovelMixer

#endif
