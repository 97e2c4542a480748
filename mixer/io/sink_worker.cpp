// SPDX-License-Identifier: MIT
#include <mixer/io/sink.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <dsp/kernels_p.h>
#include <mixer/engine.h> // a worker that ends waits for the block under way
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace QTovelMixer {

/// Rates and channels stay as they were when the thread began.
struct Sink::Data::Worker
{
    Sink &sink;
    Data &d;
    const int sinkRate;  // Hz
    const int mixerRate; // Hz
    const int channels;
    const int convertedFrames;               // the most that one chunk becomes, 0 for equal rates
    std::optional<ResamplerBank> resamplers; // for different rates
    std::vector<float> converted;            // a chunk at the sink's rate
    unsigned generation = 0;                 // of the audio inside the resamplers

    Worker(Sink &owner, int sinkHz, int mixerHz, int channelCount);

    void takeRing();
    int waitMilliseconds() const;
    void drainRing();
    bool pass();
    void handOver(float *data, int frames);
    void logFailure(const char *what) const;
};

Sink::Data::Worker::Worker(Sink &owner, int sinkHz, int mixerHz, int channelCount)
    : sink(owner), d(*owner.d), sinkRate(sinkHz), mixerRate(mixerHz), channels(channelCount),
      convertedFrames(sinkHz != mixerHz ? ResamplerBank::maxOutputFrames(mixerHz, sinkHz) : 0)
{
    if (sinkRate == mixerRate)
        return;
    converted.resize(static_cast<size_t>(convertedFrames) * static_cast<size_t>(channels));
    resamplers.emplace(mixerRate, sinkRate, channels);
}

void Sink::Data::Worker::takeRing()
{
    constexpr int most = std::numeric_limits<int>::max();
    const float wanted = static_cast<float>(mixerRate) * d.bufferSeconds;
    const int frames = wanted < static_cast<float>(most) ? static_cast<int>(wanted) : most;
    const QMutexLocker lock(&d.ringMutex);
    generation = d.generation;
    if (!d.ring)
        d.ring = std::make_unique<FrameRing>(frames, channels);
}

int Sink::Data::Worker::waitMilliseconds() const
{
    const double chunk = resamplers ? convertedFrames * 1000.0 / mixerRate : 4096000.0 / mixerRate;
    return std::max(static_cast<int>(std::min(chunk, 1e9)), 1);
}

void Sink::Data::Worker::drainRing()
{
    const int milliseconds = waitMilliseconds();
    try {
        while (d.stopRequested.load(std::memory_order_acquire) == 0) {
            d.waitForUpdates();
            if (!pass())
                d.sleep(milliseconds);
        }
    } catch (const std::exception &error) {
        logFailure(error.what());
    } catch (...) {
        logFailure("unknown");
    }
}

/// Hands one chunk over; false when there is none.
bool Sink::Data::Worker::pass()
{
    // Held until the chunk is consumed, so that setTime never flushes it away under the host.
    const QMutexLocker lock(&d.ringMutex);
    const FrameRing::Slice slice = d.ring->readSlice();
    const int frames = static_cast<int>(std::min<qint64>(slice.frames, ResamplerBank::chunkFrames));
    if (frames <= 0)
        return false;
    int handed = frames;
    d.replaceNotFinite(sink, slice.data, qint64{frames} * channels);
    if (resamplers) {
        // After a reposition the held-back audio belongs elsewhere.
        if (std::exchange(generation, d.generation) != d.generation)
            resamplers->restart();
        handed = resamplers->process(slice.data, frames, converted.data());
        // The filter may overshoot what a float can hold.
        d.replaceNotFinite(sink, converted.data(), qint64{handed} * channels);
        if (handed > 0)
            handOver(converted.data(), handed);
    } else {
        handOver(slice.data, frames);
    }
    d.ring->consume(frames);
    d.wakeMix();
    d.recordTime += static_cast<double>(handed) / sinkRate;
    return true;
}

void Sink::Data::Worker::handOver(float *data, int frames)
{
    sink.drain_consumed_buffer(data, frames, sinkRate, channels, d.recordTime);
}

void Sink::Data::Worker::logFailure(const char *what) const
{
    BLDEBUG_Error(-1, "QTovelMixer::writeSamples: Exception (%s) in sink (%p)!!", what,
                  static_cast<void *>(&sink));
    d.endByWorker(WorkerFailed);
}

void Sink::Data::replaceNotFinite(const Sink &sink, float *samples, qint64 count)
{
    const quint64 replaced = Kernels::replaceNotFinite(samples, static_cast<size_t>(count));
    if (replaced == 0)
        return;
    replacedSamples.fetch_add(replaced, std::memory_order_relaxed);
    if (!std::exchange(replacementTold, true))
        BLDEBUG_Error(-1, "QTovelMixer::Sink: Samples that are not finite count as 0 (%p)!!",
                      static_cast<const void *>(&sink));
}

void Sink::Data::endWithoutMemory(const Sink &sink)
{
    BLDEBUG_Error(-1, "QTovelMixer::Sink: Out of memory (%p)!!", static_cast<const void *>(&sink));
    endByWorker(WorkerFailed);
    wakeMix();
}

void Sink::Data::work(Sink &sink, int sinkHz, int mixerHz, int channels)
{
    try {
        Worker worker(sink, sinkHz, mixerHz, channels);
        worker.takeRing();
        running.store(1, std::memory_order_release);
        wakeMix();
        sink.state_change();
        if (stopRequested.load(std::memory_order_acquire) == 0)
            sink.onRunStart();
        worker.drainRing();
    } catch (const std::bad_alloc &) {
        endWithoutMemory(sink);
    }
}

void Sink::run()
{
    const int channels = numChannels();
    const int mixerHz = d->mixerRate();
    const int sinkHz = sampleRate();
    if (channels < 1 || !mixerEngine())
        return;
    TraceLine("Sink::run BEGIN")
        .item("sink", this)
        .item("sampleRate", sinkHz)
        .item("mixerSampleRate", mixerHz)
        .item("channels", channels)
        .item("thread", QThread::currentThreadId());
    // Before any memory is taken: the rates and channels of hosts may ask for gigabytes.
    if (channels <= maxMixerChannels && ResamplerBank::canConvert(mixerHz, sinkHz)) {
        d->work(*this, sinkHz, mixerHz, channels);
    } else {
        BLDEBUG_Error(-1, "QTovelMixer::Sink: Cannot record %d channels of %d Hz at %d Hz (%p)!!",
                      channels, mixerHz, sinkHz, static_cast<void *>(this));
        d->endByWorker(WorkerFailed);
    }
    d->running.store(0);
    // A block that saw it running may be calling what the host overrides.
    if (Engine *const mixer = d->engine)
        mixer->waitForBlock();
    try {
        state_change();
        Q_EMIT sinkFinished(this);
    } catch (const std::bad_alloc &) {
        d->endWithoutMemory(*this);
    }
    d->finished.store(true, std::memory_order_release);
    TraceLine("Sink::run END")
        .item("sink", this)
        .item("stopReason", static_cast<int>(stopReason()))
        .item("recordedTime", recordedTime());
}

} // namespace QTovelMixer
