// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_STEM_SINK_H
#define TOVELMIX_STEM_SINK_H

#include <tovelmix/mix_writer.h>

#include <mixer/io/sink.h>

#include <atomic>

namespace tovelmix {

/// Records what the mixer plays of one file, frame by frame from the beginning of the mix, into a
/// file of its own.
class StemSink : public QTovelMixer::Sink
{
    Q_OBJECT

public:
    /// The writer must outlive the sink.
    StemSink(QTovelMixer::Engine *engine, int channels, int rate, qint64 wantedFrames,
             MixWriter &writer);

    int numChannels() const override { return m_channels; }
    int sampleRate() const override { return m_rate; }
    void writeSamples(float *samples, int frames, int channels, double time) override;
    /// Whole, or the writer failed. Any thread.
    bool isDone() const { return m_done; }

Q_SIGNALS:
    /// Once, on the worker, when `isDone` becomes true.
    void done();

private:
    int m_channels;
    int m_rate; ///< Hz
    qint64 m_missing;
    MixWriter &m_writer;
    std::atomic<bool> m_done{false};
};

} // namespace tovelmix

#endif
