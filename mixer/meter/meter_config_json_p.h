// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_CONFIG_JSON_P_H
#define QTOVELMIXER_MIXER_METER_METER_CONFIG_JSON_P_H

#include <QtCore/QJsonObject>

namespace QTovelMixer {

/// What a meter configuration's JSON asks for, told without making the configuration.
struct MeterConfigJson
{
    /// Flags that the text does not name, so that they are false. 0 for an object that gives no
    /// configuration.
    static qint64 unnamedFlags(const QJsonObject &json);
};

} // namespace QTovelMixer

#endif
