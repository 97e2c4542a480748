// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_STORE_ROUTE_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_STORE_ROUTE_FIXTURE_H

#include <mixer/store/route.h>

#include <support/test_api.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <vector>

/// A device that no backend owns.
struct Box : TestDevice
{
    Box(const QString &title, unsigned ins, unsigned outs) : TestDevice(nullptr)
    {
        deviceName = QStringLiteral("short name");
        fullDeviceName = title;
        inputs = ins;
        outputs = outs;
    }
};

using Gains = std::vector<float>;

/// A route's matrix, row by row.
inline Gains gainsOf(const QTovelMixer::Route &route)
{
    const float *gains = route;
    return gains ? Gains(gains, gains + route.numInputs() * route.numOutputs()) : Gains();
}

inline QJsonObject parsed(const char *text)
{
    return QJsonDocument::fromJson(text).object();
}

/// A route's JSON with these channel counts and no kind.
inline QJsonObject counts(const QJsonValue &inputs, const QJsonValue &outputs,
                          const QJsonValue &audio, const QJsonArray &gains = {})
{
    return {{"id", "x"},
            {"numInputChannels", inputs},
            {"numOutputChannels", outputs},
            {"numAudioChannels", audio},
            {"gains", gains}};
}

#endif
