// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_TIMELINE_H
#define QTOVELMIXER_MIXER_IO_TIMELINE_H

#include <base/export.h>
#include <base/nonblocking.h>

#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <memory>
#include <utility>

namespace QTovelMixer {

/// Maps the mixer's running clock onto positions in the host's material: play limits, selected
/// stretches (slices) that are played one after another, and looping.
///
/// The slices, clipped to the limits, are the chunks that are played; without any chunk the
/// whole span between the limits is played. Mixer times count from the start of playback and
/// grow without end; positions are times of the material. Both are seconds. Times are wrapped
/// and looked up on a grid of 1/192000 second. The end of the limits and of a selection may be
/// infinity: such a pass never ends, and never wraps. Any other time that is not finite counts as
/// 0.
///
/// The engine owns its timelines and hands them to its sources; the host edits them through the
/// engine. `Engine::addSource` sets the limits to the span of a source that they do not cover;
/// `Engine::stop` and `deactivate` reset the timeline, so that a host sets limits and selections
/// anew before each start. Threads: the questions (the const operations) any, but none may run
/// beside an edit; the engine holds its sources and the mix off during one. Edits: main. Real-time:
/// the questions yes, except for `debug` and `printTimeline`; the edits no.
class QTOVELMIXER_EXPORT Timeline
{
    Q_DISABLE_COPY_MOVE(Timeline)

public:
    /// Unset limits (−1, −1), no slices, not looping.
    Timeline();
    virtual ~Timeline();

    /// Clears the slices and unsets the limits; looping stays.
    void reset();

    /// The limits.
    double start() const QTOVELMIXER_NONBLOCKING;
    double end() const QTOVELMIXER_NONBLOCKING;

    /// The length between the limits, 0 when they are reversed, infinity for endless material.
    double duration() const QTOVELMIXER_NONBLOCKING;

    bool isLooping() const;

    /// Wraps the mixer time around the length of one pass, or no longer.
    void setLooping(bool looping);

    /// True when a selected stretch lies within the limits.
    bool hasSlices() const;

    /// Sets the limits of the material; the slices are clipped to them anew.
    void setLimits(double start, double end);

    /// Selects a stretch, given in positions of the material in either order. Slices that the
    /// stretch touches become one with it. A stretch that starts in a gap and ends beyond the
    /// next slice's start is joined with the slice before the gap as well. At an end that sums of
    /// seconds reach only nearly, a source reads one frame too many or steps over one; ends on
    /// quarter seconds are exact at all usual rates.
    void addSlice(double start, double end);

    /// Takes a stretch out of the selection. A stretch that shares exactly one bound with the
    /// only slice that it meets changes nothing. A stretch from a gap into a later slice makes
    /// the slice before the gap end where the stretch starts.
    void removeSlice(double start, double end);

    void clearSlices();

    /// Rebuilds the chunks from slices and limits. Every edit does this itself.
    void update();

    /// True when the limits are unset or (start, end) reaches beyond them.
    bool limitsExpanded(double start, double end) const;

    /// True when the limits are unset or (start, end) lies inside them.
    bool limitsCollapsed(double start, double end) const;

    /// The position at a mixer time. Outside the material: the nearest limit when `clamp`,
    /// else −1. A `pausePosition` of 0 or more bounds the position, if `playStart` does not lie
    /// beyond it or lies beyond the position.
    double time(double mixerTime, bool clamp, double playStart,
                double pausePosition) const QTOVELMIXER_NONBLOCKING;

    /// Where playback stands at a mixer time: as `time`, but before the first selected stretch its
    /// start and after the last one its end. While the limits are not set, the mixer time itself.
    double position(double mixerTime) const QTOVELMIXER_NONBLOCKING;

    /// The mixer time of the first pass at a position, between 0 and the distance of the limits;
    /// 0 for a position outside every chunk.
    double mixer_time(double position) const;

    /// What to read next at a mixer time: the position where it starts and its length, at most
    /// `span` seconds; (0, 0) at the end of the material. Where less than one frame of `rate`
    /// (Hz) is left of a chunk, the time moves on by one frame; `depth` counts these steps, and
    /// more than two give (0, 0). A length below 0 means that there is nothing to read.
    std::pair<double, double> nextChunk(double mixerTime, double span, int rate, int depth) const;

    /// Without chunks the end of the material. With chunks the end of the chunk that contains
    /// `time`, both relative to the start limit, and 0 when no chunk does.
    double currentChunkEnd(double time) const;

    /// How long playback may go on at a mixer time before the position wraps, as the engine
    /// uses it to cut buffers: the rest of the limits or of the last chunk, and the length of
    /// the last chunk while an earlier one plays; 0 after the last chunk.
    double timeToLoop(double mixerTime) const;

    /// Takes the start of the pass that plays at a mixer time as the origin of the clock, so
    /// that the position stays the same when looping ends.
    void adjustLoopTime(double mixerTime);

    /// The longest stretch from a mixer time on that plays without a jump: the rest of its chunk
    /// or of the limits, 0 outside.
    double maxBlockDuration(double mixerTime) const;

    /// Writes the state to the log, after the label: limits, their distance, the length of one
    /// pass, looping. Threads: main.
    void debug(const QString &label) const;

    /// Writes the chunks, relative to the start limit, to the standard error stream.
    /// Threads: main.
    void printTimeline() const;

private:
    friend struct TimelineAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
