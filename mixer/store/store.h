// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_STORE_STORE_H
#define QTOVELMIXER_MIXER_STORE_STORE_H

#include <base/export.h>
#include <mixer/meter/meter_config.h>
#include <mixer/store/route.h>

#include <QtCore/QByteArray>
#include <QtCore/QMap>

#include <memory>

namespace QTovelMixer {

/// The process-wide keeper of the user's routes and meter layouts. The host fills it and saves it;
/// the engine reads it when a device is opened and when a source or sink is added, so that a
/// later change does not touch what already exists.
/// Threads: main.
class QTOVELMIXER_EXPORT Store
{
    Q_DISABLE_COPY_MOVE(Store)

public:
    /// The single instance, made on the first call and never deleted.
    static Store *store();
    virtual ~Store();

    /// The route for these devices and this channel count, or the empty route. The reference is
    /// valid until the routes change.
    const Route &findRoute(Device *input, int channels, Device *output) const;
    /// Keeps a valid route under its id, replacing the one that was there.
    void addRoute(const Route &route);
    void removeRoute(Device *input, int channels, Device *output);
    /// All routes by id.
    const QMap<QString, Route> &routes() const;

    /// All routes as a compact JSON array, in the order of their ids.
    QByteArray saveRoutes() const;
    /// Replaces all routes by those of a JSON array; unusable elements are left out, and of two
    /// with one id the later one counts. Errors: false, logged, for bytes that are no JSON;
    /// nothing changes then.
    bool restoreRoutes(const QByteArray &data);

    /// The configuration for this side of the device, or the empty one. The reference is valid
    /// until the configurations change.
    const MeterConfig &findMeterConfig(Type type, Device *device) const;
    /// Keeps a valid configuration under its id, replacing the one that was there.
    void addMeterConfig(const MeterConfig &config);
    void removeMeterConfig(Type type, Device *device);
    /// All configurations by id.
    const QMap<QString, MeterConfig> &meterConfigs() const;

    /// As `saveRoutes`.
    QByteArray saveMeterConfigs() const;
    /// As `restoreRoutes`.
    bool restoreMeterConfigs(const QByteArray &data);

private:
    Store();

    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
