// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_TIMELINE_P_H
#define QTOVELMIXER_MIXER_IO_TIMELINE_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/io/timeline.h>
#include <mixer/types.h>

#include <vector>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Timeline::Data
{
    Range limits;              // seconds
    double playDuration = 0.0; // seconds that one pass plays
    double timeOffset = 0.0;   // seconds, taken off the mixer time when not looping
    bool looping = false;
    std::vector<Range> slices; // the host's selections; sorted, disjoint
    std::vector<Range> chunks; // the slices within the limits, relative to limits.start

    /// Where a mixer time lies.
    struct Position
    {
        double rel = 0.0;             // seconds from the start limit
        const Range *chunk = nullptr; // the chunk reached, null without chunks
        bool outside = false;
    };
    /// Makes these the limits and the selections, or changes nothing when memory runs out.
    void change(const Range &wantedLimits, std::vector<Range> wantedSlices);
    Position positionAt(double mixerTime) const noexcept QTOVELMIXER_NONBLOCKING;

    /// What `Timeline::time` answers of a position.
    double timeOf(double rel, bool outside, bool clamp, double playStart,
                  double pausePosition) const noexcept QTOVELMIXER_NONBLOCKING;
    /// `Timeline::time` with a loop or with selections.
    double windingTime(double mixerTime, bool clamp, double playStart,
                       double pausePosition) const noexcept QTOVELMIXER_NONBLOCKING;
};

/// The tests' way to the private record.
struct TimelineAccess
{
    static const Timeline::Data &data(const Timeline &timeline) { return *timeline.d; }
};

/// Index of the range that contains x, else of the one before x, else 0. `ranges` is not empty,
/// sorted and disjoint.
int searchRanges(const std::vector<Range> &ranges, double x) noexcept QTOVELMIXER_NONBLOCKING;

/// The time itself, or 0 when it is not finite.
double finiteTime(double seconds) noexcept QTOVELMIXER_NONBLOCKING;

/// The same for an end, which may be infinity.
double endTime(double seconds) noexcept QTOVELMIXER_NONBLOCKING;

} // namespace QTovelMixer

#endif
