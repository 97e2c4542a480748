// SPDX-License-Identifier: MIT
#include <tovelmix/take.h>

#include <algorithm>
#include <cmath>

namespace tovelmix {

namespace {

QString loudness(double value)
{
    return value <= silenceDb ? QString("silence") : QString::number(value, 'f', 1) + " LUFS";
}

QString peak(double db, bool endsAtFullScale)
{
    if (db <= silenceDb)
        return "silence";
    if (endsAtFullScale && db >= 0.0)
        return "0.00 or more";
    return QString::number(db, 'f', 2);
}

} // namespace

qint64 framesOf(double seconds, int rate)
{
    return qint64(seconds * rate + 0.5);
}

short toSample16(float value)
{
    return std::isnan(value)
               ? short(0)
               : short(std::lround(std::clamp(value * 32768.0f, -32768.0f, 32767.0f)));
}

double decibels(double amplitude)
{
    return amplitude > 0.0 ? std::max(silenceDb, 20.0 * std::log10(amplitude)) : silenceDb;
}

QString channelCount(int channels)
{
    return channels == 1 ? QString("1 channel") : QString("%1 channels").arg(channels);
}

QString table(const Take &take)
{
    QString text;
    const auto row = [&text](const QString &name, const QString &value) {
        text += QString("%1  %2\n").arg(name, -22).arg(value);
    };
    row("frames", QString::number(take.frames));
    row("duration", QString::number(double(take.frames) / take.rate, 'f', 3) + " s");
    row("momentary loudness", QString("%1 at the end, highest %2")
                                  .arg(loudness(take.momentary), loudness(take.highestMomentary)));
    row("short-term loudness", QString("%1 at the end, highest %2")
                                   .arg(loudness(take.shortTerm), loudness(take.highestShortTerm)));
    text += QString("%1  %2  %3\n")
                .arg("channel", -22)
                .arg("sample peak, dBFS", 17)
                .arg("true peak, dBTP", 17);
    for (size_t c = 0; c < take.samplePeaks.size(); ++c) {
        text += QString("%1  %2  %3\n")
                    .arg(int(c) + 1, -22)
                    .arg(peak(decibels(double(take.samplePeaks[c])), false), 17)
                    .arg(peak(take.truePeakDb[c], true), 17);
    }
    text += "Sample peaks are those of all samples of the take. Loudness and true peaks are\n"
            "readings of the input meter. It measures whole blocks of 42 ms, so the last part\n"
            "of a block at the end of the take may be missing. The loudness windows are 0.4 s\n"
            "and 3 s long; time before the take counts as silence in them.\n";
    return text;
}

} // namespace tovelmix
