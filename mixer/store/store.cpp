// SPDX-License-Identifier: MIT
#include <mixer/store/store.h>

#include <base/debug.h>
#include <base/hidden_p.h>
#include <base/log_line_p.h>
#include <mixer/meter/meter_config_json_p.h>
#include <mixer/store/route_json_p.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <optional>

namespace QTovelMixer {

namespace {

// What a damaged file may cost in memory and time beyond what its length costs: far more than hosts
// leave out, and made in a fraction of a millisecond.
constexpr qint64 mostUnnamed = qint64{1} << 18;

template <typename T>
struct Stored;

template <>
struct Stored<Route>
{
    static constexpr const char *name = "routes";
    static qint64 unnamed(const QJsonObject &json) { return RouteJson::unnamedGains(json); }
    static bool isInfinite(const QJsonObject &json) { return RouteJson::hasInfiniteGain(json); }
};

template <>
struct Stored<MeterConfig>
{
    static constexpr const char *name = "meter configs";
    static qint64 unnamed(const QJsonObject &json) { return MeterConfigJson::unnamedFlags(json); }
    static bool isInfinite(const QJsonObject &) { return false; }
};

QString idOf(const Route &route)
{
    return route.routeId();
}

QString idOf(const MeterConfig &config)
{
    return config.meterConfigId();
}

template <typename T>
const T &find(const QMap<QString, T> &table, const QString &key)
{
    static const T empty;
    const auto entry = table.constFind(key);
    return entry != table.constEnd() ? *entry : empty;
}

template <typename T>
QByteArray save(const QMap<QString, T> &table)
{
    QJsonArray array;
    for (const T &value : table)
        array.append(value.toJson());
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

// Null, and a critical line, for what is no JSON.
std::optional<QJsonArray> parse(const QByteArray &data, const char *place)
{
    QJsonParseError error = {};
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError) {
        composeLine(QtCriticalMsg, [&](QDebug &line) {
            line << error.errorString() << "(offset:" << error.offset << place;
        });
        return std::nullopt;
    }
    return document.array();
}

// A few characters of text can ask for a large table. One that is named element by element costs
// what its text costs; what is not named is bounded in sum, before anything is made of it.
template <typename T>
QMap<QString, T> usable(const QJsonArray &array)
{
    QMap<QString, T> table;
    qint64 unnamed = 0;
    int tooMany = 0;
    int infinite = 0;
    for (const auto &value : array) {
        const QJsonObject json = value.toObject();
        const qint64 asked = Stored<T>::unnamed(json);
        if (unnamed + asked > mostUnnamed) {
            ++tooMany;
            continue;
        }
        unnamed += asked;
        const T entry(json);
        if (entry.isValid())
            table.insert(idOf(entry), entry);
        else if (Stored<T>::isInfinite(json))
            ++infinite;
    }
    if (tooMany > 0)
        BLDEBUG_Error(-1, "QTovelMixer::Store: left out %d %s, too large in sum!!", tooMany,
                      Stored<T>::name);
    if (infinite > 0)
        BLDEBUG_Error(-1, "QTovelMixer::Store: left out %d %s, gains are not finite!!", infinite,
                      Stored<T>::name);
    return table;
}

} // namespace

struct QTOVELMIXER_HIDDEN Store::Data
{
    QMap<QString, Route> routes;
    QMap<QString, MeterConfig> meterConfigs;
};

Store::Store() : d(std::make_unique<Data>()) {}

Store::~Store() = default;

Store *Store::store()
{
    static Store *const instance = new Store;
    return instance;
}

const Route &Store::findRoute(Device *input, int channels, Device *output) const
{
    return find(d->routes, Route::makeRouteId(input, channels, output));
}

void Store::addRoute(const Route &route)
{
    if (route.isValid())
        d->routes.insert(route.routeId(), route);
}

void Store::removeRoute(Device *input, int channels, Device *output)
{
    d->routes.remove(Route::makeRouteId(input, channels, output));
}

const QMap<QString, Route> &Store::routes() const
{
    return d->routes;
}

QByteArray Store::saveRoutes() const
{
    return save(d->routes);
}

bool Store::restoreRoutes(const QByteArray &data)
{
    const std::optional<QJsonArray> array = parse(data, ") in mixer routes");
    if (!array)
        return false;
    d->routes = usable<Route>(*array);
    return true;
}

const MeterConfig &Store::findMeterConfig(Type type, Device *device) const
{
    return find(d->meterConfigs, MeterConfig::makeId(type, device));
}

void Store::addMeterConfig(const MeterConfig &config)
{
    if (config.isValid())
        d->meterConfigs.insert(config.meterConfigId(), config);
}

void Store::removeMeterConfig(Type type, Device *device)
{
    d->meterConfigs.remove(MeterConfig::makeId(type, device));
}

const QMap<QString, MeterConfig> &Store::meterConfigs() const
{
    return d->meterConfigs;
}

QByteArray Store::saveMeterConfigs() const
{
    return save(d->meterConfigs);
}

bool Store::restoreMeterConfigs(const QByteArray &data)
{
    const std::optional<QJsonArray> array = parse(data, ") in mixer meter configs");
    if (!array)
        return false;
    d->meterConfigs = usable<MeterConfig>(*array);
    return true;
}

} // namespace QTovelMixer
