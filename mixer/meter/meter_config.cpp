// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_config.h>

#include <mixer/api/device.h>

#include <QtCore/QJsonArray>

#include <algorithm>

namespace QTovelMixer {

namespace {

constexpr int mostDeviceMeters = 32;
constexpr int mostStoredMeters = 1 << 20;

const QString typeKey = QStringLiteral("type");
const QString idKey = QStringLiteral("id");
const QString countKey = QStringLiteral("numMeters");
const QString metersKey = QStringLiteral("meters");

unsigned channelCount(Type type, const Device *device)
{
    if (!device)
        return 0;
    switch (type) {
    case Type::Input:
        return device->numInputChannels();
    case Type::Output:
        return device->numOutputChannels();
    case Type::NoType:
    case Type::Loop:
        break;
    }
    return 0;
}

} // namespace

struct MeterConfig::Data : QSharedData
{
    Type type = Type::NoType;
    QString id;
    int numMeters = 0;
    std::vector<bool> meters;
};

MeterConfig::MeterConfig() : d(new Data) {}

MeterConfig::MeterConfig(Type type, Device *device) : d(new Data)
{
    d->type = type;
    d->id = makeId(type, device);
    d->numMeters = int(std::min<unsigned>(channelCount(type, device), mostDeviceMeters));
    d->meters.assign(size_t(d->numMeters), true);
}

MeterConfig::MeterConfig(const QJsonObject &json) : d(new Data)
{
    if (!json.contains(idKey) || !json.contains(countKey) || !json.contains(metersKey))
        return;
    const int count = json.value(countKey).toInt(0);
    if (count > mostStoredMeters)
        return;
    d->id = json.value(idKey).toString();
    d->type = fromTypeString(json.value(typeKey).toString());
    d->numMeters = count;
    d->meters.assign(size_t(std::max(count, 0)), false);
    const QJsonArray flags = json.value(metersKey).toArray();
    const qsizetype stored = std::min(flags.size(), qsizetype(d->meters.size()));
    for (qsizetype i = 0; i < stored; ++i)
        d->meters[size_t(i)] = flags.at(i).toBool(false);
}

MeterConfig::MeterConfig(const MeterConfig &other) = default;
MeterConfig &MeterConfig::operator=(const MeterConfig &other) = default;
MeterConfig::~MeterConfig() = default;

Type MeterConfig::type() const
{
    return d->type;
}

QString MeterConfig::meterConfigId() const
{
    return d->id;
}

int MeterConfig::numMeters() const
{
    return d->numMeters;
}

bool MeterConfig::isValid() const
{
    return !d->meters.empty();
}

bool MeterConfig::meterEnabled(int index) const
{
    return index >= 0 && index < d->numMeters && d->meters[size_t(index)];
}

bool MeterConfig::setMeterEnabled(int index, bool enabled)
{
    const Data &record = *d.constData();
    if (index < 0 || index >= record.numMeters || record.meters[size_t(index)] == enabled)
        return false;
    d->meters[size_t(index)] = enabled;
    return true;
}

const std::vector<bool> &MeterConfig::meters() const
{
    return d->meters;
}

void MeterConfig::reset()
{
    std::vector<bool> &meters = d->meters;
    std::fill(meters.begin(), meters.end(), true);
}

QJsonObject MeterConfig::toJson() const
{
    QJsonObject json;
    json.insert(typeKey, toString(d->type));
    json.insert(idKey, d->id);
    json.insert(countKey, d->numMeters);
    if (isValid()) {
        QJsonArray flags;
        for (const bool flag : d->meters)
            flags.append(flag);
        json.insert(metersKey, flags);
    }
    return json;
}

QString MeterConfig::makeId(Type type, Device *device)
{
    if (!device)
        return QStringLiteral("#null");
    if (type != Type::Input && type != Type::Output)
        return QStringLiteral("#invalid");
    return QStringLiteral("%1-%2-%3ch")
        .arg(toString(type))
        .arg(device->fullName())
        .arg(channelCount(type, device));
}

} // namespace QTovelMixer
