// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_p.h>

#include <base/ringbuffer.h>
#include <mixer/aligned_vector.h>
#include <mixer/meter/meter_config.h>

#include <QtCore/QDebug>
#include <QtCore/QTimerEvent>

#include <algorithm>
#include <cstring>

namespace QTovelMixer {

namespace {
constexpr int tick = 21; // ms, half a block
}

Meter::Meter(Type type, int sampleRate, int numChannels, const MeterConfig &config, QObject *parent)
    : QObject(parent),
      d(std::make_unique<Data>(type, sampleRate, numChannels,
                               config.isValid()
                                   ? config.meters()
                                   : std::vector<bool>(size_t(std::max(numChannels, 0)), true)))
{
    auto *thread = new QThread;
    d->thread = thread;
    thread->setObjectName(QStringLiteral("QTovelMixer::Meter::Meter(%1)").arg(toString(type)));
    // An object with a parent cannot move; it then ticks where its parent lives.
    if (!parent)
        moveToThread(thread);
    connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    connect(thread, &QThread::finished, this, &QObject::deleteLater);
    thread->start(QThread::InheritPriority);
}

Meter::~Meter()
{
    qInfo() << "Deleting" << toString(d->type) << "meter...";
    if (d->timerActive)
        qInfo() << "QTovelMixer::Meter::Data: Deleting Meter" << toString(d->type)
                << "with timer still active!";
    const auto stopTimer = [this] {
        d->timerActive = false;
        d->timer.stop();
    };
    const QPointer<QThread> thread = d->thread;
    if (thread && QThread::currentThread() != thread) {
        disconnect(thread, nullptr, this, nullptr);
        // A timer ends on the thread that it ticks on.
        if (d->timerActive && this->thread() == thread && thread->isRunning())
            QMetaObject::invokeMethod(this, stopTimer, Qt::BlockingQueuedConnection);
        thread->quit();
        thread->wait();
    }
    if (this->thread() == QThread::currentThread())
        stopTimer();
}

// Once the meter's thread has ended, whoever calls may act for it.
bool Meter::onOwnThread() const
{
    return QThread::currentThread() == thread() || !thread() || !thread()->isRunning();
}

void Meter::start()
{
    if (!onOwnThread()) {
        QMetaObject::invokeMethod(this, "start", Qt::BlockingQueuedConnection);
        return;
    }
    d->stopRequested = false;
    if (d->timer.isActive() || QThread::currentThread() != thread())
        return;
    qInfo() << "Starting" << toString(d->type) << "meter";
    d->timer.start(tick, Qt::PreciseTimer, this);
    d->timerId = d->timer.timerId();
    d->timerActive = true;
    emit meterStarted();
}

void Meter::stop(bool forceStop)
{
    if (!onOwnThread()) {
        QMetaObject::invokeMethod(this, "stop", Qt::BlockingQueuedConnection,
                                  Q_ARG(bool, forceStop));
        return;
    }
    d->stopRequested = true;
    if (!forceStop)
        return;
    qInfo() << "Stopping" << toString(d->type) << "meter";
    d->timerActive = false;
    if (QThread::currentThread() == thread())
        d->timer.stop();
    emit meterStoped();
}

void Meter::aboutToQuit()
{
    if (!onOwnThread()) {
        QMetaObject::invokeMethod(this, "aboutToQuit", Qt::BlockingQueuedConnection);
        return;
    }
    if (d->timerActive.exchange(false))
        emit meterStoped();
    if (QThread::currentThread() == thread())
        d->timer.stop();
    if (d->thread)
        d->thread->quit();
}

void Meter::reset() {}

bool Meter::fill(const aligned_vector<float, 16> &samples) noexcept
{
    if (!d->timerActive.load(std::memory_order_relaxed) || !d->ringBuffer)
        return true;
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(d->ringBuffer);
    const size_t bytes = samples.size() * sizeof(float);
    if (slice.length < 0 || size_t(slice.length) < bytes)
        return false;
    std::memcpy(slice.data, samples.constData(), bytes);
    BLRINGBUFFER_Produce(d->ringBuffer, int32_t(bytes));
    return true;
}

void Meter::timerEvent(QTimerEvent *event)
{
    if (!d->ringBuffer || event->timerId() != d->timerId)
        return;
    const int blockBytes = d->blockSamples() * int(sizeof(float));
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(d->ringBuffer);
    if (blockBytes > 0 && slice.length >= blockBytes) {
        updateStatistics(reinterpret_cast<const float *>(slice.data), d->blockFrames);
        BLRINGBUFFER_Consume(d->ringBuffer, blockBytes);
    } else if (d->stopRequested) {
        const std::vector<float> silence(size_t(d->blockSamples()), 0.0f);
        updateStatistics(silence.data(), d->blockFrames);
    }
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

} // namespace QTovelMixer
