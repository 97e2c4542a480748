// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_TIMELINE_P_H
#define QTOVELMIXER_MIXER_IO_TIMELINE_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/io/chunk_list_p.h>
#include <mixer/io/timeline.h>
#include <mixer/types.h>

#include <atomic>
#include <limits>
#include <optional>
#include <vector>

namespace QTovelMixer {

/// The last position that a block looked up, for all who ask for the same time. One thread at a
/// time writes, any may read without waiting.
class QTOVELMIXER_HIDDEN RememberedPosition
{
public:
    /// The position remembered for a mixer time; NaN outside the material, nothing for other times.
    std::optional<double> at(double mixerTime) const noexcept QTOVELMIXER_NONBLOCKING;
    void store(double mixerTime, double rel) noexcept QTOVELMIXER_NONBLOCKING;
    void forget() noexcept;

private:
    static constexpr double none = std::numeric_limits<double>::quiet_NaN();

    std::atomic<unsigned> m_version{0}; // odd during a store
    std::atomic<double> m_mixerTime{none};
    std::atomic<double> m_rel{none};
};

inline std::optional<double>
RememberedPosition::at(double mixerTime) const noexcept QTOVELMIXER_NONBLOCKING
{
    // Whoever sees a value of a later store sees that store's version as well.
    const unsigned version = m_version.load(std::memory_order_acquire);
    const bool isSame = m_mixerTime.load(std::memory_order_acquire) == mixerTime;
    const double rel = m_rel.load(std::memory_order_acquire);
    if (!isSame || version % 2 != 0 || m_version.load(std::memory_order_acquire) != version)
        return std::nullopt;
    return rel;
}

struct QTOVELMIXER_HIDDEN Timeline::Data
{
    Range limits;              // seconds
    double playDuration = 0.0; // seconds that one pass plays
    double timeOffset = 0.0;   // seconds, taken off the mixer time when not looping
    bool looping = false;
    std::vector<Range> slices; // the host's selections; sorted, disjoint
    ChunkList chunks;          // the slices within the limits, relative to limits.start; has room
                               // for all of them
    size_t firstPlayed = 0;    // index of the first chunk's slice; the others follow it
    RememberedPosition remembered;

    /// Where a mixer time lies.
    struct Position
    {
        double rel = 0.0;             // seconds from the start limit
        const Range *chunk = nullptr; // the chunk reached, null without chunks
        bool outside = false;
    };
    /// Makes room for one more slice. Errors: out of memory, then nothing has changed.
    void makeRoom();
    /// Makes the chunks of the slices from index `changed` on; those before it are as they were,
    /// and so are the limits unless it is 0.
    void update(size_t changed) noexcept;
    /// Looks a position up for everybody who asks for the same time before the next edit.
    void remember(double mixerTime) noexcept QTOVELMIXER_NONBLOCKING;
    Position positionAt(double mixerTime) const noexcept QTOVELMIXER_NONBLOCKING;

    /// What `Timeline::time` answers of a position.
    double timeOf(double rel, bool outside, bool clamp, double playStart,
                  double pausePosition) const noexcept QTOVELMIXER_NONBLOCKING;
    /// `Timeline::time` with a loop or with selections.
    double windingTime(double mixerTime, bool clamp, double playStart,
                       double pausePosition) const noexcept QTOVELMIXER_NONBLOCKING;
};

/// The engine's and the tests' way to the private record.
struct TimelineAccess
{
    static const Timeline::Data &data(const Timeline &timeline) { return *timeline.d; }

    /// Before the sources of a block ask for its position one after another.
    static void remember(Timeline &timeline, double mixerTime) noexcept QTOVELMIXER_NONBLOCKING
    {
        Timeline::Data &data = *timeline.d;
        if (data.looping || !data.chunks.isEmpty())
            data.remember(mixerTime);
    }
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
