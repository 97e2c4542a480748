// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_CHANGE_P_H
#define QTOVELMIXER_MIXER_ENGINE_CHANGE_P_H

#include <mixer/engine.h>
#include <mixer/engine/block_gate_p.h>
#include <mixer/engine/block_lock_p.h>

#include <atomic>
#include <vector>

namespace QTovelMixer {

/// Counts down, but never below zero. Returns whether it did.
inline bool decrement(std::atomic<int> &counter) noexcept
{
    int value = counter.load();
    while (value > 0) {
        if (counter.compare_exchange_weak(value, value - 1))
            return true;
    }
    return false;
}

struct EngineChange;

/// A change of the mix as a scope. While it lasts the mix is suspended: no block renders a source,
/// feeds a sink or moves the clock. Changes nest; only the outermost takes the workers' locks.
/// Threads: main.
class MixChange
{
public:
    enum Kind {
        Sources,        ///< of what sources read: keeps their workers from it
        Everything,     ///< keeps the workers of sinks away too; sets the clock itself, if at all
        KeepPosition,   ///< as Everything; playback then goes on from where it is in the material
        Restart,        ///< as Everything; everything then goes to the beginning of the material
        RestartPlayback ///< as Restart, but sinks that still record keep what they have
    };

    MixChange(EngineChange &record, Kind kind);
    ~MixChange();
    Q_DISABLE_COPY_MOVE(MixChange)

    /// What a change does that waits for workers afterwards, in this order: the mix stays suspended
    /// to the end of the scope, but blocks need not wait for the update lock any more,
    void releaseBlocks();
    /// and the workers go on.
    void releaseWorkers();

private:
    EngineChange &m_record;
    const Kind m_kind;
    bool m_blocksWait = true;
    bool m_workersWait = true;
};

/// What a change of the mix locks and suspends, and the position that playback goes on from.
struct EngineChange
{
    // The steps of a change, which `MixChange` makes a scope of.
    void begin(MixChange::Kind kind);
    void releaseBlocks(MixChange::Kind kind);
    void releaseWorkers();
    void end();

    // A change that keeps the position, without a scope.
    void update_lock();
    void update_unlock();

    void update_source_lock();
    void update_source_unlock();
    void lockSinks();
    /// From the next block on, no source and no sink takes part and the clock stands still.
    void suspend();
    void takeSnapshot();
    /// Moves everything to where the position of the snapshot is now.
    void restorePosition(MixChange::Kind kind);

    // Main thread
    int changeDepth = 0;
    std::vector<Source *> lockedSources; ///< by the outermost change
    std::vector<Sink *> lockedSinks;     ///< by the outermost change
    double savedTime = 0.0;              ///< seconds
    double savedTimelineTime = 0.0;      ///< seconds in the material
    double savedLoopOffset = 0.0;        ///< seconds

    // Shared
    std::atomic<int> holdCount{
        0}; ///< suspensions: while non-zero neither sources nor the clock move
    std::atomic<int> resuming{0}; ///< as holdCount, until every source has resumed
    BlockGate gate;               ///< where a mix that no device paces waits
    FreewheelLock freewheelLock;  ///< taken under updateLock or alone
    mutable UpdateLock updateLock;
};

} // namespace QTovelMixer

#endif
