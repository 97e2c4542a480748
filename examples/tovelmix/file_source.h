// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_FILE_SOURCE_H
#define TOVELMIX_FILE_SOURCE_H

#include <tovelmix/sound_file.h>

#include <mixer/io/source.h>

#include <QtCore/QList>

#include <atomic>
#include <memory>
#include <vector>

namespace tovelmix {

/// Where and how a file is heard, in seconds.
struct Placement
{
    double start = 0.0;                   ///< on the mixer's timeline
    QTovelMixer::Range limits;            ///< part of the file; invalid: all of it
    QList<QTovelMixer::Range> selections; ///< parts inside it, one after the other; none: all of it
    bool loop = false;                    ///< again and again until `length`
    double length = -1.0; ///< of the source from 0 on, silence included; negative: until it ends
};

/// How far a file was read. Written by the source's worker, read on any thread.
struct Delivery
{
    explicit Delivery(int hz) : rate(hz) {}

    const int rate;                    ///< Hz
    std::atomic<qint64> frames{0};     ///< read so far, silence included
    std::atomic<bool> cutShort{false}; ///< the file stopped delivering before its end
};

/// Plays an audio file; before its start, and after its end up to the placement's length, silence.
class FileSource : public QTovelMixer::Source
{
    Q_OBJECT

public:
    /// `file` has no error.
    FileSource(QTovelMixer::Engine *engine, std::unique_ptr<SoundFile> file,
               const Placement &placement = {});
    ~FileSource() override;

    double contentStart() const override;
    double contentDuration() const override;
    bool acceptPause(QTovelMixer::PauseMode mode) override;
    int readSamples(float *buffer, int frames, int channels, double time) override;

    /// Outlives the source. Any thread.
    std::shared_ptr<const Delivery> delivery() const { return m_delivery; }

private:
    struct Part
    {
        qint64 first;
        qint64 count;
    };

    qint64 framesAt(double seconds) const;
    void addPart(const QTovelMixer::Range &range);
    void readMaterial(float *buffer, qint64 first, qint64 count, int channels);

    std::unique_ptr<SoundFile> m_file;
    std::vector<Part> m_parts; ///< frames of the file, in the order heard
    qint64 m_materialFrames = 0;
    qint64 m_startFrame = 0;
    qint64 m_endFrame = 0;
    bool m_loop = false;
    std::shared_ptr<Delivery> m_delivery;
};

} // namespace tovelmix

#endif
