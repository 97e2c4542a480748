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
/// its record until one of the two changes.
///
/// Threads: any, one at a time per value; copies are independent of each other.
class QTOVELMIXER_EXPORT MeterConfig
{
public:
    /// The empty configuration: no type, no id, no channels. It is not valid.
    MeterConfig();

    /// All channels of the input or output side of `device`, at most 32, all enabled.
    /// Errors: not valid for a null device, for one without channels on that side, and for another
    /// type.
    MeterConfig(Type type, Device *device);

    /// Reads what `toJson` wrote; flags that are missing are false, those beyond the count are
    /// left out.
    /// Errors: the empty configuration without "id", "numMeters" or "meters", or with more than
    /// 2^20 meters. A count of 0 or below gives no flags, that is a configuration that is not
    /// valid.
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
    /// True when at least one channel is described.
    bool isValid() const;

    /// Whether a channel is metered. Errors: false out of range.
    bool meterEnabled(int index) const;
    /// Sets a flag; answers whether that changed it. Errors: false out of range.
    bool setMeterEnabled(int index, bool enabled);
    /// One flag per channel. The reference is valid until the configuration changes.
    const std::vector<bool> &meters() const;
    /// Enables every channel; id, type and count stay.
    void reset();

    /// An object with "type", "id", "numMeters" and, for a valid configuration, "meters".
    QJsonObject toJson() const;

    /// "input-NAME-Nch" or "output-NAME-Nch", with the device's full name and its full channel
    /// count on that side. A `%1` in the name takes the count instead.
    /// Errors: "#null" for a null device, else "#invalid" for another type.
    static QString makeId(Type type, Device *device);

private:
    struct Data;
    QSharedDataPointer<Data> d;
};

} // namespace QTovelMixer

#endif
