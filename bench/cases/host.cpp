// SPDX-License-Identifier: MIT
#include "cases/host.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <algorithm>
#include <ctime>

#ifdef __GLIBC__
#include <malloc.h>
#endif

using namespace QTovelMixer;

namespace Bench {

namespace {

double readClock(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return double(time.tv_sec) * 1e9 + double(time.tv_nsec);
}

} // namespace

DrivenApi::DrivenApi(unsigned frames, unsigned outputs)
    : QTovelMixerApiVirtual(Pacing::RealTime, frames), m_output(size_t(frames) * outputs)
{
    plug({.name = QStringLiteral("bench"),
          .outputChannels = outputs,
          .sampleRates = {mixerRate},
          .minBufferFrames = 1});
    QTovelMixerApiVirtual::updateDeviceList();
}

bool DrivenApi::start()
{
    m_running = isOpen();
    return m_running;
}

bool DrivenApi::stop()
{
    m_running = false;
    return true;
}

bool DrivenApi::close()
{
    m_running = false;
    return QTovelMixerApiVirtual::close();
}

std::vector<float> noise(size_t samples, unsigned seed)
{
    std::vector<float> values(samples);
    quint32 state = seed + 1;
    for (float &value : values) {
        state = state * 1664525u + 1013904223u;
        value = float(qint32(state)) / 2147483648.0f;
    }
    return values;
}

ClipSource::ClipSource(Engine *engine, const float *clip, unsigned clipFrames, unsigned channels,
                       int rate)
    : Source(engine, rate, int(channels), 5.0f), m_clip(clip), m_clipFrames(clipFrames)
{}

int ClipSource::readSamples(float *buffer, int frames, int channels, double time)
{
    qint64 frame = qint64(time * sampleRate() + 0.5) % m_clipFrames;
    for (qint64 left = frames; left > 0;) {
        const qint64 some = std::min(left, m_clipFrames - frame);
        buffer = std::copy_n(m_clip + frame * channels, some * channels, buffer);
        left -= some;
        frame = 0;
    }
    return frames;
}

Host::Host(const Setup &wanted)
    : setup(wanted), api(new DrivenApi(wanted.frames, wanted.outputs)), engine(api)
{
    Engine::Initialize();
    engine.activate();
    for (int i = 0; i < setup.sources; ++i) {
        m_material.push_back(noise(size_t(setup.clipFrames) * setup.channels, unsigned(i)));
        sources.push_back(new ClipSource(&engine, m_material.back().data(), setup.clipFrames,
                                         setup.channels, setup.rate));
        engine.addSource(sources.back(), gain);
    }
}

Host::~Host()
{
    engine.deactivate(UserStopAction);
}

void Host::fillMatrix()
{
    for (Source *source : sources) {
        for (unsigned channel = 0; channel < setup.channels; ++channel) {
            for (unsigned output = 0; output < setup.outputs; ++output)
                engine.setGain(source, int(channel), int(output), gain);
        }
    }
}

void Host::play(double from)
{
    engine.start(from);
    waitUntilFull();
}

void Host::waitUntilFull() const
{
    constexpr qint64 ring = qint64(mixerRate) * 5;
    // A worker reads while more than a chunk's room is left, with room for what it becomes.
    constexpr qint64 chunk = 4096;
    const bool converts = setup.rate != int(mixerRate);
    const double grows = double(mixerRate) / setup.rate;
    const qint64 left = converts ? qint64(double(chunk) * grows * 1.5) : chunk;
    waitUntilBuffered(ring - left - 1);
}

void Host::waitUntilBuffered(qint64 frames) const
{
    for (const Source *source : sources) {
        while (source->bufferedFrames() < frames && source->isRunning())
            QThread::usleep(200);
    }
}

void Host::processEvents()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::processEvents();
}

std::vector<const float *> Host::clips() const
{
    std::vector<const float *> all;
    for (const std::vector<float> &clip : m_material)
        all.push_back(clip.data());
    return all;
}

double processTime()
{
    return readClock(CLOCK_PROCESS_CPUTIME_ID);
}

double threadTime()
{
    return readClock(CLOCK_THREAD_CPUTIME_ID);
}

double memoryInUse()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
    QFile file(QStringLiteral("/proc/self/smaps_rollup"));
    if (!file.open(QIODevice::ReadOnly))
        return 0.0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith("Pss:"))
            return line.mid(4).simplified().split(' ').first().toDouble() / 1024.0;
    }
    return 0.0;
}

} // namespace Bench
