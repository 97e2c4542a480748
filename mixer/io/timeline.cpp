// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <base/log_line_p.h>
#include <mixer/io/timeline_p.h>

#include <QtCore/QDebug>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>

namespace QTovelMixer {

namespace {

constexpr double ticksPerSecond = 192000.0;

/// The nearest whole number of units; 0 for a time that has none.
qint64 unitsOf(double seconds, double unitsPerSecond) noexcept
{
    constexpr double beyond = 9223372036854775808.0; // 2^63
    const double units = seconds * unitsPerSecond + 0.5;
    return units > -beyond && units < beyond ? qint64(units) : 0;
}

/// Ticks of one pass; for one that never ends, or nearly so, more than any clock counts.
qint64 passTicks(double seconds) noexcept
{
    constexpr double most = 9.0e18;
    const bool ends = seconds * ticksPerSecond < most;
    return ends ? unitsOf(seconds, ticksPerSecond) : std::numeric_limits<qint64>::max();
}

bool contains(const Range &range, double x) noexcept
{
    return range.start <= x && x < range.end;
}

double length(const Range &range) noexcept
{
    return range.end - range.start;
}

} // namespace

double finiteTime(double seconds) noexcept
{
    return std::isfinite(seconds) ? seconds : 0.0;
}

double endTime(double seconds) noexcept
{
    return seconds == std::numeric_limits<double>::infinity() ? seconds : finiteTime(seconds);
}

int searchRanges(const std::vector<Range> &ranges, double x) noexcept
{
    int lo = 0;
    int hi = int(ranges.size()) - 1;
    for (;;) {
        const int mid = lo + (hi - lo) / 2;
        const Range &range = ranges[size_t(mid)];
        if (range.start > x) {
            if (hi - lo < 2)
                return (lo >= 2 ? lo : 1) - 1;
            hi = mid - 1;
        } else if (x > range.end) {
            if (mid >= hi)
                return hi;
            lo = mid + 1;
        } else {
            return mid;
        }
    }
}

Timeline::Data::Position Timeline::Data::positionAt(double mixerTime) const noexcept
{
    Position position;
    if (looping) {
        const qint64 pass = passTicks(playDuration);
        if (pass > 0)
            position.rel = double(unitsOf(mixerTime, ticksPerSecond) % pass) / ticksPerSecond;
    } else {
        position.rel = mixerTime - timeOffset;
    }
    if (!chunks.isEmpty()) {
        position.chunk = chunks.find(position.rel);
        if (!position.chunk) {
            position.outside = true;
            return position;
        }
        position.rel += position.chunk->start;
    }
    position.outside = position.rel < 0.0;
    return position;
}

inline double Timeline::Data::timeOf(double rel, bool outside, bool clamp, double playStart,
                                     double pausePosition) const noexcept
{
    if (outside)
        return clamp ? limits.start : -1.0;
    double time = rel + limits.start;
    if (pausePosition >= 0.0 && (playStart <= pausePosition || playStart > time))
        time = std::min(time, pausePosition);
    if (time > limits.end)
        return clamp ? limits.end : -1.0;
    return time;
}

[[gnu::noinline]] double Timeline::Data::windingTime(double mixerTime, bool clamp, double playStart,
                                                     double pausePosition) const noexcept
{
    if (const std::optional<double> rel = remembered.at(mixerTime))
        return timeOf(*rel, std::isnan(*rel), clamp, playStart, pausePosition);
    const Position position = positionAt(mixerTime);
    return timeOf(position.rel, position.outside, clamp, playStart, pausePosition);
}

void Timeline::Data::remember(double mixerTime) noexcept
{
    const Position position = positionAt(mixerTime);
    remembered.store(mixerTime, position.outside ? std::nan("") : position.rel);
}

void RememberedPosition::store(double mixerTime, double rel) noexcept
{
    const unsigned version = m_version.load(std::memory_order_relaxed);
    m_version.store(version + 1, std::memory_order_relaxed);
    m_mixerTime.store(mixerTime, std::memory_order_release);
    m_rel.store(rel, std::memory_order_release);
    m_version.store(version + 2, std::memory_order_release);
}

void RememberedPosition::forget() noexcept
{
    store(none, none);
}

Timeline::Timeline() : d(std::make_unique<Data>())
{
    reset();
}

Timeline::~Timeline() = default;

void Timeline::reset()
{
    d->slices.clear();
    d->limits = Range();
    d->update(0);
    d->timeOffset = 0.0;
}

double Timeline::start() const
{
    return d->limits.start;
}

double Timeline::end() const
{
    return d->limits.end;
}

double Timeline::duration() const
{
    return std::max(d->limits.end - d->limits.start, 0.0);
}

bool Timeline::isLooping() const
{
    return d->looping;
}

void Timeline::setLooping(bool looping)
{
    d->looping = looping;
    d->remembered.forget();
}

bool Timeline::hasSlices() const
{
    return !d->chunks.isEmpty();
}

void Timeline::setLimits(double start, double end)
{
    d->limits = {finiteTime(start), endTime(end)};
    d->update(0);
}

bool Timeline::limitsExpanded(double start, double end) const
{
    return d->limits.start < 0.0 || d->limits.end < 0.0 || start < d->limits.start ||
           end > d->limits.end;
}

bool Timeline::limitsCollapsed(double start, double end) const
{
    return d->limits.start < 0.0 || d->limits.end < 0.0 || start > d->limits.start ||
           end < d->limits.end;
}

double Timeline::time(double mixerTime, bool clamp, double playStart, double pausePosition) const
{
    const Data &data = *d;
    const double now = finiteTime(mixerTime);
    if (data.looping || !data.chunks.isEmpty())
        return data.windingTime(now, clamp, playStart, pausePosition);
    const double rel = now - data.timeOffset;
    return data.timeOf(rel, rel < 0.0, clamp, playStart, pausePosition);
}

double Timeline::position(double mixerTime) const
{
    const double now = finiteTime(mixerTime);
    if (d->limits.start < 0.0 || d->limits.end < 0.0)
        return std::max(now, 0.0);
    const std::vector<Range> &chunks = d->chunks.ranges();
    const double earliest = chunks.empty() ? 0.0 : chunks.front().start;
    const double latest = chunks.empty() ? duration() : chunks.back().end;
    const Data::Position position = d->positionAt(now);
    const bool isPastTheLast = !chunks.empty() && !position.chunk;
    const double rel = isPastTheLast ? latest : position.rel;
    return d->limits.start + std::max(earliest, std::min(rel, latest));
}

double Timeline::mixer_time(double position) const
{
    const double rel = finiteTime(position) - d->limits.start;
    double result = rel;
    if (!d->chunks.isEmpty()) {
        const size_t found = size_t(searchRanges(d->chunks.ranges(), rel));
        const Range &chunk = d->chunks.ranges()[found];
        result = -1.0;
        if (contains(chunk, rel))
            result = d->chunks.startOf(found) + (rel - chunk.start);
    }
    return std::max(0.0, std::min(result, duration()));
}

std::pair<double, double> Timeline::nextChunk(double mixerTime, double span, int rate,
                                              int depth) const
{
    const std::pair<double, double> nothing(0.0, 0.0);
    if (rate < 1)
        return nothing;
    const double wanted = finiteTime(span);
    double time = finiteTime(mixerTime);
    for (; depth <= 2; ++depth) {
        const Data::Position position = d->positionAt(time);
        const double where = position.rel + d->limits.start;
        if (position.outside || where > d->limits.end || where < 0.0)
            return nothing;

        const double rel = where - d->limits.start;
        double len = 0.0;
        if (d->chunks.isEmpty()) {
            len = std::min(duration() - rel, wanted);
        } else {
            const Range &chunk = d->chunks.ranges()[size_t(searchRanges(d->chunks.ranges(), rel))];
            len = std::min(contains(chunk, rel) ? chunk.end - rel : 0.0, wanted);
        }
        if (len <= 0.0 && d->playDuration <= 0.0)
            return nothing;

        if (d->looping) {
            if (unitsOf(len, rate) > 0)
                return {rel + d->limits.start, len};
        } else {
            if (len > 0.0)
                len = std::max(len, 1.0 / rate);
            if (len != 0.0)
                return {rel + d->limits.start, len};
        }
        time = double(unitsOf(time, rate) + 1) / rate;
    }
    return nothing;
}

double Timeline::currentChunkEnd(double time) const
{
    const std::vector<Range> &chunks = d->chunks.ranges();
    if (chunks.empty())
        return d->limits.end;
    // A time that counts from the start limit: not what the answer without chunks counts from.
    const double x = finiteTime(time);
    const Range &chunk = chunks[size_t(searchRanges(chunks, x))];
    return contains(chunk, x) ? chunk.end : 0.0;
}

double Timeline::timeToLoop(double mixerTime) const
{
    const Data::Position position = d->positionAt(finiteTime(mixerTime));
    const std::vector<Range> &chunks = d->chunks.ranges();
    if (chunks.empty())
        return d->limits.end - (d->limits.start + position.rel);
    if (position.outside)
        return 0.0;
    const size_t found = size_t(searchRanges(chunks, position.rel));
    const Range &last = chunks.back();
    // With chunks still to come the engine keeps no more of them than the last one's length.
    if (found + 1 < chunks.size())
        return length(last);
    return contains(last, position.rel) ? std::max(last.end - position.rel, 0.0) : 0.0;
}

void Timeline::adjustLoopTime(double mixerTime)
{
    const double time = finiteTime(mixerTime);
    d->timeOffset = 0.0;
    d->remembered.forget();
    if (d->playDuration <= 0.0 || d->playDuration == time)
        return;
    const qint64 now = unitsOf(time, ticksPerSecond);
    const qint64 pass = passTicks(d->playDuration);
    const qint64 intoPass = pass > 0 ? now % pass : 0;
    d->timeOffset = double(now - intoPass) / ticksPerSecond;
}

double Timeline::maxBlockDuration(double mixerTime) const
{
    const Data::Position position = d->positionAt(finiteTime(mixerTime));
    if (position.outside)
        return 0.0;
    const double end = position.chunk ? position.chunk->end : duration();
    return std::max(0.0, end - position.rel);
}

void Timeline::debug(const QString &label) const
{
    composeLine(QtInfoMsg, [&](QDebug &line) {
        line.nospace().noquote() << label << (label.isEmpty() ? "" : " ") << "Timeline {"
                                 << "\n   start: " << d->limits.start
                                 << "\n   end: " << d->limits.end << "\n   duration: " << duration()
                                 << "\n   looped_time: " << d->playDuration
                                 << "\n   loop: " << d->looping << "\n}";
    });
}

void Timeline::printTimeline() const
{
    if (d->chunks.isEmpty()) {
        std::cerr << "[]\n";
        return;
    }
    std::cerr << "[ ";
    for (const Range &chunk : d->chunks.ranges())
        std::cerr << '[' << chunk.start << ',' << chunk.end << ']';
    std::cerr << '\n';
}

} // namespace QTovelMixer
