// SPDX-License-Identifier: MIT
// A meter's life, its transport and what it is fed.
#include <mixer/meter/meter_p.h>

#include <base/blocking_call_p.h>
#include <base/debug.h>
#include <base/ringbuffer_p.h>
#include <base/thread_start_p.h>
#include <mixer/aligned_vector.h>

#include <QtCore/QTimerEvent>

#include <cstring>
#include <new>

namespace QTovelMixer {

namespace {

constexpr int tickInterval = 21; // ms, half a block

/// Known by its type, wherever it is asked for.
class MeterThread : public QThread
{
public:
    using QThread::QThread;
};

// True when a call has to travel to the object's thread. Once that thread has ended nothing would
// take the call, and nothing else can touch the object either: then whoever calls acts for it.
bool mustTravel(const QObject *object)
{
    const QThread *home = object->thread();
    return home && home != QThread::currentThread() && home->isRunning();
}

} // namespace

bool isMeterThread(const QThread *thread)
{
    return dynamic_cast<const MeterThread *>(thread) != nullptr;
}

Meter::Meter(Type type, int sampleRate, int numChannels, const MeterConfig &config, QObject *parent)
    : QObject(parent), d(std::make_unique<Data>(type, sampleRate, numChannels, config))
{
    auto thread = std::make_unique<MeterThread>();
    thread->setObjectName(QStringLiteral("QTovelMixer::Meter::Meter(%1)").arg(toString(type)));
    watchStart(*thread);
    connect(thread.get(), &QThread::finished, thread.get(), &QObject::deleteLater);
    connect(thread.get(), &QThread::finished, this, &QObject::deleteLater);
    if (!parent)
        moveToThread(thread.get());
    d->thread = thread.get();
    static_cast<void>(thread.release()); // not before: making a weak pointer takes memory
    const ThreadStart answer = startThread(*d->thread, QThread::InheritPriority);
    if (answer != ThreadStart::Started)
        BLDEBUG_Error(-1, "QTovelMixer::Meter: Cannot start a thread (%p), %s!!",
                      static_cast<void *>(this), missingFor(answer));
}

Meter::~Meter()
{
    d->log("Deleting", "meter...");
    QThread *const own = d->thread;
    if (own && own != QThread::currentThread()) {
        disconnect(own, &QThread::finished, this, nullptr);
        // A timer can be stopped on its thread only, and that thread may be in a tick just now.
        if (thread() == own)
            connect(
                own, &QThread::finished, own, [this] { d->timer.stop(); }, Qt::DirectConnection);
        own->quit();
        own->wait();
    } else if (own) {
        own->quit();
    }
    if (thread() == QThread::currentThread())
        d->timer.stop();
}

bool Meter::fill(const aligned_vector<float, 16> &samples) noexcept
{
    BLRINGBUFFER *const ring = d->ringBuffer.get();
    if (!d->timerActive.load(std::memory_order_relaxed) || !ring)
        return true;
    const size_t bytes = samples.size() * sizeof(float);
    const BLRINGBUFFER_Slice slice = ring->writeSlice();
    if (size_t(slice.length) < bytes)
        return false;
    if (bytes == 0)
        return true;
    std::memcpy(slice.data, samples.constData(), bytes);
    ring->produce(bytes);
    return true;
}

void Meter::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != d->timerId)
        return;
    // A block that could not be measured is measured at the next tick, or lost when the ring is
    // full.
    try {
        d->takeBlock(*this);
    } catch (const std::bad_alloc &) {
        BLDEBUG_Error(-1, "QTovelMixer::Meter: Out of memory (%p)!!", static_cast<void *>(this));
    }
}

void Meter::Data::takeBlock(Meter &meter)
{
    BLRINGBUFFER *const ring = ringBuffer.get();
    if (!ring)
        return;
    const size_t samples = blockSamples();
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(ring);
    if (size_t(slice.length) >= samples * sizeof(float)) {
        meter.updateStatistics(reinterpret_cast<const float *>(slice.data), blockFrames);
        BLRINGBUFFER_Consume(ring, int32_t(samples * sizeof(float)));
    } else if (stopRequested) {
        const std::vector<float> silence(samples, 0.0f);
        meter.updateStatistics(silence.data(), blockFrames);
    }
}

void Meter::start()
{
    if (mustTravel(this)) {
        callAndWait(this, [this] { start(); });
        return;
    }
    d->stopRequested = false;
    // Without its thread nothing would tick.
    if (d->timer.isActive() || thread() != QThread::currentThread())
        return;
    d->log("Starting", "meter");
    d->timer.start(tickInterval, Qt::PreciseTimer, this);
    d->timerId = d->timer.timerId();
    d->timerActive = true;
    emit meterStarted();
}

void Meter::stop(bool forceStop)
{
    if (mustTravel(this)) {
        callAndWait(this, [this, forceStop] { stop(forceStop); });
        return;
    }
    d->stopRequested = true;
    if (!forceStop)
        return;
    d->log("Stopping", "meter");
    d->timerActive = false;
    d->timer.stop();
    emit meterStoped();
}

void Meter::aboutToQuit()
{
    if (mustTravel(this)) {
        callAndWait(this, [this] { aboutToQuit(); });
        return;
    }
    if (d->timer.isActive())
        emit meterStoped();
    d->timerActive = false;
    d->timer.stop();
    if (d->thread)
        d->thread->quit();
}

bool Meter::isRunning() const
{
    return d->timerActive;
}

double Meter::minMeterLevel() const
{
    return d->minMeterLevel;
}

void Meter::setMinMeterLevel(double level)
{
    d->minMeterLevel = level;
}

double Meter::maxMeterLevel() const
{
    return d->maxMeterLevel;
}

void Meter::setMaxMeterLevel(double level)
{
    d->maxMeterLevel = level;
}

void Meter::reset() {}

} // namespace QTovelMixer
