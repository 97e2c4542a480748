// SPDX-License-Identifier: MIT
#include <mixer/store/route.h>

#include <mixer/api/device.h>
#include <mixer/gains.h>

#include <QtCore/QJsonArray>
#include <QtCore/QStringList>

#include <algorithm>
#include <vector>

namespace QTovelMixer {

namespace {

constexpr int mostChannels = 32;
constexpr qint64 mostStoredGains = 1 << 20;

const QString kindKey = QStringLiteral("kind");
const QString idKey = QStringLiteral("id");
const QString inputsKey = QStringLiteral("numInputChannels");
const QString outputsKey = QStringLiteral("numOutputChannels");
const QString audioKey = QStringLiteral("numAudioChannels");
const QString gainsKey = QStringLiteral("gains");

} // namespace

struct Route::Data : QSharedData
{
    Type type = Type::NoType;
    QString id;
    int inputDeviceChannels = 0;
    int outputDeviceChannels = 0;
    int numAudioChannels = 0;
    int numInputs = 0;
    int numOutputs = 0;
    bool hasGains = false;
    // One cell more than the matrix, so that a matrix without cells has an address too.
    std::vector<float> gains;

    bool contains(int row, int column) const
    {
        return row >= 0 && column >= 0 && row < numInputs && column < numOutputs;
    }
    size_t index(int row, int column) const
    {
        return size_t(row) * size_t(numOutputs) + size_t(column);
    }
    qsizetype cells() const { return qsizetype(std::max(numInputs, 0)) * std::max(numOutputs, 0); }
    void allocate()
    {
        gains.assign(size_t(cells()) + 1, 0.0f);
        hasGains = true;
    }
    void fillWithDefaults();
    void inferType();
};

void Route::Data::fillWithDefaults()
{
    if (!hasGains)
        return;
    std::fill(gains.begin(), gains.end(), 0.0f);
    const float *table = nullptr;
    if (type == Type::Output)
        table = Gains::outputMixerGains(numInputs, numOutputs, gains.data());
    else if (type == Type::Input)
        table = Gains::inputMixerGains(numInputs, numOutputs, gains.data());
    if (table && table != gains.data())
        std::copy(table, table + cells(), gains.begin());
}

void Route::Data::inferType()
{
    const bool input = inputDeviceChannels >= 1;
    const bool output = outputDeviceChannels >= 1;
    if (numAudioChannels >= 1)
        type = input ? Type::Input : output ? Type::Output : Type::NoType;
    else
        type = input && output ? Type::Loop : Type::NoType;
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
    if (input)
        route.inputDeviceChannels =
            int(std::min<unsigned>(input->numInputChannels(), mostChannels));
    if (output)
        route.outputDeviceChannels =
            int(std::min<unsigned>(output->numOutputChannels(), mostChannels));
    route.numAudioChannels = std::min(channels, mostChannels);
    if (type == Type::Output) {
        route.numInputs = route.numAudioChannels;
        route.numOutputs = route.outputDeviceChannels;
    } else if (type == Type::Input) {
        route.numInputs = route.inputDeviceChannels;
        route.numOutputs = route.numAudioChannels;
    }
    route.allocate();
    route.fillWithDefaults();
}

Route::Route(const QJsonObject &json) : d(new Data)
{
    for (const QString &key : {idKey, inputsKey, outputsKey, audioKey, gainsKey}) {
        if (!json.contains(key))
            return;
    }
    const int inputs = json.value(inputsKey).toInt(0);
    const int outputs = json.value(outputsKey).toInt(0);
    const int audio = json.value(audioKey).toInt(0);
    const int rows = inputs >= 1 ? inputs : audio;
    const int columns = outputs >= 1 ? outputs : audio;
    if (qint64(std::max(rows, 0)) * std::max(columns, 0) > mostStoredGains)
        return;

    Data &route = *d;
    route.type = fromTypeString(json.value(kindKey).toString());
    route.id = json.value(idKey).toString();
    route.inputDeviceChannels = inputs;
    route.outputDeviceChannels = outputs;
    route.numAudioChannels = audio;
    route.numInputs = std::max(rows, 0);
    route.numOutputs = std::max(columns, 0);
    route.allocate();
    if (route.type == Type::NoType)
        route.inferType();
    const QJsonArray gains = json.value(gainsKey).toArray();
    const qsizetype stored = std::min(gains.size(), route.cells());
    for (qsizetype i = 0; i < stored; ++i)
        route.gains[size_t(i)] = float(gains.at(i).toDouble(0.0));
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
    return d->hasGains;
}

bool Route::isActive() const
{
    return d->inputDeviceChannels + d->outputDeviceChannels > 0;
}

float Route::gain(int row, int column) const
{
    return d->contains(row, column) ? d->gains[d->index(row, column)] : 0.0f;
}

bool Route::setGain(int row, int column, float gain)
{
    Data &route = *d;
    if (!route.contains(row, column))
        return false;
    route.gains[route.index(row, column)] = gain;
    return true;
}

Route::operator const float *() const
{
    return d->hasGains ? d->gains.data() : nullptr;
}

void Route::reset()
{
    d->fillWithDefaults();
}

QJsonObject Route::toJson() const
{
    QJsonArray gains;
    for (qsizetype i = 0; i < (d->hasGains ? d->cells() : 0); ++i)
        gains.append(double(d->gains[size_t(i)]));
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
