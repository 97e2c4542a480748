// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_RENDER_H
#define TOVELMIX_RENDER_H

#include <tovelmix/mix_writer.h>
#include <tovelmix/outcome.h>
#include <tovelmix/picture.h>
#include <tovelmix/session_file.h>
#include <tovelmix/stem_sink.h>

#include <dsp/statistics.h>
#include <mixer/engine.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>

#include <atomic>
#include <memory>
#include <vector>

class QTovelMixerApiVirtual;

namespace tovelmix {

/// Mixes a session into a file, as fast as it goes.
class Rendering : public QObject
{
    Q_OBJECT

public:
    /// The files of a rendering.
    struct Files
    {
        QString session;
        QString mix;
        QString picture;    ///< empty for none
        bool force = false; ///< inputs and older recordings may be replaced
    };

    explicit Rendering(const Files &files);
    ~Rendering() override;

    /// Errors: false; the outcome says why, and nothing was written.
    bool start();
    /// Ends without a file.
    void interrupt();

    const Outcome &outcome() const;
    /// One line: how far it is, and how fast.
    QString progress() const;
    /// The figures of the whole mix, for people or for machines.
    QString table() const;
    QByteArray json() const;

Q_SIGNALS:
    void finished();

private:
    struct Measures; ///< of what was written

    bool fail(ExitStatus status, const QString &line);
    bool checkOutputs();
    QString stemPath(const Track &track) const;
    bool openOutputs();
    bool openEngine();
    bool addTrack(const Track &track);
    bool addStem(const Track &track, FileSource *source);
    void take(const float *samples, unsigned frames);
    void completeWhenWritten();
    /// A source left the mix, which none does before the end.
    void completeEarly();
    void complete();
    bool checkDeliveries();
    bool commit();
    double speed() const;

    Files m_files;
    SessionFile m_session;
    qint64 m_wantedFrames = 0;
    Outcome m_outcome;
    bool m_over = false;
    QElapsedTimer m_clock;
    double m_seconds = 0.0; ///< that the rendering took
    std::unique_ptr<MixWriter> m_writer;
    std::unique_ptr<Measures> m_measures;
    std::unique_ptr<Picture> m_picture; ///< null without one
    struct Stem
    {
        std::unique_ptr<MixWriter> writer;
        StemSink *sink; ///< the engine's
        QString path;
    };
    std::vector<Stem> m_stems;
    std::vector<std::shared_ptr<const Delivery>> m_deliveries; ///< one per track
    std::atomic<qint64> m_frames{0};
    std::atomic<bool> m_ended{false}; ///< nothing more is taken
    // Goes first: its thread uses what stands above.
    std::unique_ptr<QTovelMixer::Engine> m_engine;
};

} // namespace tovelmix

#endif
