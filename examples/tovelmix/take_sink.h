// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_TAKE_SINK_H
#define TOVELMIX_TAKE_SINK_H

#include <tovelmix/wav_writer.h>

#include <mixer/io/sink.h>

#include <QtCore/QSemaphore>

#include <atomic>
#include <vector>

namespace tovelmix {

/// What the sink's worker leaves behind; the sink itself dies with the recording. `frames` and
/// `done` may be read at any time, the rest after the engine's `stopped`.
struct TakeProgress
{
    std::atomic<qint64> frames = 0;
    std::atomic<bool> done = false; ///< whole, or the writer failed
    std::vector<float> samplePeaks; ///< linear, per channel
};

/// Writes the first `wantedFrames` frames that the mixer records.
class TakeSink : public QTovelMixer::Sink
{
    Q_OBJECT

public:
    /// Goes on after the frames that the progress counts already. The writer and the progress must
    /// outlive the sink.
    TakeSink(QTovelMixer::Engine *engine, int channels, int rate, qint64 wantedFrames,
             WavWriter &writer, TakeProgress &progress);

    /// Returns when the worker takes blocks. Between `Engine::start` and that moment no block
    /// must pass, or the take begins with silence. Answers false when the worker never came.
    bool waitUntilRecording();

    int numChannels() const override { return m_channels; }
    int sampleRate() const override { return m_rate; }
    void onRunStart() override { m_recording.release(); }
    void writeSamples(float *samples, int frames, int channels, double time) override;

Q_SIGNALS:
    /// Once, on the worker: the take is whole, or the writer failed.
    void takeDone();

private:
    int m_channels;
    int m_rate;
    qint64 m_wantedFrames;
    WavWriter &m_writer;
    TakeProgress &m_progress;
    QSemaphore m_recording;
};

} // namespace tovelmix

#endif
