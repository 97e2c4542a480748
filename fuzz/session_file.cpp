// SPDX-License-Identifier: MIT
// Session files from anybody: what is accepted keeps every bound that the rendering relies on, what
// is not is refused with one line.
#include <tovelmix/session_file.h>

#include "require.h"

#include <QtCore/QSet>

#include <algorithm>
#include <cmath>
#include <cstdint>

using namespace tovelmix;

namespace {

/// Audio files that are as their names say.
SoundFacts factsOf(const QString &path)
{
    const QString name = path.section('/', -1);
    const ushort code = name.isEmpty() ? ushort('!') : name.front().unicode();
    if (code == '!')
        return {.error = QString("cannot read '%1': it is not a file").arg(path)};
    static constexpr int rates[] = {8000, 44100, 48000, 192000};
    return {.channels = 1 + code % 128, .rate = rates[code % 4], .frames = 1 + name.size() * 4800};
}

bool isOneLine(const QString &text)
{
    return std::none_of(text.begin(), text.end(), [](QChar letter) {
        return letter.category() == QChar::Other_Control ||
               letter.category() == QChar::Separator_Line ||
               letter.category() == QChar::Separator_Paragraph;
    });
}

void checkRoute(const Track &track, int fileChannels, int mixChannels)
{
    for (const RouteCell &cell : track.route) {
        Fuzz::require(cell.from >= 1 && cell.from <= fileChannels && cell.to >= 1 &&
                          cell.to <= mixChannels,
                      "routes lie within the channels");
        Fuzz::require(std::abs(cell.gain) <= 1000.0F, "gains are at most 1000");
    }
}

void checkPlacement(const Placement &placement, double fileLength)
{
    Fuzz::require(placement.start >= 0.0 && placement.start <= 86400.0, "starts lie within a day");
    const bool limited = placement.limits.isValid();
    const double start = limited ? placement.limits.start : 0.0;
    const double end = limited ? placement.limits.end : fileLength;
    Fuzz::require(start >= 0.0 && start < end && end <= fileLength, "limits lie within the file");
    for (const QTovelMixer::Range &selection : placement.selections) {
        Fuzz::require(selection.isValid() && selection.start >= start && selection.end <= end,
                      "selections lie within the limits");
    }
}

void checkSession(const SessionFile &session)
{
    Fuzz::require(session.rate >= 8000 && session.rate <= 192000, "the rate is in range");
    Fuzz::require(session.channels >= 1 && session.channels <= 128, "the channels are in range");
    Fuzz::require(std::abs(session.masterGain) <= 1000.0F, "the gain is in range");
    Fuzz::require(session.length <= 86400.0 && std::llround(session.length * session.rate) >= 1,
                  "the length is in range");
    Fuzz::require(!session.tracks.isEmpty(), "there are files");
    int channels = 0;
    QSet<QString> records;
    for (const Track &track : session.tracks) {
        const SoundFacts facts = factsOf(track.file);
        channels += facts.channels;
        Fuzz::require(facts.error.isEmpty(), "every file can be read");
        Fuzz::require(std::abs(track.gain) <= 1000.0F, "gains are in range");
        checkRoute(track, facts.channels, session.channels);
        checkPlacement(track.placement, double(facts.frames) / facts.rate);
        if (track.record.isEmpty())
            continue;
        Fuzz::require(isOneLine(track.record) && !track.record.contains('/') &&
                          !track.record.contains('\\') && !track.record.startsWith('.'),
                      "records have plain names");
        Fuzz::require(!records.contains(track.record.toCaseFolded()), "records differ in names");
        records.insert(track.record.toCaseFolded());
    }
    Fuzz::require(channels <= 128, "the files have at most 128 channels");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto text =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    const SessionFile session = parseSession(text, "/a %1 b/session %2.json", factsOf);
    if (session.error.isEmpty()) {
        checkSession(session);
        return 0;
    }
    Fuzz::require(session.error.startsWith("/a %1 b/session %2.json: "),
                  "a complaint names the session");
    Fuzz::require(isOneLine(session.error), "a complaint is one line");
    return 0;
}
