// SPDX-License-Identifier: MIT
#include <tovelmix/session_file.h>

#include <tovelmix/printable.h>
#include <tovelmix/take.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <cmath>

namespace tovelmix {

using QTovelMixer::Range;

namespace {

using Look = std::function<SoundFacts(const QString &)>;

SoundFacts lookAt(const QString &path)
{
    const SoundFile sound(path);
    if (!sound.error().isEmpty())
        return {.error = sound.error()};
    return {.channels = sound.channels(), .rate = sound.rate(), .frames = sound.frames()};
}

constexpr double longestSession = 24.0 * 3600.0; // s
constexpr double largestGain = 1000.0;

/// Reads keys of one object; the first complaint stays.
class Reader
{
public:
    Reader(const QJsonObject &object, const QString &where, QString &error)
        : m_object(object), m_where(where), m_error(error)
    {}

    void allow(const QStringList &keys)
    {
        for (const QString &key : m_object.keys()) {
            if (!keys.contains(key))
                complain(key, "is unknown");
        }
    }
    bool has(const char *key) const { return m_object.contains(QLatin1String(key)); }
    QJsonValue value(const char *key) const { return m_object.value(QLatin1String(key)); }

    double number(const char *key, double least, double most, double otherwise)
    {
        if (!has(key))
            return otherwise;
        const double number = value(key).toDouble(NAN);
        if (number >= least && number <= most)
            return number;
        complain(key, QString("must be a number from %1 to %2").arg(least).arg(most));
        return otherwise;
    }
    int whole(const char *key, int least, int most, int otherwise)
    {
        const double value = number(key, least, most, otherwise);
        if (value != std::floor(value))
            complain(key, "must be a whole number");
        return int(value);
    }
    bool flag(const char *key)
    {
        if (has(key) && !value(key).isBool())
            complain(key, "must be true or false");
        return value(key).toBool();
    }
    Range range(const char *key, const QJsonValue &value)
    {
        const QJsonArray pair = value.toArray();
        const Range range{pair.at(0).toDouble(-1.0), pair.at(1).toDouble(-1.0)};
        if (pair.size() != 2 || !range.isValid())
            complain(key, "must be two times in seconds, the first one the smaller");
        return range;
    }
    QJsonArray list(const char *key)
    {
        if (has(key) && !value(key).isArray())
            complain(key, "must be a list");
        return value(key).toArray();
    }
    void complain(const QString &key, const QString &reason)
    {
        if (m_error.isEmpty())
            m_error = printable(QString("%1: '%2' %3").arg(m_where, key, reason));
    }

private:
    QJsonObject m_object;
    QString m_where;
    QString &m_error;
};

QList<RouteCell> readRoute(Reader &reader, int fileChannels, int mixChannels)
{
    QList<RouteCell> route;
    for (const QJsonValue entry : reader.list("route")) {
        const QJsonArray cell = entry.toArray();
        const RouteCell read{cell.at(0).toInt(), cell.at(1).toInt(),
                             float(cell.at(2).toDouble(1.0))};
        const bool fits = (cell.size() == 2 || (cell.size() == 3 && cell.at(2).isDouble())) &&
                          read.from >= 1 && read.from <= fileChannels && read.to >= 1 &&
                          read.to <= mixChannels && std::abs(read.gain) <= float(largestGain);
        if (!fits)
            reader.complain("route", QString("must hold [channel of the file (1 to %1), channel of "
                                             "the mix (1 to %2), gain]")
                                         .arg(fileChannels)
                                         .arg(mixChannels));
        route.append(read);
    }
    return route;
}

quint64 readMask(Reader &reader, int fileChannels)
{
    if (!reader.has("channels"))
        return ~quint64{0};
    quint64 mask = 0;
    for (const QJsonValue entry : reader.list("channels")) {
        const int channel = entry.toInt();
        if (channel < 1 || channel > std::min(fileChannels, 32))
            reader.complain(
                "channels",
                QString("must hold channels of the file, 1 to %1").arg(std::min(fileChannels, 32)));
        else
            mask |= quint64{1} << (channel - 1);
    }
    return mask;
}

void readParts(Reader &reader, double fileLength, Placement &placement)
{
    const Range all{0.0, fileLength};
    if (reader.has("limits")) {
        placement.limits = reader.range("limits", reader.value("limits"));
        if (placement.limits.end > fileLength)
            reader.complain("limits", QString("end at %1 s, beyond the end of the file at %2 s")
                                          .arg(placement.limits.end)
                                          .arg(fileLength));
    }
    const Range limits = placement.limits.isValid() ? placement.limits : all;
    for (const QJsonValue entry : reader.list("selections")) {
        const Range selection = reader.range("selections", entry);
        if (selection.start < limits.start || selection.end > limits.end)
            reader.complain(
                "selections",
                QString("must lie within %1 s and %2 s").arg(limits.start).arg(limits.end));
        placement.selections.append(selection);
    }
}

/// A name without a folder: a session from elsewhere must not choose where this machine is written.
QString readRecord(Reader &reader, const SessionFile &session)
{
    if (!reader.has("record"))
        return {};
    const QString name = reader.value("record").toString();
    const bool audio =
        name.endsWith(".wav", Qt::CaseInsensitive) || name.endsWith(".flac", Qt::CaseInsensitive);
    const bool plain =
        !name.startsWith('.') && std::none_of(name.begin(), name.end(), [](QChar letter) {
            return QString("/\\:").contains(letter) || isControl(letter);
        });
    if (!audio || !plain)
        reader.complain("record", "must be a name ending in .wav or .flac, without a folder");
    for (const Track &track : session.tracks) {
        if (track.record.compare(name, Qt::CaseInsensitive) == 0)
            reader.complain("record", "names a file that another one records to");
    }
    return name;
}

double partsLength(const Placement &placement, double fileLength)
{
    double sum = 0.0;
    for (const Range &selection : placement.selections)
        sum += selection.end - selection.start;
    if (!placement.selections.isEmpty())
        return sum;
    return placement.limits.isValid() ? placement.limits.end - placement.limits.start : fileLength;
}

/// Answers the channels of the file.
int readTrack(const QString &path, const Look &look, int index, const QJsonValue &value,
              SessionFile &session, double &end)
{
    const QString where = QString("%1: files[%2]").arg(path, QString::number(index));
    Reader reader(value.toObject(), where, session.error);
    if (!value.isObject() || !reader.value("file").isString()) {
        reader.complain("file", "must name an audio file");
        return 0;
    }
    reader.allow(
        {"file", "gain", "start", "channels", "route", "loop", "limits", "selections", "record"});
    Track track;
    track.file = QFileInfo(path).dir().absoluteFilePath(reader.value("file").toString());
    const SoundFacts sound = look(track.file);
    if (!sound.error.isEmpty()) {
        reader.complain("file", sound.error);
        return 0;
    }
    const double fileLength = double(sound.frames) / sound.rate;
    track.gain = float(reader.number("gain", -largestGain, largestGain, 1.0));
    track.placement.start = reader.number("start", 0.0, longestSession, 0.0);
    track.placement.loop = reader.flag("loop");
    track.channelMask = readMask(reader, sound.channels);
    track.route = readRoute(reader, sound.channels, session.channels);
    track.record = readRecord(reader, session);
    readParts(reader, fileLength, track.placement);
    end = std::max(end, track.placement.start + partsLength(track.placement, fileLength));
    session.tracks.append(track);
    return sound.channels;
}

void readTracks(const QString &path, const Look &look, Reader &reader, SessionFile &session)
{
    const QJsonArray files = reader.list("files");
    if (files.isEmpty())
        reader.complain("files", "must list at least one file");
    int channels = 0;
    double end = 0.0;
    for (int i = 0; i < files.size() && session.error.isEmpty(); ++i) {
        channels += readTrack(path, look, i, files.at(i), session, end);
        if (channels > maxChannels)
            reader.complain(
                "files",
                QString("have %1 channels in sum, more than %2").arg(channels).arg(maxChannels));
    }
    session.length = reader.number("length", 0.0, longestSession, std::min(end, longestSession));
    if (std::llround(session.length * session.rate) < 1)
        reader.complain("length", "must be at least one frame");
}

} // namespace

SessionFile readSession(const QString &path)
{
    SessionFile session;
    // Of anything else, a pipe for example, nobody knows whether its text ever comes.
    if (const QFileInfo info(path); info.exists() && !info.isFile()) {
        session.error = QString("cannot read '%1': it is not a file").arg(path);
        return session;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        session.error = QString("cannot read '%1': %2").arg(path, file.errorString());
        return session;
    }
    const QByteArray text = file.read(mostSessionBytes + 1);
    if (text.size() > mostSessionBytes) {
        session.error = QString("%1: no session: more than %2 bytes")
                            .arg(path, QString::number(mostSessionBytes));
        return session;
    }
    return parseSession(text, path, lookAt);
}

SessionFile parseSession(const QByteArray &text, const QString &path, const Look &look)
{
    SessionFile session;
    QJsonParseError parsing;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parsing);
    if (!document.isObject()) {
        session.error =
            QString("%1: no session: %2")
                .arg(path, document.isNull() ? parsing.errorString() : QString("not an object"));
        return session;
    }
    Reader reader(document.object(), path, session.error);
    reader.allow({"files", "rate", "channels", "gain", "length"});
    session.rate = reader.whole("rate", 8000, 192000, session.rate);
    session.channels = reader.whole("channels", 1, maxChannels, session.channels);
    session.masterGain = float(reader.number("gain", -largestGain, largestGain, 1.0));
    readTracks(path, look, reader, session);
    return session;
}

} // namespace tovelmix
