// SPDX-License-Identifier: MIT
#include <mixer/store/store.h>

#include <base/debug.h>
#include <base/hidden_p.h>
#include <base/log_line_p.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <optional>

namespace QTovelMixer {

namespace {

constexpr qint64 mostElements = qint64{1} << 22; // what a damaged file may cost in memory

qint64 elementsOf(const Route &route)
{
    return qint64(route.numInputs()) * route.numOutputs();
}

qint64 elementsOf(const MeterConfig &config)
{
    return config.numMeters();
}

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

// A few characters of text can ask for a large matrix, so the sum is bounded too.
template <typename T>
QMap<QString, T> usable(const QJsonArray &array, const char *place)
{
    QMap<QString, T> table;
    qint64 elements = 0;
    int tooMany = 0;
    for (const auto &value : array) {
        if (!value.isObject())
            continue;
        const T entry(value.toObject());
        if (!entry.isValid())
            continue;
        const auto former = table.constFind(idOf(entry));
        const qint64 replaced = former != table.constEnd() ? elementsOf(*former) : 0;
        const qint64 sum = elements - replaced + elementsOf(entry);
        if (sum > mostElements) {
            ++tooMany;
            continue;
        }
        elements = sum;
        table.insert(idOf(entry), entry);
    }
    if (tooMany > 0)
        BLDEBUG_Error(-1, "QTovelMixer::Store: left out %d %s, too large in sum!!", tooMany, place);
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
    d->routes = usable<Route>(*array, "routes");
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
    d->meterConfigs = usable<MeterConfig>(*array, "meter configs");
    return true;
}

} // namespace QTovelMixer
