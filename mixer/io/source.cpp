// SPDX-License-Identifier: MIT
#include <mixer/io/source.h>

#include <base/debug.h>
#include <base/log_line_p.h>
#include <base/thread_start_p.h>
#include <mixer/engine.h>
#include <mixer/io/source_p.h>
#include <mixer/io/timeline.h>

#include <QtCore/QDebug>
#include <QtCore/QEvent>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace QTovelMixer {

void SharedRange::store(const Range &range) noexcept
{
    const unsigned next = m_version.load(std::memory_order_relaxed) + 1;
    Slot &slot = m_slots[next & 1];
    slot.start.store(range.start, std::memory_order_release);
    slot.end.store(range.end, std::memory_order_release);
    m_version.store(next, std::memory_order_release);
}

double representableTime(double seconds, double rate) noexcept
{
    constexpr double most = 4.0e18; // frames; well inside 64 bits, and so are sums of two
    return std::isfinite(seconds) && std::abs(seconds * rate) < most ? seconds : 0.0;
}

qint64 framesOfTime(double seconds, double rate) noexcept
{
    return static_cast<qint64>(representableTime(seconds, rate) * rate + 0.5);
}

int Source::Data::mixerRate() const
{
    return engine ? static_cast<int>(engine->sampleRate()) : 0;
}

void Source::Data::clearPausePosition()
{
    if (stopRequested.load(std::memory_order_acquire) != 0)
        return;
    pausePositionReached.store(false, std::memory_order_relaxed);
    pausePositionTime.store(-1.0, std::memory_order_relaxed);
}

Source::Source(Engine *engine, int sampleRate, int numChannels, float bufferSeconds)
    : Source(engine, sampleRate, numChannels, Range(), bufferSeconds)
{}

Source::Source(Engine *engine, int sampleRate, int numChannels, const Range &range,
               float bufferSeconds)
    : d(new Data)
{
    watchStart(*this);
    d->engine = engine;
    d->self = this;
    d->sampleRate = sampleRate;
    d->numChannels = numChannels;
    d->range.store(range);
    d->rangeCursor = range.start;
    d->playStartTime = range.start;
    d->bufferSeconds = std::fmax(bufferSeconds, 5.0f); // fmax: a NaN becomes 5 as well
}

Source::~Source()
{
    d->leave(*this);
}

/// Out of the mix, and without a worker.
void Source::Data::leave(Source &source)
{
    if (Engine *const mixer = engine)
        mixer->letGo(&source);
    SourceAccess::endAndWait(source);
}

bool Source::event(QEvent *event)
{
    if (event->type() == QEvent::DeferredDelete)
        d->leave(*this);
    return QThread::event(event);
}

double Source::loopStartTime() const
{
    const Range range = d->range.load();
    if (range.isValid())
        return range.start;
    const Timeline *line = timeline();
    return line ? line->start() : startTime();
}

double Source::loopEndTime() const
{
    const Range range = d->range.load();
    if (range.isValid())
        return range.end;
    const Timeline *line = timeline();
    return line ? line->end() : std::numeric_limits<double>::max();
}

double Source::startTime() const
{
    const Range range = d->range.load();
    if (range.isValid())
        return range.start;
    return d->engine ? d->engine->startTime() : 0.0;
}

double Source::currentChunkEnd(double position) const
{
    const Range range = d->range.load();
    if (range.isValid())
        return range.end;
    const Timeline *line = timeline();
    if (!line)
        return contentStart() + contentDuration();
    return line->currentChunkEnd(position < 0.0 ? time(false) : position);
}

double Source::time(bool clamp) const
{
    const Data &data = *d;
    const Engine *const engine = data.engine;
    const double now = engine ? engine->time() : 0.0;
    const double pausePosition = data.pausePositionTime.load(std::memory_order_relaxed);
    if (const Timeline *line = data.timeline.load(std::memory_order_acquire))
        return line->time(now, clamp, data.playStartTime.load(std::memory_order_relaxed),
                          pausePosition);
    return pausePosition >= 0.0 ? std::min(now, pausePosition) : now;
}

quint64 Source::channelMask() const
{
    return d->channelMask.load(std::memory_order_relaxed);
}

double Source::configScale() const
{
    return 1.0;
}

float Source::gain() const
{
    return d->gain.load(std::memory_order_relaxed);
}

int Source::numChannels() const
{
    return d->numChannels.load(std::memory_order_relaxed);
}

int Source::sampleRate() const
{
    return d->sampleRate.load(std::memory_order_relaxed);
}

bool Source::isRunning() const
{
    return d->running.load(std::memory_order_acquire) != 0;
}

bool Source::isPaused() const
{
    return d->engine && d->engine->isPaused();
}

bool Source::isLooping() const
{
    return d->engine && d->engine->isLooping();
}

bool Source::isFinished() const
{
    return d->started && d->stopRequested.load(std::memory_order_acquire) == 1;
}

bool Source::isContinuous() const
{
    return d->range.load().isValid();
}

bool Source::wasStoped() const
{
    return d->stopRequested.load(std::memory_order_acquire) != 0;
}

StopReason Source::stopReason() const
{
    return static_cast<StopReason>(d->stopReason.load(std::memory_order_acquire));
}

void Source::setRange(const Range &range)
{
    if (timeline()) {
        writeText(QtWarningMsg,
                  "You can not assign a playbaack range after adding the object to the mixer.");
        return;
    }
    d->range.store(range);
    d->rangeCursor.store(range.start, std::memory_order_relaxed);
    d->playStartTime.store(range.start, std::memory_order_relaxed);
}

Range Source::range()
{
    return d->range.load();
}

Range Source::range() const
{
    return d->range.load();
}

void Source::setTime(double time)
{
    const double rate = d->mixerRate();
    time = representableTime(time, std::max(rate, 1.0));
    if (FrameRing *ring = d->ring.load(std::memory_order_acquire))
        ring->flush();
    d->frameBase.store(framesOfTime(time, rate), std::memory_order_relaxed);
    d->readTime = time;
    d->rangeCursor.store(time, std::memory_order_relaxed);
    d->playStartTime.store(time, std::memory_order_relaxed);
    d->withheld = 0.0;
    d->pauseCut = -1.0;
    ++d->generation;
    d->materialEnded = false;
    d->clearPausePosition();
}

void Source::setGain(float gain)
{
    if (!std::isfinite(gain)) {
        BLDEBUG_Error(-1, "QTovelMixer::Source::setGain: Invalid gain (%p)!!",
                      static_cast<void *>(this));
        return;
    }
    d->gain.store(gain, std::memory_order_relaxed);
}

void Source::setNumChannels(int channels)
{
    d->numChannels.store(channels, std::memory_order_relaxed);
}

void Source::setSampleRate(int sampleRate)
{
    d->sampleRate.store(sampleRate, std::memory_order_relaxed);
}

void Source::setChannelsMask(unsigned long long mask)
{
    d->channelMask.store(mask, std::memory_order_relaxed);
}

void Source::setTimeline(Timeline *timeline)
{
    if (!d->range.load().isValid())
        d->timeline.store(timeline, std::memory_order_release);
}

double Source::playedTime() const
{
    return static_cast<double>(d->consumedFrames.load(std::memory_order_relaxed)) / sampleRate();
}

void Source::adjustTime(double playTime, double keepSeconds)
{
    const double rate = d->mixerRate();
    if (d->range.load().isValid() || !timeline() || numChannels() < 1 || rate < 1.0 ||
        sampleRate() < 1)
        return;
    FrameRing *ring = d->ring.load(std::memory_order_acquire);
    const FrameRing::Slice slice = ring ? std::as_const(*ring).readSlice() : FrameRing::Slice();
    const qint64 base = d->frameBase.load(std::memory_order_relaxed);
    const qint64 next = slice.position + base;
    const qint64 shift = framesOfTime(playTime, rate) - next;
    // All of it when more is to be kept than there is, for ever included.
    const double most = static_cast<double>(slice.frames) / rate + 1.0;
    const qint64 keep = framesOfTime(std::fmin(std::fmax(keepSeconds, 0.0), most), rate);
    const qint64 excess = slice.frames - keep;
    if (excess <= 0 && shift == 0)
        return;
    if (excess > 0) {
        ring->produce(-excess);
        d->withheld = 0.0;
        ++d->generation;
    }
    d->frameBase.store(base + shift, std::memory_order_relaxed);
    // Counted from the clock, not from the last position: with two rates every step would round
    // to a frame of the source, and the steps would add up.
    const qint64 writeFrame = next + std::min(slice.frames, keep) + shift;
    d->readTime = static_cast<double>(writeFrame) / rate + d->withheld / sampleRate();
    d->clearPausePosition();
}

qint64 Source::bufferedFrames() const
{
    const FrameRing *ring = d->ring.load(std::memory_order_acquire);
    return ring ? ring->fillFrames() : 0;
}

quint64 Source::replacedSamples() const
{
    return d->replacedSamples.load(std::memory_order_relaxed);
}

double Source::pausePosition() const
{
    return -1.0;
}

qint32 Source::configFlags() const
{
    return 0;
}

void Source::notifyState(PlaybackState, const Config &) {}

void Source::onAdded(Engine *) {}

void Source::onFinished(StopReason) {}

void Source::onRunStart(double) {}

void Source::onStop() {}

void Source::onPause() {}

void Source::onResume() {}

Engine *Source::mixerEngine() const
{
    return d->engine;
}

Timeline *Source::timeline() const
{
    return d->timeline.load(std::memory_order_acquire);
}

} // namespace QTovelMixer
