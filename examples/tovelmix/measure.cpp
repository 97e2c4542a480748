// SPDX-License-Identifier: MIT
#include <tovelmix/measure.h>

#include <tovelmix/printable.h>
#include <tovelmix/sound_file.h>
#include <tovelmix/take.h>

#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

#include <algorithm>
#include <cmath>
#include <vector>

namespace tovelmix {

using namespace QTovelMixer;

namespace {

constexpr double silence = -120.0;
constexpr int overSamples = 3; // fewer may be a limiter's work
constexpr double largest16Bit = 32767.0 / 32768.0;

/// One decimal, and never "-0.0".
QString tenths(double value)
{
    return QString::number(std::round(value * 10.0) / 10.0 + 0.0, 'f', 1);
}

QString level(double value, const char *unit)
{
    return value <= silence ? QString("silence") : tenths(value) + ' ' + unit;
}

QString place(double seconds)
{
    return QString(" at %1 s").arg(seconds, 0, 'f', 2);
}

qint64 oversOf(const PeakReading &peaks)
{
    qint64 overs = 0;
    for (const ChannelPeaks &channel : peaks.channels)
        overs += channel.overs;
    return overs;
}

double samplePeakOf(const PeakReading &peaks)
{
    double peak = 0.0;
    for (const ChannelPeaks &channel : peaks.channels)
        peak = std::max(peak, channel.maxLevel);
    return PeakReading::decibels(peak);
}

const char *nameOf(LoudnessFigure figure)
{
    switch (figure) {
    case LoudnessFigure::IntegratedLoudness:
        return "integrated";
    case LoudnessFigure::MaxShortTerm:
        return "maxShortTerm";
    case LoudnessFigure::MaxTruePeak:
        return "maxTruePeak";
    }
    return "";
}

QString wordsOf(const LoudnessMiss &miss)
{
    const bool isPeak = miss.figure == LoudnessFigure::MaxTruePeak;
    const char *const unit = isPeak ? "dBTP" : "LUFS";
    const char *const figure = miss.figure == LoudnessFigure::IntegratedLoudness ? "integrated"
                               : isPeak                                          ? "true peak"
                                                                                 : "short-term";
    return QString("%1 %2, wanted %3 %4")
        .arg(figure, level(miss.value, unit), miss.value > miss.limit ? "at most" : "at least",
             level(miss.limit, unit));
}

QString verdict(const Measurement &measurement, const LoudnessTarget &target)
{
    QStringList misses;
    for (const LoudnessMiss &miss : target.misses(measurement.loudness))
        misses.append(wordsOf(miss));
    const QString name = target.document.isEmpty()
                             ? target.title
                             : QString("%1, %2").arg(target.document, target.date);
    return QString("  %1 (%2): %3\n")
        .arg(target.name, name, misses.isEmpty() ? "met" : "missed: " + misses.join("; "));
}

/// JSON knows no silence.
QJsonValue number(double value)
{
    return value <= silence ? QJsonValue() : QJsonValue(value);
}

QJsonObject figures(const Measurement &measurement)
{
    const LoudnessReading &loudness = measurement.loudness;
    QJsonArray channels;
    for (const ChannelPeaks &peaks : measurement.peaks.channels)
        channels.append(QJsonObject{{"samplePeak", number(PeakReading::decibels(peaks.maxLevel))},
                                    {"samplePeakTime", peaks.maxLevelTime},
                                    {"truePeak", number(PeakReading::decibels(peaks.maxTruePeak))},
                                    {"overs", peaks.overs}});
    return {{"file", measurement.path},
            {"sampleRate", measurement.rate},
            {"channels", measurement.channels},
            {"seconds", double(measurement.frames) / measurement.rate},
            {"integrated", number(loudness.integrated)},
            {"range", loudness.range},
            {"maxMomentary", number(loudness.maxMomentary)},
            {"maxMomentaryTime", loudness.maxMomentaryTime},
            {"maxShortTerm", number(loudness.maxShortTerm)},
            {"maxShortTermTime", loudness.maxShortTermTime},
            {"maxTruePeak", number(loudness.maxTruePeak)},
            {"maxTruePeakTime", loudness.maxTruePeakTime},
            {"peakToLoudness", loudness.peakToLoudness},
            {"peaks", channels}};
}

} // namespace

Measurement measureFile(const QString &path, const ChannelLayout &layout)
{
    SoundFile file(path);
    Measurement result{path, file.error(), file.rate(), file.channels(), file.frames(), {}, {}};
    if (!result.error.isEmpty())
        return result;
    if (layout.isKnown() && layout.count() != result.channels) {
        result.error =
            QString("'%1' has %2 channels, the layout has %3")
                .arg(path, QString::number(result.channels), QString::number(layout.count()));
        return result;
    }
    Meter meter(Type::Output, result.rate, result.channels, MeterConfig());
    meter.setLayout(layout);
    meter.setTruePeakEnabled(true);
    meter.setOverRule(overSamples, largest16Bit);
    meter.startMeasurement();
    constexpr int blockFrames = 16384;
    std::vector<float> block(size_t(blockFrames) * size_t(result.channels));
    for (qint64 done = 0; done < result.frames;) {
        const qint64 got = file.read(block.data(), done, blockFrames);
        if (got < 1) {
            result.error =
                QString("cannot read '%1' beyond frame %2").arg(path, QString::number(done));
            return result;
        }
        meter.updateStatistics(block.data(), int(got));
        done += got;
    }
    result.loudness = meter.loudness();
    meter.getPeaks(result.peaks);
    return result;
}

bool meets(const Measurement &measurement, const LoudnessTarget *target)
{
    return !target || target->misses(measurement.loudness).empty();
}

QString table(const Measurement &measurement, const LoudnessTarget *target)
{
    const LoudnessReading &loudness = measurement.loudness;
    const auto line = [](const char *name, const QString &value) {
        return QString("  %1 %2\n").arg(name, -18).arg(value);
    };
    const double seconds = double(measurement.frames) / measurement.rate;
    QString text = QString("%1: %2 Hz, %3, %4 s\n")
                       .arg(printable(measurement.path), QString::number(measurement.rate),
                            channelCount(measurement.channels), QString::number(seconds, 'f', 2));
    text += line("integrated", level(loudness.integrated, "LUFS"));
    text += line("range", tenths(loudness.range) + " LU");
    text += line("largest momentary",
                 level(loudness.maxMomentary, "LUFS") + place(loudness.maxMomentaryTime));
    text += line("largest short-term",
                 level(loudness.maxShortTerm, "LUFS") + place(loudness.maxShortTermTime));
    text +=
        line("true peak", level(loudness.maxTruePeak, "dBTP") + place(loudness.maxTruePeakTime));
    text += line("sample peak", level(samplePeakOf(measurement.peaks), "dBFS"));
    text += line("peak to loudness", tenths(loudness.peakToLoudness) + " LU");
    text += line("overs", QString::number(oversOf(measurement.peaks)));
    return target ? text + verdict(measurement, *target) : text;
}

QByteArray json(const QList<Measurement> &measurements, const LoudnessTarget *target)
{
    QJsonArray all;
    for (const Measurement &measurement : measurements) {
        QJsonObject object = figures(measurement);
        if (target) {
            QJsonArray misses;
            for (const LoudnessMiss &miss : target->misses(measurement.loudness))
                misses.append(QJsonObject{{"figure", nameOf(miss.figure)},
                                          {"value", number(miss.value)},
                                          {"limit", miss.limit}});
            object.insert("target", target->name);
            object.insert("met", misses.isEmpty());
            object.insert("misses", misses);
        }
        all.append(object);
    }
    return printable(QJsonDocument(all), QJsonDocument::Indented);
}

} // namespace tovelmix
