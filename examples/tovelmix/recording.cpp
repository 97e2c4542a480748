// SPDX-License-Identifier: MIT
#include <tovelmix/recording.h>

#include <mixer/api/api_file.h>
#include <mixer/meter/meter.h>

namespace tovelmix {

using QTovelMixer::Engine;
using QTovelMixer::Meter;
using QTovelMixer::StopReason;

Recording::Recording(const RawInput &input, qint64 wantedFrames, const QString &takePath)
    : m_input(input), m_wantedFrames(wantedFrames),
      m_writer(takePath, input.channels(), sampleRate, wantedFrames)
{
    m_reading.reset(input.channels());
    m_take.truePeakDb.assign(size_t(input.channels()), silenceDb);
}

bool Recording::start()
{
    m_take.error = m_writer.error();
    return m_take.error.isEmpty() && openEngine() && startSink();
}

bool Recording::openEngine()
{
    Engine::Initialize();
    auto *backend = new QTovelMixerApiFile(m_input.path(), m_input.channels(), QString(), 0,
                                           sampleRate, "tovelmix");
    m_engine = std::make_unique<Engine>(backend);
    backend->updateDeviceList();
    m_engine->activate();
    if (!m_engine->inputMeter() || int(m_engine->numInputChannels()) != m_input.channels()) {
        m_take.error = QString("the mixer cannot open '%1'").arg(m_input.path());
        return false;
    }
    connect(m_engine.get(), &Engine::stopped, this, &Recording::onStopped);
    startMeters();
    return true;
}

void Recording::startMeters()
{
    Meter *const input = m_engine->inputMeter();
    connect(input, &Meter::meterValuesChanged, this, &Recording::readMeter);
    input->setTruePeakEnabled(true);
    input->start();
    if (Meter *const output = m_engine->outputMeter())
        output->start();
}

bool Recording::startSink()
{
    auto *sink = new TakeSink(m_engine.get(), m_input.channels(), sampleRate, m_wantedFrames,
                              m_writer, m_progress);
    connect(sink, &TakeSink::takeDone, this, &Recording::onTakeDone);
    if (!m_engine->addSink(sink)) {
        delete sink;
        m_take.error = "the mixer refuses the recording";
        return false;
    }
    // No block passes before control returns to the event loop, so waiting here lets the take
    // begin with the first frame of the input.
    m_engine->start();
    if (!sink->waitUntilRecording()) {
        m_take.error = "the recording thread does not start";
        return false;
    }
    return true;
}

void Recording::finishEarly()
{
    m_engine->stop(true, StopReason::UserStopAction);
}

void Recording::readMeter()
{
    m_reading.read(m_engine->inputMeter());
    m_reading.addTo(m_take);
}

void Recording::onTakeDone()
{
    readMeter();
    m_engine->stop(true, StopReason::UserStopAction);
}

void Recording::onStopped()
{
    readMeter();
    m_engine->deactivate();
    m_take.frames = m_progress.frames;
    m_take.samplePeaks = m_progress.samplePeaks;
    m_writer.commit();
    m_take.error = m_writer.error();
    emit finished();
}

QString Recording::progress() const
{
    return QString("recorded %1 s of %2 s")
        .arg(double(recordedFrames()) / sampleRate, 0, 'f', 1)
        .arg(double(wantedFrames()) / sampleRate, 0, 'f', 1);
}

} // namespace tovelmix
