// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_ATTACHED_P_H
#define QTOVELMIXER_MIXER_ENGINE_ATTACHED_P_H

#include <base/lock_rank_p.h>
#include <base/nonblocking.h>
#include <mixer/engine.h>

#include <QtCore/QPointer>
#include <QtCore/QTimer>
#include <QtCore/QVarLengthArray>

#include <algorithm>
#include <atomic>
#include <map>
#include <vector>

namespace QTovelMixer {

/// The channels of a source or sink; a host may return less than none.
template <typename T>
unsigned channelsOf(const T *object)
{
    return unsigned(std::max(0, int(object->numChannels())));
}

/// The buses of a listed object. Asks the host nothing, so that the object may be half destroyed.
unsigned busesOf(const Source *source) noexcept QTOVELMIXER_NONBLOCKING;
unsigned busesOf(const Sink *sink) noexcept QTOVELMIXER_NONBLOCKING;

/// What is listed at a moment. With no more than there are buses for, it takes no memory: whatever
/// stops and ends things has to work when there is none.
template <typename T>
using Snapshot = QVarLengthArray<T *, 128>;

/// The sources and sinks of the mix, and those on their way out of it: an object is attached, then
/// detached, then retired until the event loop destroys it.
struct EngineAttached
{
    /// What the engine remembers of a source or sink while it is in the mix.
    struct Link
    {
        QMetaObject::Connection connections[3];
        float gain = 1.0f;        ///< given when it was added; needed again when buses are rebuilt
        bool holdsStream = false; ///< counted in streamUsers
        bool paused = false;      ///< by `pause`, and not resumed since
    };

    explicit EngineAttached(Engine *owner);

    int users() const { return int(sources.size() + sinks.size()); }
    bool contains(const Source *source) const;
    bool contains(const Sink *sink) const;
    /// Something in the mix was not told to stop.
    bool hasLiveUsers() const;
    /// Something in the mix was not told to stop, and has a worker.
    bool hasWorkingUsers() const;
    /// Removes, from the event loop, what was told to stop before it was ever started: it has no
    /// thread that could end.
    void removeUnstarted();
    /// Does at once whatever could not be queued for want of memory.
    void cleanUp();

    // The objects' own operations, which hosts override.
    void on_add(Source *source, Engine *owner);
    void on_add(Sink *sink, Engine *owner);
    void setSourceChannelMask(Source *source, unsigned long long mask);
    void setSourceTimeline(Source *source, Timeline *timeline);

    // Main thread
    std::map<const Source *, Link> sourceLinks;
    std::map<const Sink *, Link> sinkLinks;
    std::vector<QPointer<Source>> retiredSources; ///< detached, deletion queued
    std::vector<QPointer<Sink>> retiredSinks;
    QTimer *cleanUpTimer; ///< calls `cleanUp`; has its connection since the engine was made

    // Written on the main thread, read anywhere
    std::atomic<unsigned> sourceCount{0};
    std::atomic<unsigned> sinkCount{0};
    std::atomic<int> streamUsers{0}; ///< those that forbid edits of the timeline

    /// Guards the two lists for readers on any thread; the main thread changes them holding the
    /// update lock as well. Whoever holds this one takes no other lock but those of rank `Sleep`.
    mutable RankedPriorityMutex<LockRank::List> listLock;
    std::vector<Source *> sources;
    std::vector<Sink *> sinks;
};

} // namespace QTovelMixer

#endif
