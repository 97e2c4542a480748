// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_STORE_ROUTE_JSON_P_H
#define QTOVELMIXER_MIXER_STORE_ROUTE_JSON_P_H

#include <QtCore/QJsonObject>

namespace QTovelMixer {

/// What a route's JSON asks for, told without making the route.
struct RouteJson
{
    /// Gains of the matrix that the text does not name, so that they are 0: memory that it asks for
    /// beyond its own length. 0 for an object that gives no route.
    static qint64 unnamedGains(const QJsonObject &json);

    /// True when a named gain is too large for a float.
    static bool hasInfiniteGain(const QJsonObject &json);
};

} // namespace QTovelMixer

#endif
