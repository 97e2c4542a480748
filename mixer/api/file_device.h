// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_FILE_DEVICE_H
#define QTOVELMIXER_MIXER_API_FILE_DEVICE_H

#include <mixer/api/device.h>

/// A raw 16-bit PCM file as a device, either for input or for output; its path is its name and its
/// identity. Never changes after construction but for its number.
/// Threads: main.
class QTOVELMIXER_EXPORT QTovelMixerFileDevice : public QTovelMixer::Device
{
public:
    /// A file of `channels` channels at `sampleRate` Hz. `kind` says which side it is on.
    QTovelMixerFileDevice(QTovelMixer::Api *owner, QTovelMixer::DeviceKind kind,
                          const QString &path, unsigned int sampleRate, unsigned int channels,
                          int number);

    void setDeviceId(int number);

    using Device::numInputChannels;
    using Device::numOutputChannels;

    bool isValid() const override;
    QString uniqueId() const override;
    QString fullName() const override;
    QString name() const override;
    QString manufacture() const override;
    unsigned int numInputChannels() const override;
    unsigned int numOutputChannels() const override;
    bool isAvailable() const override;
    bool isDefaultInput() const override;
    bool isDefaultOutput() const override;
    bool isDuplex() const override;
    /// An output file that can be written, or made in its directory.
    bool canPlayback(bool argument = false) const override;
    /// An input file that can be read.
    bool canCapture(bool argument = false) const override;
    unsigned int preferedSampleRate() const override;
    QList<unsigned int> sampleRates() const override;
    int deviceId() const override;

private:
    QTovelMixer::DeviceKind m_kind;
    QString m_path;
    unsigned int m_sampleRate;
    unsigned int m_channels;
    int m_number;
};

#endif
