// SPDX-License-Identifier: MIT
#include <tovelmix/playback.h>

#include <tovelmix/file_source.h>
#include <tovelmix/take.h>

#include <algorithm>

namespace tovelmix {

using QTovelMixer::Source;

namespace {

// On top of the latency that is known, seconds: a sound server keeps a little for itself.
constexpr double margin = 0.1;

} // namespace

Playback::Playback(const DeviceOptions &options, const QStringList &paths)
    : LiveCommand(options, PlayingSide), m_paths(paths)
{}

bool Playback::prepare()
{
    int channels = 0;
    for (const QString &path : m_paths) {
        const SoundFile file(path);
        if (!file.error().isEmpty())
            return fail(Failed, file.error());
        m_length = std::max(m_length, double(file.frames()) / file.rate());
        channels += file.channels();
    }
    if (channels > maxChannels)
        return fail(Failed, QString("the files have %1 channels, more than the mixer's %2")
                                .arg(channels)
                                .arg(maxChannels));
    if (options().seconds > 0.0)
        m_length = std::min(m_length, options().seconds);
    return true;
}

bool Playback::attach()
{
    const double latency =
        outputLatency() + 2.0 * engine().bufferFrames() / engine().sampleRate() + margin;
    // The device is stopped without being drained, so silence follows until the end is heard.
    const double end = m_length + latency;
    for (const QString &path : m_paths) {
        auto file = std::make_unique<SoundFile>(path);
        if (!file->error().isEmpty())
            return fail(Failed, file->error());
        Placement placement;
        placement.limits = {0.0, std::min(m_length, double(file->frames()) / file->rate())};
        placement.length = end;
        auto *source = new FileSource(&engine(), std::move(file), placement);
        // The range, not the timeline, lets it begin where another device was lost.
        source->setRange({m_position, end});
        connect(source, &Source::sourceFinished, this, [this, path](const auto &finished) {
            const auto *played = qobject_cast<FileSource *>(finished.data());
            if (played && played->delivery()->cutShort)
                fail(Failed, QString("'%1' cannot be read to its end").arg(path));
        });
        if (!engine().addSource(source)) {
            delete source;
            return fail(Failed, QString("the mixer refuses '%1'").arg(path));
        }
    }
    return engine().start() || fail(Failed, "the mixer does not start");
}

double Playback::position() const
{
    return std::min(m_length, m_position + attachedTime());
}

void Playback::onDetached(double seconds)
{
    m_position = std::min(m_length, m_position + seconds);
}

bool Playback::isComplete() const
{
    return m_position >= m_length;
}

QString Playback::progress() const
{
    return QString("played %1 s of %2 s").arg(position(), 0, 'f', 1).arg(m_length, 0, 'f', 1);
}

QString Playback::place() const
{
    return QString("at %1 s").arg(m_position, 0, 'f', 1);
}

} // namespace tovelmix
