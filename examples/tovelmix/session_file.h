// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_SESSION_FILE_H
#define TOVELMIX_SESSION_FILE_H

#include <tovelmix/file_source.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <functional>

namespace tovelmix {

/// A gain from a channel of a file to a channel of the mix, both counted from 1.
struct RouteCell
{
    int from = 1;
    int to = 1;
    float gain = 1.0f; ///< linear
};

/// One file of a session.
struct Track
{
    QString file; ///< as a path that can be opened
    float gain = 1.0f;
    quint64 channelMask = ~quint64{0};
    QList<RouteCell> route; ///< empty: as the mixer wires files by itself
    Placement placement;
    QString record; ///< name of the file that records what is played of this one; empty for none
};

/// A session as docs/session-format.md describes it, read and checked, also against its files.
struct SessionFile
{
    int rate = 48000; ///< Hz
    int channels = 2;
    float masterGain = 1.0f;
    double length = 0.0; ///< seconds; found from the files when the session does not say
    QList<Track> tracks;
    QString error; ///< one line that names file and key; empty when all is in order
};

/// What a session is checked against of an audio file.
struct SoundFacts
{
    int channels = 0;
    int rate = 0; ///< Hz
    qint64 frames = 0;
    QString error = {}; ///< as `SoundFile::error`
};

/// Largest session file that is read.
inline constexpr qint64 mostSessionBytes = qint64{1} << 24;

SessionFile readSession(const QString &path);

/// Reads the text of a session that lies at `path`, where its files are looked for; `look` tells
/// about each of them.
SessionFile parseSession(const QByteArray &text, const QString &path,
                         const std::function<SoundFacts(const QString &)> &look);

} // namespace tovelmix

#endif
