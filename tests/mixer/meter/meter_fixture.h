// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_METER_METER_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_METER_METER_FIXTURE_H

#include <mixer/aligned_vector.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_values.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <cmath>
#include <memory>
#include <vector>

/// Ends a meter the way the engine does, and its thread object with it.
struct MeterEnd
{
    void operator()(QTovelMixer::Meter *meter) const
    {
        QThread *const thread = meter->thread();
        meter->aboutToQuit();
        thread->wait();
        QCoreApplication::sendPostedEvents(thread, QEvent::DeferredDelete);
    }
};
template <typename T = QTovelMixer::Meter>
using MeterPointer = std::unique_ptr<T, MeterEnd>;

inline MeterPointer<> makeMeter(int channels, int sampleRate = 48000,
                                const QTovelMixer::MeterConfig &config = {})
{
    return MeterPointer<>(
        new QTovelMixer::Meter(QTovelMixer::Type::Input, sampleRate, channels, config, nullptr));
}

/// Counts a meter's signals on the thread of the test.
class MeterSignals : public QObject
{
public:
    explicit MeterSignals(QTovelMixer::Meter *meter)
    {
        using QTovelMixer::Meter;
        connect(meter, &Meter::meterStarted, this, [this] { ++started; });
        connect(meter, &Meter::meterValuesChanged, this, [this] { ++changed; });
        connect(meter, &Meter::meterStoped, this, [this] { ++stopped; });
    }

    /// Takes what the meter's thread has emitted so far.
    void collect() { QCoreApplication::sendPostedEvents(this); }

    int started = 0;
    int changed = 0;
    int stopped = 0;
};

/// A configuration with these flags, of which there may be more than a device gives.
inline QTovelMixer::MeterConfig configOf(const std::vector<bool> &flags)
{
    QJsonArray meters;
    for (const bool flag : flags)
        meters.append(flag);
    return QTovelMixer::MeterConfig(
        QJsonObject{{"id", "test"}, {"numMeters", int(flags.size())}, {"meters", meters}});
}

/// Interleaved frames in which each channel stays at its own value.
inline std::vector<float> constantFrames(const std::vector<float> &values, int count)
{
    std::vector<float> samples;
    for (int frame = 0; frame < count; ++frame)
        samples.insert(samples.end(), values.begin(), values.end());
    return samples;
}

using Block = QTovelMixer::aligned_vector<float, 16>;

constexpr int blockFrames = 2016; // one measured block at 48000 Hz

/// A block to feed, every sample at the same value.
inline Block blockOf(int channels, float value, int count = blockFrames)
{
    Block block(size_t(channels) * size_t(count));
    block = value;
    return block;
}

/// Measures one such block of an idle meter on the thread of the test.
inline void measure(QTovelMixer::Meter &meter, const std::vector<float> &values,
                    int count = blockFrames)
{
    meter.updateStatistics(constantFrames(values, count).data(), count);
}

inline QTovelMixer::MeterValues valuesOf(const QTovelMixer::Meter &meter)
{
    QTovelMixer::MeterValues values;
    meter.getValues(values);
    return values;
}

/// The amplitude behind a reading in dB.
inline double linear(double decibels)
{
    return std::pow(10.0, decibels / 20.0);
}

#endif
