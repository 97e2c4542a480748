// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_BLOCK_LOCK_P_H
#define QTOVELMIXER_MIXER_ENGINE_BLOCK_LOCK_P_H

#include <base/lock_rank_p.h>
#include <base/nonblocking.h>

namespace QTovelMixer {

/// Held for a block, and for a change of the mix. Recursive. Its owner inherits the priority of an
/// audio thread that waits for it.
class UpdateLock
{
public:
    /// For a change: log lines of the thread wait until the last `unlock`, since a message handler
    /// may take any time.
    void lock() noexcept;
    bool tryLock() noexcept;
    void unlock() noexcept;

    bool inheritsPriority() const noexcept { return m_mutex.inheritsPriority(); }

private:
    friend class BlockLock;
    RankedPriorityMutex<LockRank::Update, true> m_mutex;
};

/// Held for a block that no device paces, and to suspend the mix.
class FreewheelLock : public RankedPriorityMutex<LockRank::Freewheel>
{};

/// The engine's update lock for one block: the only lock that the audio thread takes, and the one
/// place where it may wait. The main thread holds it for changes of the mix only; a backend that
/// must not wait asks for one try. A block that no device paces takes the free-wheel lock as well.
/// Whatever thread it is, it counts as an audio thread meanwhile.
class BlockLock
{
public:
    /// `freewheel` is null for a device's block.
    BlockLock(UpdateLock &updateLock, bool wait,
              FreewheelLock *freewheel) noexcept QTOVELMIXER_NONBLOCKING;
    ~BlockLock() noexcept QTOVELMIXER_NONBLOCKING;
    Q_DISABLE_COPY_MOVE(BlockLock)

    bool isLocked() const noexcept { return m_locked; }

private:
    UpdateLock &m_updateLock;
    FreewheelLock *m_freewheel;
    bool m_locked;
};

} // namespace QTovelMixer

#endif
