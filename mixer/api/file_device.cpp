// SPDX-License-Identifier: MIT
#include <mixer/api/file_device.h>

#include <QtCore/QFileInfo>

using QTovelMixer::DeviceKind;

QTovelMixerFileDevice::QTovelMixerFileDevice(QTovelMixer::Api *owner, DeviceKind kind,
                                             const QString &path, unsigned int sampleRate,
                                             unsigned int channels, int number)
    : Device(owner), m_kind(kind), m_path(path), m_sampleRate(sampleRate), m_channels(channels),
      m_number(number)
{}

void QTovelMixerFileDevice::setDeviceId(int number)
{
    m_number = number;
}

bool QTovelMixerFileDevice::isValid() const
{
    return true;
}

QString QTovelMixerFileDevice::uniqueId() const
{
    return m_path;
}

QString QTovelMixerFileDevice::fullName() const
{
    return m_path;
}

QString QTovelMixerFileDevice::name() const
{
    return m_path;
}

QString QTovelMixerFileDevice::manufacture() const
{
    return m_path;
}

unsigned int QTovelMixerFileDevice::numInputChannels() const
{
    return m_kind == DeviceKind::Input ? m_channels : 0;
}

unsigned int QTovelMixerFileDevice::numOutputChannels() const
{
    return m_kind == DeviceKind::Output ? m_channels : 0;
}

bool QTovelMixerFileDevice::isAvailable() const
{
    return true;
}

bool QTovelMixerFileDevice::isDefaultInput() const
{
    return m_kind == DeviceKind::Input;
}

bool QTovelMixerFileDevice::isDefaultOutput() const
{
    return m_kind == DeviceKind::Output;
}

bool QTovelMixerFileDevice::isDuplex() const
{
    return false;
}

bool QTovelMixerFileDevice::canPlayback(bool argument) const
{
    Q_UNUSED(argument)
    if (numOutputChannels() == 0)
        return false;
    const QFileInfo file(m_path);
    return file.exists() ? file.isWritable() : QFileInfo(file.absolutePath()).isWritable();
}

bool QTovelMixerFileDevice::canCapture(bool argument) const
{
    Q_UNUSED(argument)
    return numInputChannels() != 0 && QFileInfo(m_path).isReadable();
}

unsigned int QTovelMixerFileDevice::preferedSampleRate() const
{
    return m_sampleRate;
}

QList<unsigned int> QTovelMixerFileDevice::sampleRates() const
{
    return {m_sampleRate};
}

int QTovelMixerFileDevice::deviceId() const
{
    return m_number;
}
