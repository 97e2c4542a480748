// SPDX-License-Identifier: MIT
#include <tovelmix/take_sink.h>

#include <algorithm>
#include <cmath>

namespace tovelmix {

namespace {

constexpr float ringSeconds = 5.0f;
constexpr int startTimeoutMs = 10000;

} // namespace

TakeSink::TakeSink(QTovelMixer::Engine *engine, int channels, int rate, qint64 wantedFrames,
                   WavWriter &writer, TakeProgress &progress)
    : Sink(engine, ringSeconds), m_channels(channels), m_rate(rate), m_wantedFrames(wantedFrames),
      m_writer(writer), m_progress(progress)
{
    m_progress.samplePeaks.resize(size_t(channels), 0.0f);
}

bool TakeSink::waitUntilRecording()
{
    return m_recording.tryAcquire(1, startTimeoutMs);
}

void TakeSink::writeSamples(float *samples, int frames, int channels, double)
{
    if (m_progress.done)
        return;
    const qint64 count = std::min<qint64>(frames, m_wantedFrames - m_progress.frames);
    const bool written = m_writer.write(samples, count);
    if (written) {
        for (qint64 i = 0; i < count * channels; ++i) {
            float &peak = m_progress.samplePeaks[size_t(i % channels)];
            peak = std::max(peak, std::abs(samples[i]));
        }
        m_progress.frames += count;
    }
    if (!written || m_progress.frames == m_wantedFrames) {
        m_progress.done = true;
        emit takeDone();
    }
}

} // namespace tovelmix
