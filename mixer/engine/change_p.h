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

/// The bracket round every change of the mix: what holds blocks and workers off, and the position
/// that playback goes on from.
struct EngineChange
{
    /// What the end of a bracket does with the clock.
    enum class Position {
        Keep,           ///< playback stays where it is in the material
        Restart,        ///< the timeline was reset: everything goes to the beginning
        RestartPlayback ///< as Restart, but sinks that still record keep what they have
    };

    void update_lock();
    void update_unlock();
    void endBracket(Position position);
    /// Moves everything to where the position of the snapshot is now.
    void moveTo(Position position);
    /// The bracket's locks without its snapshot of the position.
    void lockMix();
    void unlockMix();
    void releaseWorkers();
    /// Holds the workers of the sinks off: the outermost bracket, while the mix goes on.
    void holdSinks();
    void update_source_lock();
    void update_source_unlock();
    void takeSnapshot();
    /// Suspends the mix, between two free-wheeling blocks.
    void raiseHold();

    // Main thread
    int bracketDepth = 0;
    std::vector<Source *> lockedSources; ///< by the outermost bracket
    std::vector<Sink *> lockedSinks;     ///< by the outermost bracket
    double savedTime = 0.0;              ///< seconds
    double savedTimelineTime = 0.0;      ///< seconds in the material
    double savedLoopOffset = 0.0;        ///< seconds

    // Shared
    std::atomic<int> holdCount{0}; ///< while non-zero neither sources nor the clock move
    std::atomic<int> resuming{0};  ///< as holdCount, until every source has resumed
    BlockGate gate;                ///< where a mix that no device paces waits
    HoldLock holdLock;             ///< taken under updateLock or alone
    mutable UpdateLock updateLock;
};

/// The bracket as a scope.
class MixBracket
{
public:
    explicit MixBracket(EngineChange &record) : change(record) { change.update_lock(); }
    ~MixBracket() { change.endBracket(position); }
    Q_DISABLE_COPY_MOVE(MixBracket)

    EngineChange::Position position = EngineChange::Position::Keep;

private:
    EngineChange &change;
};

/// The bracket's locks as a scope: nothing plays and nothing is mixed meanwhile.
class MixHold
{
public:
    explicit MixHold(EngineChange &record) : change(record) { change.lockMix(); }
    ~MixHold() { change.unlockMix(); }
    Q_DISABLE_COPY_MOVE(MixHold)

private:
    EngineChange &change;
};

} // namespace QTovelMixer

#endif
