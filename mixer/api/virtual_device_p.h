// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_VIRTUAL_DEVICE_P_H
#define QTOVELMIXER_MIXER_API_VIRTUAL_DEVICE_P_H

#include <mixer/api/api_virtual.h>
#include <mixer/api/device.h>

/// A device as the host described it.
class QTovelMixerVirtualDevice : public QTovelMixer::Device
{
public:
    using Setup = QTovelMixerApiVirtual::DeviceSetup;

    QTovelMixerVirtualDevice(QTovelMixer::Api *owner, const Setup &setup);

    void setSetup(const Setup &setup, int number);

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
    bool canPlayback(bool argument = false) const override;
    bool canCapture(bool argument = false) const override;
    unsigned int preferedSampleRate() const override;
    QList<unsigned int> sampleRates() const override;
    unsigned int minBufferFrames() const override;
    unsigned int maxBufferFrames() const override;
    unsigned int defaultBufferFrames() const override;
    int deviceId() const override;

private:
    Setup m_setup;
    int m_number = 0;
};

#endif
