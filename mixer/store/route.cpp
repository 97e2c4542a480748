// SPDX-License-Identifier: MIT
#include <mixer/store/route.h>

#include <base/hidden_p.h>
#include <mixer/api/device.h>
#include <mixer/gains.h>
#include <mixer/store/route_json_p.h>

#include <QtCore/QJsonArray>
#include <QtCore/QStringList>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace QTovelMixer {

namespace {

constexpr int mostChannels = 32;
constexpr qint64 mostStoredGains = 1 << 20; // what a damaged file may cost in memory

constexpr QLatin1String kindKey("kind");
constexpr QLatin1String idKey("id");
constexpr QLatin1String inputsKey("numInputChannels");
constexpr QLatin1String outputsKey("numOutputChannels");
constexpr QLatin1String audioKey("numAudioChannels");
constexpr QLatin1String gainsKey("gains");

int capped(unsigned int channels)
{
    return int(std::min(channels, unsigned(mostChannels)));
}

/// The counts of a route's JSON, and the matrix that they stand for.
struct Shape
{
    int inputs;
    int outputs;
    int audio;

    int rows() const { return std::max(inputs >= 1 ? inputs : audio, 0); }
    int columns() const { return std::max(outputs >= 1 ? outputs : audio, 0); }
    qint64 cells() const { return qint64(rows()) * columns(); }
};

/// None for an object that lacks a key or asks for too large a matrix.
std::optional<Shape> shapeOf(const QJsonObject &json)
{
    for (const QLatin1String key : {idKey, inputsKey, outputsKey, audioKey, gainsKey}) {
        if (!json.contains(key))
            return std::nullopt;
    }
    const Shape shape{json.value(inputsKey).toInt(0), json.value(outputsKey).toInt(0),
                      json.value(audioKey).toInt(0)};
    return shape.cells() <= mostStoredGains ? std::optional(shape) : std::nullopt;
}

} // namespace

qint64 RouteJson::unnamedGains(const QJsonObject &json)
{
    const std::optional<Shape> shape = shapeOf(json);
    if (!shape)
        return 0;
    return std::max(shape->cells() - json.value(gainsKey).toArray().size(), qint64{0});
}

bool RouteJson::hasInfiniteGain(const QJsonObject &json)
{
    const std::optional<Shape> shape = shapeOf(json);
    const QJsonArray gains = json.value(gainsKey).toArray();
    const qsizetype named = shape ? std::min(gains.size(), qsizetype(shape->cells())) : 0;
    return std::any_of(gains.begin(), gains.begin() + named, [](const QJsonValue &gain) {
        return !std::isfinite(float(gain.toDouble(0.0)));
    });
}

struct QTOVELMIXER_HIDDEN Route::Data : QSharedData
{
    Type type = Type::NoType;
    QString id;
    int inputDeviceChannels = 0;
    int outputDeviceChannels = 0;
    int numAudioChannels = 0;
    int numInputs = 0;
    int numOutputs = 0;
    // Row by row, and one element behind the last: a matrix without cells has an address too.
    std::vector<float> gains;

    bool hasMatrix() const { return !gains.empty(); }
    size_t cells() const { return size_t(numInputs) * size_t(numOutputs); }
    bool has(int row, int column) const
    {
        return row >= 0 && row < numInputs && column >= 0 && column < numOutputs;
    }
    size_t index(int row, int column) const
    {
        return size_t(row) * size_t(numOutputs) + size_t(column);
    }

    void makeMatrix(int rows, int columns);
    void fillWithDefaults();
    Type typeFromCounts() const;
};

void Route::Data::makeMatrix(int rows, int columns)
{
    numInputs = std::max(rows, 0);
    numOutputs = std::max(columns, 0);
    gains.assign(cells() + 1, 0.0f);
}

void Route::Data::fillWithDefaults()
{
    if (!hasMatrix())
        return;
    std::fill(gains.begin(), gains.end(), 0.0f);
    const float *table = nullptr;
    if (type == Type::Output)
        table = Gains::outputMixerGains(numInputs, numOutputs, gains.data());
    else if (type == Type::Input)
        table = Gains::inputMixerGains(numInputs, numOutputs, gains.data());
    if (table && table != gains.data())
        std::copy_n(table, cells(), gains.begin());
}

Type Route::Data::typeFromCounts() const
{
    const bool input = inputDeviceChannels >= 1;
    const bool output = outputDeviceChannels >= 1;
    if (numAudioChannels < 1)
        return input && output ? Type::Loop : Type::NoType;
    if (input)
        return Type::Input;
    return output ? Type::Output : Type::NoType;
}

Route::Route() : d(new Data) {}

Route::Route(Device *input, int channels) : Route(Type::Input, input, channels, nullptr) {}

Route::Route(int channels, Device *output) : Route(Type::Output, nullptr, channels, output) {}

Route::Route(Device *input, Device *output) : Route(Type::Loop, input, 0, output) {}

Route::Route(Type type, Device *input, int channels, Device *output) : d(new Data)
{
    Data &route = *d;
    route.type = type;
    route.id = makeRouteId(input, channels, output);
    route.inputDeviceChannels = input ? capped(input->numInputChannels()) : 0;
    route.outputDeviceChannels = output ? capped(output->numOutputChannels()) : 0;
    route.numAudioChannels = std::min(channels, mostChannels);
    if (type == Type::Output)
        route.makeMatrix(route.numAudioChannels, route.outputDeviceChannels);
    else if (type == Type::Input)
        route.makeMatrix(route.inputDeviceChannels, route.numAudioChannels);
    else
        route.makeMatrix(0, 0);
    route.fillWithDefaults();
}

Route::Route(const QJsonObject &json) : d(new Data)
{
    const std::optional<Shape> shape = shapeOf(json);
    if (!shape)
        return;
    Data &route = *d;
    route.type = fromTypeString(json.value(kindKey).toString());
    route.id = json.value(idKey).toString();
    route.inputDeviceChannels = shape->inputs;
    route.outputDeviceChannels = shape->outputs;
    route.numAudioChannels = shape->audio;
    route.makeMatrix(shape->rows(), shape->columns());
    if (route.type == Type::NoType)
        route.type = route.typeFromCounts();
    const QJsonArray gains = json.value(gainsKey).toArray();
    const qsizetype stored = std::min(gains.size(), qsizetype(route.cells()));
    for (qsizetype i = 0; i < stored; ++i) {
        const float gain = float(gains.at(i).toDouble(0.0));
        if (!std::isfinite(gain)) {
            d = new Data;
            return;
        }
        route.gains[size_t(i)] = gain;
    }
}

Route::Route(const Route &other) = default;
Route &Route::operator=(const Route &other) = default;
Route::~Route() = default;

Type Route::type() const
{
    return d->type;
}

QString Route::routeId() const
{
    return d->id;
}

int Route::numInputs() const
{
    return d->numInputs;
}

int Route::numOutputs() const
{
    return d->numOutputs;
}

bool Route::isValid() const
{
    return d->hasMatrix();
}

bool Route::isActive() const
{
    return qint64(d->inputDeviceChannels) + d->outputDeviceChannels > 0;
}

float Route::gain(int row, int column) const
{
    return d->has(row, column) ? d->gains[d->index(row, column)] : 0.0f;
}

bool Route::setGain(int row, int column, float gain)
{
    Data &route = *d;
    if (!route.has(row, column))
        return false;
    route.gains[route.index(row, column)] = gain;
    return true;
}

Route::operator const float *() const
{
    return d->hasMatrix() ? d->gains.data() : nullptr;
}

void Route::reset()
{
    d->fillWithDefaults();
}

QJsonObject Route::toJson() const
{
    QJsonArray gains;
    for (size_t i = 0; i < d->cells(); ++i)
        gains.append(double(d->gains[i]));
    QJsonObject json;
    json.insert(kindKey, toString(d->type));
    json.insert(idKey, d->id);
    json.insert(inputsKey, d->inputDeviceChannels);
    json.insert(outputsKey, d->outputDeviceChannels);
    json.insert(audioKey, d->numAudioChannels);
    json.insert(gainsKey, gains);
    return json;
}

QString Route::makeRouteId(Device *input, int channels, Device *output)
{
    QStringList parts;
    if (input)
        parts << input->fullName();
    if (channels != 0)
        parts << QStringLiteral("AudioWith%1Channels").arg(channels);
    if (output)
        parts << output->fullName();
    return parts.join(QStringLiteral("_to_"));
}

} // namespace QTovelMixer
