// SPDX-License-Identifier: MIT
#include <mixer/api/virtual_device_p.h>

#include <algorithm>

QTovelMixerVirtualDevice::QTovelMixerVirtualDevice(QTovelMixer::Api *owner, const Setup &setup)
    : Device(owner), m_setup(setup)
{}

void QTovelMixerVirtualDevice::setSetup(const Setup &setup, int number)
{
    m_setup = setup;
    m_number = number;
}

bool QTovelMixerVirtualDevice::isValid() const
{
    return true;
}

QString QTovelMixerVirtualDevice::uniqueId() const
{
    return m_setup.name;
}

QString QTovelMixerVirtualDevice::fullName() const
{
    return m_setup.name;
}

QString QTovelMixerVirtualDevice::name() const
{
    return m_setup.name;
}

QString QTovelMixerVirtualDevice::manufacture() const
{
    return QStringLiteral("Virtual");
}

unsigned int QTovelMixerVirtualDevice::numInputChannels() const
{
    return m_setup.inputChannels;
}

unsigned int QTovelMixerVirtualDevice::numOutputChannels() const
{
    return m_setup.outputChannels;
}

bool QTovelMixerVirtualDevice::isAvailable() const
{
    return true;
}

bool QTovelMixerVirtualDevice::isDefaultInput() const
{
    return m_setup.defaultInput;
}

bool QTovelMixerVirtualDevice::isDefaultOutput() const
{
    return m_setup.defaultOutput;
}

bool QTovelMixerVirtualDevice::isDuplex() const
{
    return m_setup.inputChannels > 0 && m_setup.outputChannels > 0;
}

bool QTovelMixerVirtualDevice::canPlayback(bool argument) const
{
    Q_UNUSED(argument)
    return m_setup.outputChannels > 0;
}

bool QTovelMixerVirtualDevice::canCapture(bool argument) const
{
    Q_UNUSED(argument)
    return m_setup.inputChannels > 0;
}

unsigned int QTovelMixerVirtualDevice::preferedSampleRate() const
{
    return m_setup.sampleRates.contains(m_setup.preferedSampleRate) ? m_setup.preferedSampleRate
                                                                    : m_setup.sampleRates.first();
}

QList<unsigned int> QTovelMixerVirtualDevice::sampleRates() const
{
    return m_setup.sampleRates;
}

unsigned int QTovelMixerVirtualDevice::minBufferFrames() const
{
    return m_setup.minBufferFrames;
}

unsigned int QTovelMixerVirtualDevice::maxBufferFrames() const
{
    return m_setup.maxBufferFrames;
}

unsigned int QTovelMixerVirtualDevice::defaultBufferFrames() const
{
    return std::clamp(Device::defaultBufferFrames(), m_setup.minBufferFrames,
                      m_setup.maxBufferFrames);
}

int QTovelMixerVirtualDevice::deviceId() const
{
    return m_number;
}
