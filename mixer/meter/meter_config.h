// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_CONFIG_H
#define QTOVELMIXER_MIXER_METER_METER_CONFIG_H

#include <base/export.h>
#include <mixer/types.h>

#include <QtCore/QJsonObject>
#include <QtCore/QSharedDataPointer>
#include <QtCore/QString>

#include <vector>

namespace QTovelMixer {

/// Which channels of one side of a device are metered. An implicitly shared value: a copy shares
/// its record until one of the two changes. Threads: a value belongs to one thread at a time.
class QTOVELMIXER_EXPORT MeterConfig
{
public:
    /// The empty configuration, which is not valid.
    MeterConfig();

    /// All channels of the input or output side of `device`, at most 32. Not valid for a null
    /// device, one without such channels, or another type.
    MeterConfig(Type type, Device *device);

    /// Reads what `toJson` wrote. An object without "id", "numMeters" or "meters", or with more
    /// than 2^20 meters, gives the empty configuration; a negative count acts as 0.
    explicit MeterConfig(const QJsonObject &json);

    MeterConfig(const MeterConfig &other);
    MeterConfig &operator=(const MeterConfig &other);
    ~MeterConfig();

    /// `Type::Input` or `Type::Output`; `Type::NoType` when unknown.
    Type type() const;
    /// The key under which the store keeps the configuration.
    QString meterConfigId() const;
    /// Number of channels described.
    int numMeters() const;
    /// True when there is at least one flag.
    bool isValid() const;

    /// False for an index that is out of range.
    bool meterEnabled(int index) const;
    /// Answers whether that changed something; false for an index that is out of range.
    bool setMeterEnabled(int index, bool enabled);
    /// One flag per channel.
    const std::vector<bool> &meters() const;
    /// Enables every channel; id, type and count stay.
    void reset();

    /// The keys "type", "id", "numMeters" and, for a valid configuration, "meters".
    QJsonObject toJson() const;

    /// "input-NAME-Nch" or "output-NAME-Nch" with the device's full name and full channel count;
    /// "#null" for a null device, "#invalid" for another type.
    static QString makeId(Type type, Device *device);

private:
    struct Data;
    QSharedDataPointer<Data> d;
};

} // namespace QTovelMixer

#endif
