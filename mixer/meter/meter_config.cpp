// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_config.h>

#include <base/hidden_p.h>
#include <mixer/api/device.h>
#include <mixer/meter/meter_config_json_p.h>

#include <QtCore/QJsonArray>

#include <algorithm>
#include <optional>

namespace QTovelMixer {

namespace {

constexpr unsigned int mostDeviceMeters = 32;
constexpr int mostStoredMeters = 1 << 20; // what a damaged file may cost in memory

constexpr QLatin1String typeKey("type");
constexpr QLatin1String idKey("id");
constexpr QLatin1String countKey("numMeters");
constexpr QLatin1String metersKey("meters");

bool isSide(Type type)
{
    return type == Type::Input || type == Type::Output;
}

unsigned int channelsOf(const Device &device, Type side)
{
    return side == Type::Input ? device.numInputChannels() : device.numOutputChannels();
}

/// The count of a configuration's JSON; none for an object that lacks a key or asks for too many.
std::optional<int> countOf(const QJsonObject &json)
{
    if (!json.contains(idKey) || !json.contains(countKey) || !json.contains(metersKey))
        return std::nullopt;
    const int count = json.value(countKey).toInt(0);
    return count <= mostStoredMeters ? std::optional(count) : std::nullopt;
}

} // namespace

qint64 MeterConfigJson::unnamedFlags(const QJsonObject &json)
{
    const qint64 count = countOf(json).value_or(0);
    return std::max(count - json.value(metersKey).toArray().size(), qint64{0});
}

struct QTOVELMIXER_HIDDEN MeterConfig::Data : QSharedData
{
    Type type = Type::NoType;
    QString id;
    int numMeters = 0; // may be negative when read so; there are no flags then
    std::vector<bool> meters;

    bool has(int index) const { return index >= 0 && index < numMeters; }
};

MeterConfig::MeterConfig() : d(new Data) {}

MeterConfig::MeterConfig(Type type, Device *device) : d(new Data)
{
    d->type = type;
    d->id = makeId(type, device);
    if (!device || !isSide(type))
        return;
    d->numMeters = int(std::min(channelsOf(*device, type), mostDeviceMeters));
    d->meters.assign(size_t(d->numMeters), true);
}

MeterConfig::MeterConfig(const QJsonObject &json) : d(new Data)
{
    const std::optional<int> count = countOf(json);
    if (!count)
        return;
    d->id = json.value(idKey).toString();
    d->type = fromTypeString(json.value(typeKey).toString());
    d->numMeters = *count;
    d->meters.assign(size_t(std::max(*count, 0)), false);
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
    return d->has(index) && d->meters[size_t(index)];
}

bool MeterConfig::setMeterEnabled(int index, bool enabled)
{
    // Reading must not detach.
    const Data &record = *d.constData();
    if (!record.has(index) || record.meters[size_t(index)] == enabled)
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
    std::vector<bool> &flags = d->meters;
    std::fill(flags.begin(), flags.end(), true);
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
    if (!isSide(type))
        return QStringLiteral("#invalid");
    // One after the other: with a single call a name would never be taken for a placeholder, and
    // ids of such devices that hosts have stored would no longer be found.
    return QStringLiteral("%1-%2-%3ch")
        .arg(toString(type))
        .arg(device->fullName())
        .arg(channelsOf(*device, type));
}

} // namespace QTovelMixer
