// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_RECORDING_H
#define TOVELMIX_RECORDING_H

#include <tovelmix/live_status.h>
#include <tovelmix/meter_reading.h>
#include <tovelmix/raw_input.h>
#include <tovelmix/take.h>
#include <tovelmix/take_sink.h>

#include <mixer/engine.h>

#include <QtCore/QObject>

#include <memory>

namespace tovelmix {

/// One recording: an engine on the file backend, a sink that writes the take, both meters.
/// Lives on the main thread and needs its event loop: the backend's blocks are driven by it.
class Recording : public QObject, public LiveStatus
{
    Q_OBJECT

public:
    /// `input` must outlive the recording.
    Recording(const RawInput &input, qint64 wantedFrames, const QString &takePath);

    /// Starts; answers false, with the reason in `take().error`, when that is impossible.
    bool start();

    /// Ends early, with the take so far. `finished` follows.
    void finishEarly();

    qint64 recordedFrames() const { return m_progress.frames; }
    qint64 wantedFrames() const { return m_wantedFrames; }

    QString progress() const override;
    const std::vector<double> &levels() const override { return m_reading.levels(); }
    const std::vector<double> &holdLevels() const override { return m_reading.holdLevels(); }

    /// What became of it; complete after `finished`.
    const Take &take() const { return m_take; }

Q_SIGNALS:
    void finished();

private:
    bool openEngine();
    void startMeters();
    bool startSink();
    void readMeter();
    void onTakeDone();
    void onStopped();

    const RawInput &m_input;
    qint64 m_wantedFrames;
    WavWriter m_writer;
    TakeProgress m_progress;
    MeterReading m_reading;
    Take m_take;
    std::unique_ptr<QTovelMixer::Engine> m_engine; ///< dies first: it waits for the sink's worker
};

} // namespace tovelmix

#endif
