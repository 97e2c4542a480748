// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/debug.h>
#include <base/trace_p.h>
#include <dsp/kernels_p.h>
#include <mixer/engine.h>
#include <mixer/io/source_p.h>
#include <mixer/io/timeline.h>

#include <QtCore/QMetaObject>
#include <QtCore/QMutexLocker>

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace QTovelMixer {

/// Rates and channels stay as they were when the thread began.
struct Source::Data::Worker
{
    static constexpr int chunkFrames = ResamplerBank::chunkFrames;
    static constexpr double primedSeconds = 0.2;

    Source &source;
    Data &d;
    const int sourceRate; // Hz
    const int mixerRate;  // Hz
    const int channels;
    const bool converting;
    const int convertedFrames;               // the most that one chunk becomes, 0 for equal rates
    std::optional<ResamplerBank> resamplers; // when converting
    std::vector<float> production;           // a chunk at the source's rate, when converting
    unsigned generation = 0;                 // of the audio inside the resamplers
    FrameRing *ring = nullptr;
    double buffered = 0.0; // seconds put into the ring

    Worker(Source &owner, int sourceHz, int mixerHz, int channelCount);

    double chunkMilliseconds() const;
    int roomNeeded() const { return converting ? convertedFrames : chunkFrames; }
    qint64 ringFrames() const;
    void takeRing();

    void fillRing();
    StopReason reasonOfEnd() const;
    bool pass(int waitMilliseconds);
    int readChunk(float *room, int &written);
    void advance(int frames, int written);
};

Source::Data::Worker::Worker(Source &owner, int sourceHz, int mixerHz, int channelCount)
    : source(owner), d(*owner.d), sourceRate(sourceHz), mixerRate(mixerHz), channels(channelCount),
      converting(sourceHz != mixerHz),
      convertedFrames(converting ? ResamplerBank::maxOutputFrames(sourceHz, mixerHz) : 0)
{
    if (converting)
        resamplers.emplace(sourceRate, mixerRate, channels);
}

double Source::Data::Worker::chunkMilliseconds() const
{
    return converting ? convertedFrames * 1000.0 / mixerRate : 4096000.0 / mixerRate;
}

qint64 Source::Data::Worker::ringFrames() const
{
    constexpr int most = std::numeric_limits<int>::max();
    const float wanted = static_cast<float>(mixerRate) * d.bufferSeconds;
    const qint64 seconds = wanted < static_cast<float>(most) ? static_cast<int>(wanted) : most;
    // The last one lets a mixer of a very low rate have room for a chunk at all.
    return std::max({seconds, qint64{2} * convertedFrames, qint64{3} * chunkFrames});
}

void Source::Data::Worker::takeRing()
{
    ring = d.ring.load(std::memory_order_acquire);
    if (ring)
        return;
    // Its page faults are taken as it fills: all at once they would hold the start up.
    ring = &d.ringOwner.emplace(ringFrames(), channels, MirroredMemory::OnTouch);
    d.ring.store(ring, std::memory_order_release);
}

void Source::Data::Worker::fillRing()
{
    if (converting)
        production.resize(static_cast<size_t>(chunkFrames) * static_cast<size_t>(channels));
    const int waitMilliseconds = std::max(static_cast<int>(chunkMilliseconds()), 1);
    while (d.stopRequested == 0) {
        d.waitForUpdates();
        if (!pass(waitMilliseconds))
            break;
    }
}

StopReason Source::Data::Worker::reasonOfEnd() const
{
    if (d.pausePositionReached)
        return PausePositionReached;
    return d.readFailed ? WorkerFailed : AudioFinished;
}

/// One look at the ring and, if it has room, one chunk. False when the end was asked for.
bool Source::Data::Worker::pass(int waitMilliseconds)
{
    QMutexLocker lock(&d.ringMutex);
    // Whoever held the mutex may have ended the source and rewound its material.
    if (d.stopRequested != 0)
        return false;
    const FrameRing::Slice room = ring->writeSlice();
    if (room.frames <= roomNeeded()) {
        lock.unlock();
        d.sleep(waitMilliseconds);
        return true;
    }
    int written = 0;
    const int frames = readChunk(room.data, written);
    d.materialEnded = frames <= 0;
    if (frames > 0) {
        advance(frames, written);
        lock.unlock();
        d.tellReplacement(source);
        d.wakeMix();
    } else {
        // Under the mutex: a seek that comes after this look must find the end decided.
        const bool playedOut = ring->isEmpty();
        if (playedOut)
            d.endByWorker(reasonOfEnd());
        lock.unlock();
        d.releasePriming();
        d.wakeMix();
        if (!playedOut)
            d.sleep(waitMilliseconds);
    }
    if (frames <= 0 || buffered > primedSeconds)
        d.releasePriming();
    return true;
}

int Source::Data::Worker::readChunk(float *room, int &written)
{
    if (!converting) {
        written =
            source.fill_production_buffer(room, chunkFrames, sourceRate, channels, d.readTime);
        return written;
    }
    // After a reposition or a withdrawal the held-back audio belongs elsewhere.
    if (std::exchange(generation, d.generation) != d.generation)
        resamplers->restart();
    const int frames = source.fill_production_buffer(production.data(), chunkFrames, sourceRate,
                                                     channels, d.readTime);
    written = resamplers->process(production.data(), frames, room);
    // The filter may overshoot what a float can hold.
    d.replaceNotFinite(room, qint64{written} * channels);
    d.withheld = resamplers->withheldInputFrames();
    return frames;
}

void Source::Data::Worker::advance(int frames, int written)
{
    const qint64 next = framesOfTime(d.readTime, sourceRate) + frames;
    d.readTime = static_cast<double>(next) / sourceRate;
    ring->touch(written);
    ring->produce(written);
    buffered += static_cast<double>(written) / mixerRate;
}

void Source::Data::announceEnd(Source &source)
{
    const QPointer<Source> guarded(&source);
    bool keepState = false;
    StopReason reason = NoReason;
    {
        const QMutexLocker lock(&waitMutex);
        keepState = keepStateOnStop;
        reason = source.stopReason();
    }
    try {
        Engine *const mixer = engine;
        if (mixer && reason == PausePositionReached)
            mixer->pauseFor(&source);
        if (!keepState)
            source.state_change(Stopped, Config());
        if (!keepState && guarded)
            source.onFinished(reason);
        if (guarded)
            Q_EMIT source.sourceFinished(guarded);
    } catch (const std::bad_alloc &) {
        logNoMemory(source);
    }
    // Without a worker, slots ran on this thread and may have deleted it.
    if (!guarded)
        return;
    finished = true;
    TraceLine("Source::run END")
        .item("source", &source)
        .item("stopReason", static_cast<int>(reason))
        .item("keepStateOnStop", keepState)
        .item("pausePositionReached", pausePositionReached.load());
}

void Source::Data::work(Source &source, int sourceHz, int mixerHz, int channels)
{
    try {
        Worker worker(source, sourceHz, mixerHz, channels);
        worker.takeRing();
        running.store(1, std::memory_order_release);
        source.state_change(Playing, Config());
        if (stopRequested == 0)
            source.onRunStart(worker.chunkMilliseconds());
        worker.fillRing();
    } catch (const std::bad_alloc &) {
        logNoMemory(source);
        endByWorker(WorkerFailed);
    }
}

void Source::run()
{
    const int sourceHz = sampleRate();
    const int mixerHz = d->mixerRate();
    const FrameRing *ring = d->ring.load(std::memory_order_acquire);
    const int channels = ring ? ring->channels() : numChannels();
    if (channels < 1 || !mixerEngine()) {
        d->releasePriming();
        return;
    }
    TraceLine("Source::run BEGIN")
        .item("source", this)
        .item("sampleRate", sourceHz)
        .item("mixerSampleRate", mixerHz)
        .item("channels", channels)
        .item("thread", QThread::currentThreadId());
    // Before any memory is taken: a rate of 1 Hz would ask for gigabytes.
    if (channels <= maxMixerChannels && ResamplerBank::canConvert(sourceHz, mixerHz)) {
        d->work(*this, sourceHz, mixerHz, channels);
    } else {
        BLDEBUG_Error(-1, "QTovelMixer::Source: Cannot play %d channels of %d Hz at %d Hz (%p)!!",
                      channels, sourceHz, mixerHz, static_cast<void *>(this));
        d->endByWorker(WorkerFailed);
    }
    d->running.store(0);
    // A block that saw it running may be calling what the host overrides.
    if (Engine *const mixer = d->engine)
        mixer->waitForBlock();
    d->wakeMix();
    d->releasePriming();
    d->announceEnd(*this);
}

int Source::fill_production_buffer(float *buffer, int maxFrames, int rate, int channels,
                                   double time)
{
    if (d->pausePositionReached.load(std::memory_order_relaxed) || rate < 1)
        return 0;
    const double span = static_cast<double>(maxFrames) / rate;
    const Range range = d->range.load();
    const Timeline *line = timeline();
    double start = time;
    double length = span;
    qint64 frames = maxFrames;
    if (range.isValid()) {
        start = d->rangeCursor.load(std::memory_order_relaxed);
        length = std::min(range.end - start, span);
        if (length > 0.0)
            d->rangeCursor.store(start + length, std::memory_order_relaxed);
    } else if (line) {
        std::tie(start, length) = line->nextChunk(time, span, rate, 0);
    }
    if (range.isValid() || line)
        frames = length > 0.0 ? framesOfTime(length, rate) : 0;
    const double pauseAt = pausePosition();
    // The cut rounds to a frame, so that reading may stand up to half a frame behind the position.
    const bool standsThere = pauseAt == d->pauseCut && (start - pauseAt) * rate <= 0.5 + 1e-6;
    if ((pauseAt >= start || (standsThere && start > pauseAt)) && start + length > pauseAt) {
        frames = pauseAt >= start ? framesOfTime(pauseAt - start, rate) : 0;
        d->pauseCut = pauseAt;
        d->pausePositionReached.store(true, std::memory_order_relaxed);
        d->pausePositionTime.store(pauseAt, std::memory_order_relaxed);
    }
    return d->callHost(*this, buffer, static_cast<int>(std::min<qint64>(frames, maxFrames)),
                       channels, start);
}

/// The host's samples; an exception of its own ends the material instead of the process.
int Source::Data::callHost(Source &source, float *buffer, int frames, int channels, double time)
{
    if (frames <= 0)
        return 0;
    readFailed = true;
    try {
        const int read = std::min(source.readSamples(buffer, frames, channels, time), frames);
        readFailed = false;
        replaceNotFinite(buffer, qint64{read} * channels);
        return read;
    } catch (const std::exception &error) {
        logReadFailure(source, error.what());
    } catch (...) {
        logReadFailure(source, "unknown");
    }
    return 0;
}

void Source::Data::replaceNotFinite(float *samples, qint64 count)
{
    if (count > 0)
        replacedSamples.fetch_add(Kernels::replaceNotFinite(samples, static_cast<size_t>(count)),
                                  std::memory_order_relaxed);
}

void Source::Data::tellReplacement(const Source &source)
{
    if (replacementTold || source.replacedSamples() == 0)
        return;
    replacementTold = true;
    BLDEBUG_Error(-1, "QTovelMixer::Source: Samples that are not finite count as 0 (%p)!!",
                  static_cast<const void *>(&source));
}

void Source::Data::logNoMemory(const Source &source)
{
    BLDEBUG_Error(-1, "QTovelMixer::Source: Out of memory (%p)!!",
                  static_cast<const void *>(&source));
}

void Source::Data::logReadFailure(const Source &source, const char *what)
{
    if (!std::exchange(readFailureTold, true))
        BLDEBUG_Error(-1, "QTovelMixer::readSamples: Exception (%s) in source (%p)!!", what,
                      static_cast<const void *>(&source));
}

} // namespace QTovelMixer
