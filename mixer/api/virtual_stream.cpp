// SPDX-License-Identifier: MIT
#include <mixer/api/virtual_stream_p.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <mixer/api/block_answer_p.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QMutexLocker>

#include <algorithm>
#include <exception>

namespace QTovelMixer {

namespace {

constexpr qint64 lateAfter = 1000000; // ns

} // namespace

DelayLine::DelayLine(quint64 delayFrames, unsigned int blockFrames, unsigned int channels)
    : m_delay(std::max<quint64>(delayFrames, blockFrames)), m_capacity(m_delay + blockFrames),
      m_channels(channels), m_line(size_t(m_capacity) * channels)
{}

void DelayLine::read(float *samples, unsigned int frames, unsigned int channels,
                     quint64 first) const
{
    const unsigned int some = std::min(channels, m_channels);
    for (quint64 frame = first; frame < first + frames; ++frame, samples += channels) {
        if (frame < m_delay)
            continue;
        const float *from = m_line.data() + (frame - m_delay) % m_capacity * m_channels;
        std::copy_n(from, some, samples);
    }
}

void DelayLine::write(const float *samples, unsigned int frames, quint64 first)
{
    for (quint64 frame = first; frame < first + frames; ++frame, samples += m_channels)
        std::copy_n(samples, m_channels, m_line.data() + frame % m_capacity * m_channels);
}

VirtualStream::VirtualStream(const Setup &setup)
    : m_setup(setup), m_input(size_t(setup.frames) * setup.inputChannels),
      m_output(size_t(setup.frames) * setup.outputChannels),
      m_line(setup.loopback ? setup.delayFrames : 0, setup.loopback ? setup.frames : 0,
             setup.loopback ? setup.outputChannels : 0)
{
    setObjectName("virtual device");
}

VirtualStream::~VirtualStream()
{
    requestEnd();
    wait();
}

void VirtualStream::requestEnd()
{
    {
        const QMutexLocker lock(&m_mutex);
        m_endRequested = true;
        m_wake.wakeAll();
    }
    m_setup.wake();
}

bool VirtualStream::isActive() const
{
    return !m_endRequested && !m_ended;
}

QTovelMixerApiVirtual::Statistics VirtualStream::statistics() const
{
    return {m_blocks, m_lateBlocks, m_worstDelay};
}

void VirtualStream::run()
{
    bool failed = true;
    try {
        runBlocks();
        failed = false;
    } catch (const std::exception &error) {
        BLDEBUG_Error(-1, "QTovelMixerApiVirtual: Exception (%s) in a device!!", error.what());
    } catch (...) {
        BLDEBUG_Error(-1, "QTovelMixerApiVirtual: Exception (unknown) in a device!!");
    }
    m_ended = true;
    if (failed)
        m_setup.fail();
}

void VirtualStream::runBlocks()
{
    m_clock.start();
    for (quint64 frame = 0; waitForTime(frame); frame += m_setup.frames) {
        m_blocks.fetch_add(1, std::memory_order_relaxed);
        if (!runBlock(frame))
            return;
    }
}

/// Waits until the block that begins with this frame is due. False when the end was asked for.
bool VirtualStream::waitForTime(quint64 frame)
{
    if (m_setup.pacing == Pacing::FreeWheel)
        return !m_endRequested;
    const qint64 due = FrameClock{m_setup.rate}.nanoseconds(frame);
    QMutexLocker lock(&m_mutex);
    for (;;) {
        if (m_endRequested)
            return false;
        const qint64 left = due - m_clock.nsecsElapsed();
        if (left <= 0)
            break;
        QDeadlineTimer deadline(Qt::PreciseTimer);
        deadline.setPreciseRemainingTime(0, left, Qt::PreciseTimer);
        m_wake.wait(&m_mutex, deadline);
    }
    const qint64 delay = m_clock.nsecsElapsed() - due;
    if (delay > lateAfter)
        m_lateBlocks.fetch_add(1, std::memory_order_relaxed);
    m_worstDelay = std::max(m_worstDelay.load(), delay);
    return true;
}

bool VirtualStream::runBlock(quint64 frame)
{
    fillInput(frame);
    m_output.zero();
    int answer = Api::notReady;
    while (answer == Api::notReady) {
        if (m_endRequested)
            return false;
        answer = m_setup.mix(m_input, m_output, m_setup.frames, double(frame) / m_setup.rate);
    }
    if (answer == BlockAnswer::goOn || answer == BlockAnswer::drain)
        deliver(frame);
    return answer == BlockAnswer::goOn;
}

void VirtualStream::fillInput(quint64 frame)
{
    if (m_setup.inputChannels == 0)
        return;
    const AudioThreadMark mark;
    m_input.zero();
    if (m_setup.loopback)
        m_line.read(m_input.data(), m_setup.frames, m_setup.inputChannels, frame);
    else if (m_setup.generator)
        m_setup.generator(m_input.data(), m_setup.frames, m_setup.inputChannels, frame);
}

void VirtualStream::deliver(quint64 frame)
{
    if (m_setup.outputChannels == 0)
        return;
    const AudioThreadMark mark;
    if (m_setup.loopback)
        m_line.write(m_output.constData(), m_setup.frames, frame);
    if (m_setup.handler)
        m_setup.handler(m_output.constData(), m_setup.frames, m_setup.outputChannels, frame);
}

} // namespace QTovelMixer
