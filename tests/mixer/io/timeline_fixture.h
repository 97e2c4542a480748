// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_IO_TIMELINE_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_IO_TIMELINE_FIXTURE_H

#include <mixer/io/timeline.h>
#include <mixer/io/timeline_p.h>

#include <QtCore/QString>

#include <limits>
#include <vector>

using Ranges = std::vector<QTovelMixer::Range>;

inline constexpr double tick = 1.0 / 192000.0;
inline constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
inline constexpr double infinite = std::numeric_limits<double>::infinity();

/// Sums of a few doubles of this size are off by less.
inline constexpr double rounding = 1e-12;

inline const Ranges &slicesOf(const QTovelMixer::Timeline &timeline)
{
    return QTovelMixer::TimelineAccess::data(timeline).slices;
}

inline const Ranges &chunksOf(const QTovelMixer::Timeline &timeline)
{
    return QTovelMixer::TimelineAccess::data(timeline).chunks.ranges();
}

inline double passOf(const QTovelMixer::Timeline &timeline)
{
    return QTovelMixer::TimelineAccess::data(timeline).playDuration;
}

inline void fillTimeline(QTovelMixer::Timeline &timeline, double start, double end,
                         const Ranges &slices)
{
    timeline.setLimits(start, end);
    for (const QTovelMixer::Range &slice : slices)
        timeline.addSlice(slice.start, slice.end);
}

inline double timeOf(const QTovelMixer::Timeline &timeline, double mixerTime)
{
    return timeline.time(mixerTime, false, 0.0, -1.0);
}

inline QString textOf(const Ranges &ranges)
{
    QString text;
    for (const QTovelMixer::Range &range : ranges)
        text += QStringLiteral("[%1,%2]").arg(range.start).arg(range.end);
    return text;
}

#endif
