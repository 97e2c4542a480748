// SPDX-License-Identifier: MIT
#include <mixer/api/device.h>

#include <QtCore/QJsonArray>

namespace QTovelMixer {

const QString Device::kFullName = QStringLiteral("fullName");
const QString Device::kName = QStringLiteral("name");
const QString Device::kManufacture = QStringLiteral("manufacture");
const QString Device::kNumInputChannels = QStringLiteral("numInputChannels");
const QString Device::kNumOutputChannels = QStringLiteral("numOutputChannels");
const QString Device::kIsDefaultInput = QStringLiteral("isDefaultInput");
const QString Device::kIsDefaultOutput = QStringLiteral("isDefaultOutput");
const QString Device::kSampleRates = QStringLiteral("sampleRates");
const QString Device::kDeviceId = QStringLiteral("deviceId");

Device::Device(Api *owner) : m_owner(owner) {}

Device::~Device()
{
    m_owner = nullptr;
}

bool Device::isSameDevice(const Device *other) const
{
    return other && other->m_owner == m_owner && other->name() == name() &&
           other->manufacture() == manufacture();
}

bool Device::hasChannels(DeviceKind kind) const
{
    switch (kind) {
    case DeviceKind::Input:
        return numInputChannels() != 0;
    case DeviceKind::Output:
        return numOutputChannels() != 0;
    }
    return false;
}

bool Device::isDefault(DeviceKind kind) const
{
    switch (kind) {
    case DeviceKind::Input:
        return isDefaultInput();
    case DeviceKind::Output:
        return isDefaultOutput();
    }
    return false;
}

unsigned int Device::minBufferFrames() const
{
    return 64;
}

unsigned int Device::maxBufferFrames() const
{
    return 4096;
}

unsigned int Device::defaultBufferFrames() const
{
    return 1024;
}

unsigned char Device::matchScore(const QString &id) const
{
    return id == uniqueId() ? 128 : 0;
}

bool Device::isMonitor() const
{
    return false;
}

QString Device::formFactor() const
{
    return {};
}

QString Device::bus() const
{
    return {};
}

QStringList Device::channelNames(DeviceKind) const
{
    return {};
}

Api *Device::owner() const
{
    return m_owner;
}

bool Device::isListed() const
{
    return m_listed;
}

void Device::write(QJsonObject &json) const
{
    json.insert(kFullName, fullName());
    json.insert(kName, name());
    json.insert(kManufacture, manufacture());
    json.insert(kNumInputChannels, int(numInputChannels()));
    json.insert(kNumOutputChannels, int(numOutputChannels()));
    json.insert(kIsDefaultInput, isDefaultInput());
    json.insert(kIsDefaultOutput, isDefaultOutput());
    json.insert(kDeviceId, deviceId());
    QJsonArray rates;
    for (const unsigned int rate : sampleRates())
        rates.append(int(rate));
    json.insert(kSampleRates, rates);
}

QJsonObject Device::toJsonObject() const
{
    QJsonObject json;
    write(json);
    return json;
}

QString Device::deviceName(Device *device)
{
    return device && device->isValid() ? device->name() : QStringLiteral("null");
}

unsigned int Device::numInputChannels(Device *device)
{
    return device && device->isValid() ? device->numInputChannels() : 0;
}

unsigned int Device::numOutputChannels(Device *device)
{
    return device && device->isValid() ? device->numOutputChannels() : 0;
}

QTextStream &operator<<(QTextStream &stream, const Device &device)
{
    return stream << device.name();
}

QTextStream &operator<<(QTextStream &stream, const Device *device)
{
    return device ? stream << *device : stream << "null";
}

QDebug operator<<(QDebug debug, const Device &device)
{
    const unsigned int in = device.numInputChannels();
    const unsigned int out = device.numOutputChannels();
    const char *direction = in && out ? "in+out" : in ? "in" : out ? "out" : "none";
    const QDebugStateSaver saver(debug);
    debug.nospace() << device.name() << " [id:" << device.deviceId() << " " << direction
                    << " in=" << in << " out=" << out << " pref=" << device.preferedSampleRate()
                    << "Hz]";
    return debug;
}

QDebug operator<<(QDebug debug, const Device *device)
{
    return device ? debug << *device : debug << "null";
}

} // namespace QTovelMixer
