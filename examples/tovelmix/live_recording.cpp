// SPDX-License-Identifier: MIT
#include <tovelmix/live_recording.h>

namespace tovelmix {

LiveRecording::LiveRecording(const DeviceOptions &options, const QString &takePath)
    : LiveCommand(options, RecordingSide), m_takePath(takePath)
{}

// The sinks, which the engine ends, write into what dies here.
LiveRecording::~LiveRecording()
{
    closeEngine();
}

void LiveRecording::openTake()
{
    m_channels = int(engine().numInputChannels());
    m_take.rate = int(engine().sampleRate());
    m_take.truePeakDb.assign(size_t(m_channels), silenceDb);
    const double seconds = options().seconds > 0.0 ? options().seconds : maxSeconds;
    m_wantedFrames = framesOf(seconds, m_take.rate);
    m_writer = std::make_unique<WavWriter>(m_takePath, m_channels, m_take.rate, m_wantedFrames);
}

bool LiveRecording::attach()
{
    if (!m_writer)
        openTake();
    if (!m_writer->error().isEmpty())
        return fail(Failed, m_writer->error());
    auto *sink =
        new TakeSink(&engine(), m_channels, m_take.rate, m_wantedFrames, *m_writer, m_progress);
    connect(sink, &TakeSink::takeDone, this, &LiveRecording::end);
    if (!engine().addSink(sink)) {
        delete sink;
        return fail(Failed, "the mixer refuses the recording");
    }
    if (!engine().start() || !sink->waitUntilRecording())
        return fail(Failed, "the recording does not start");
    return true;
}

void LiveRecording::onDetached(double) {}

bool LiveRecording::isComplete() const
{
    return m_progress.done;
}

void LiveRecording::onReading()
{
    reading().addTo(m_take);
}

void LiveRecording::conclude()
{
    m_take.frames = m_progress.frames;
    m_take.samplePeaks = m_progress.samplePeaks;
    m_writer->commit();
    m_take.error = m_writer->error();
    if (!m_take.error.isEmpty())
        fail(Failed, m_take.error);
}

double LiveRecording::recorded() const
{
    return m_take.rate > 0 ? double(m_progress.frames) / m_take.rate : 0.0;
}

QString LiveRecording::progress() const
{
    const QString text = QString("recorded %1 s").arg(recorded(), 0, 'f', 1);
    return options().seconds > 0.0 ? text + QString(" of %1 s").arg(options().seconds, 0, 'f', 1)
                                   : text;
}

QString LiveRecording::place() const
{
    return QString("at %1 s of the take").arg(recorded(), 0, 'f', 1);
}

} // namespace tovelmix
