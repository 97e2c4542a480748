// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_STORE_ROUTE_H
#define QTOVELMIXER_MIXER_STORE_ROUTE_H

#include <base/export.h>
#include <mixer/types.h>

#include <QtCore/QJsonObject>
#include <QtCore/QSharedDataPointer>
#include <QtCore/QString>

namespace QTovelMixer {

/// A remembered gain matrix between one side of a device and the channels of a source or sink.
/// Rows are what goes in (device inputs, or a source's channels), columns what comes out (a sink's
/// channels, or device outputs); gains are linear, row-major. An implicitly shared value: a copy
/// shares its record until one of the two changes.
///
/// Threads: any, one at a time per value; copies are independent of each other.
class QTOVELMIXER_EXPORT Route
{
public:
    /// The empty route, which is not valid.
    Route();

    /// From the inputs of a device (rows, none for null) to a sink of `channels` channels
    /// (columns), by the default matrix. Both counts are capped at 32.
    Route(Device *input, int channels);

    /// From a source of `channels` channels (rows) to the outputs of a device (columns, none for
    /// null), by the default matrix. Both counts are capped at 32.
    Route(int channels, Device *output);

    /// From one device to another; the matrix is 0 × 0.
    Route(Device *input, Device *output);

    /// Reads what `toJson` wrote, with the channel counts as they stand: the matrix has
    /// "numInputChannels" rows and "numOutputChannels" columns, "numAudioChannels" standing in for
    /// a count below 1. So a route between two devices has gains here. Without a known "kind" the
    /// type follows from the counts. Gains that are missing are 0.0, those beyond the matrix are
    /// left out.
    /// Errors: the empty route without one of the keys other than "kind", with more than 2^20
    /// gains, or with one that no float can hold.
    explicit Route(const QJsonObject &json);

    Route(const Route &other);
    Route &operator=(const Route &other);
    virtual ~Route();

    /// `Type::Input`, `Type::Output` or `Type::Loop`; `Type::NoType` when unknown.
    Type type() const;
    /// The key under which the store keeps the route.
    QString routeId() const;
    /// Rows of the matrix.
    int numInputs() const;
    /// Columns of the matrix.
    int numOutputs() const;
    /// True when the route has a matrix, be it one without cells.
    bool isValid() const;
    /// True when a device with channels takes part.
    bool isActive() const;

    /// The gain of a cell. Errors: 0.0 out of range.
    float gain(int row, int column) const;
    /// Sets the gain of a cell. Errors: false out of range.
    bool setGain(int row, int column, float gain);
    /// The whole matrix; null for the empty route only. Valid until the route changes.
    operator const float *() const;
    /// Back to the default matrix of the type; zeros for types that have none.
    void reset();

    /// An object with "kind", "id", "numInputChannels", "numOutputChannels", "numAudioChannels" and
    /// "gains". A gain that is not finite comes back as 0.0.
    QJsonObject toJson() const;

    /// What is given, joined by "_to_": the input device's full name, "AudioWithNChannels" unless
    /// `channels` is 0, the output device's full name.
    static QString makeRouteId(Device *input, int channels, Device *output);

private:
    struct Data;

    Route(Type type, Device *input, int channels, Device *output);

    QSharedDataPointer<Data> d;
};

} // namespace QTovelMixer

#endif
