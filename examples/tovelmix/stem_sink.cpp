// SPDX-License-Identifier: MIT
#include <tovelmix/stem_sink.h>

#include <algorithm>

namespace tovelmix {

namespace {

constexpr float ringSeconds = 5.0f;

} // namespace

StemSink::StemSink(QTovelMixer::Engine *engine, int channels, int rate, qint64 wantedFrames,
                   MixWriter &writer)
    : Sink(engine, ringSeconds), m_channels(channels), m_rate(rate), m_missing(wantedFrames),
      m_writer(writer)
{}

void StemSink::writeSamples(float *samples, int frames, int, double)
{
    if (m_done)
        return;
    const qint64 count = std::min<qint64>(frames, m_missing);
    m_missing -= count;
    if (m_writer.write(samples, count) && m_missing > 0)
        return;
    m_done = true;
    Q_EMIT done();
}

} // namespace tovelmix
