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
/// Rows are what goes in (device inputs, or a source's channels), columns what comes out (a
/// sink's channels, or device outputs); gains are linear, in row-major order. An implicitly
/// shared value: a copy shares its record until one of the two changes.
/// Threads: a value belongs to one thread at a time.
class QTOVELMIXER_EXPORT Route
{
public:
    /// The empty route, which is not valid.
    Route();
    /// Device inputs (rows) into a sink of `channels` channels (columns), by the default matrix.
    /// Counts are capped at 32.
    Route(Device *input, int channels);
    /// A source of `channels` channels (rows) to device outputs (columns), by the default matrix.
    /// Counts are capped at 32.
    Route(int channels, Device *output);
    /// From one device to another; its matrix is 0 × 0.
    Route(Device *input, Device *output);
    /// Reads what `toJson` wrote, with the channel counts as they stand; a route between two
    /// devices then has a matrix of input × output channels. An object that lacks a key other
    /// than "kind", or has more than 2^20 gains, gives the empty route; a negative count acts
    /// as 0 for the matrix.
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

    /// The gain of a cell; 0.0 out of range.
    float gain(int row, int column) const;
    /// Sets a cell; false out of range.
    bool setGain(int row, int column, float gain);
    /// The whole matrix, `numInputs` × `numOutputs`; null for the empty route. Valid until the
    /// route changes.
    operator const float *() const;
    /// Back to the default matrix of the route's type.
    void reset();

    /// The keys "kind", "id", "numInputChannels", "numOutputChannels", "numAudioChannels", "gains".
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
