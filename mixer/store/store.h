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

/// The process-wide keeper of the user's routes and meter configurations, each under its id. The
/// host fills it and keeps its bytes; the engine only reads it, when it opens a device and when a
/// source or sink is added, so a later change does not touch what exists already. Nothing that is
/// not valid is kept.
///
/// Threads: main.
class QTOVELMIXER_EXPORT Store
{
    Q_DISABLE_COPY_MOVE(Store)

public:
    /// The only instance, made by the first call and never deleted.
    static Store *store();

    virtual ~Store();

    /// The route with the id that `Route::makeRouteId` gives for these, else the empty route. The
    /// reference is valid until the routes change.
    const Route &findRoute(Device *input, int channels, Device *output) const;
    /// Keeps a route under its id, instead of the one that was there. Errors: ignored when it is
    /// not valid.
    void addRoute(const Route &route);
    /// Forgets the route that `findRoute` would find.
    void removeRoute(Device *input, int channels, Device *output);
    /// All routes by id.
    const QMap<QString, Route> &routes() const;

    /// All routes as a JSON array in the order of their ids: compact UTF-8, `[]` without any.
    QByteArray saveRoutes() const;
    /// Replaces all routes by those of a JSON array. What is no usable route is left out, of two
    /// with one id the later one counts, and a JSON object counts as an empty array. Whatever
    /// `saveRoutes` wrote comes back whole. Left out with a line in the log: routes with a gain
    /// that no float can hold, and routes whose gains the text does not name, beyond 2^18 such
    /// gains in sum. What is left out, and keys of an object that are not a route's own, are lost
    /// with the next save. Errors: false, with one critical line, for text that is no JSON; nothing
    /// changes.
    bool restoreRoutes(const QByteArray &data);

    /// The configuration with the id that `MeterConfig::makeId` gives for these, else the empty
    /// configuration. The reference is valid until the configurations change.
    const MeterConfig &findMeterConfig(Type type, Device *device) const;
    /// Keeps a configuration under its id, instead of the one that was there. Errors: ignored when
    /// it is not valid.
    void addMeterConfig(const MeterConfig &config);
    /// Forgets the configuration that `findMeterConfig` would find.
    void removeMeterConfig(Type type, Device *device);
    /// All configurations by id.
    const QMap<QString, MeterConfig> &meterConfigs() const;

    /// All configurations, as `saveRoutes` does.
    QByteArray saveMeterConfigs() const;
    /// Replaces all configurations, as `restoreRoutes` does; those whose flags the text does not
    /// name, beyond 2^18 such flags in sum, are left out.
    bool restoreMeterConfigs(const QByteArray &data);

private:
    Store();

    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
