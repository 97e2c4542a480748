// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_LOCK_RANK_P_H
#define QTOVELMIXER_BASE_LOCK_RANK_P_H

#include <base/priority_mutex_p.h>

#include <QtCore/QMutex>
#include <QtCore/QRecursiveMutex>
#include <QtCore/QtGlobal>

#if !defined(QT_NO_DEBUG) || defined(QT_FORCE_ASSERTS)
#define QTOVELMIXER_CHECKS_LOCKS 1
#else
#define QTOVELMIXER_CHECKS_LOCKS 0
#endif

namespace QTovelMixer {

/// The order in which one thread takes locks: every further one is of a higher rank than those it
/// holds. Only the rings are taken several at a time.
enum class LockRank {
    SinkRing,    ///< while a worker hands frames over, and during a change of the position
    SourceRing,  ///< while a worker fills its ring, and during a change of the mix
    Update,      ///< during a block, and during a change of the mix
    Freewheel,   ///< during a block that no device paces, and while the mix is suspended
    List,        ///< what is attached
    Sleep,       ///< a worker goes to sleep, or is woken
    Gate,        ///< a free-wheeling mix goes to sleep, or is woken
    Measurement, ///< a meter measures
    Values       ///< a meter publishes
};

#if QTOVELMIXER_CHECKS_LOCKS

/// What the calling thread holds. Allocates nothing.
namespace HeldLocks {

/// Whether taking the lock now keeps the order. A lock that the thread holds may be taken again
/// when it is `recursive`.
bool mayTake(LockRank rank, const void *lock, bool recursive) noexcept;
void taken(LockRank rank, const void *lock) noexcept;
void released(const void *lock) noexcept;
/// Whether the thread holds it.
bool holds(const void *lock) noexcept;

} // namespace HeldLocks

/// A lock that checks the order by assertion, where assertions are on; elsewhere it is the
/// lock alone. A try cannot wait for ever and so may come in any order.
template <typename Mutex, LockRank Rank, bool Recursive = false>
class RankedLock : public Mutex
{
public:
    void lock() noexcept
    {
        Q_ASSERT_X(HeldLocks::mayTake(Rank, this, Recursive), "lock order",
                   "a lock is taken under one that comes after it");
        Mutex::lock();
        HeldLocks::taken(Rank, this);
    }

    bool tryLock() noexcept
    {
        const bool locked = Mutex::tryLock();
        if (locked)
            HeldLocks::taken(Rank, this);
        return locked;
    }

    void unlock() noexcept
    {
        Q_ASSERT_X(HeldLocks::holds(this), "lock order", "a lock is released by another thread");
        HeldLocks::released(this);
        Mutex::unlock();
    }
};

#else

template <typename Mutex, LockRank, bool = false>
using RankedLock = Mutex;

#endif

template <LockRank Rank>
using RankedMutex = RankedLock<QMutex, Rank>;
template <LockRank Rank>
using RankedRecursiveMutex = RankedLock<QRecursiveMutex, Rank, true>;
/// For locks that the audio thread takes, and those taken under them.
template <LockRank Rank, bool Recursive = false>
using RankedPriorityMutex = RankedLock<PriorityMutex, Rank, Recursive>;

} // namespace QTovelMixer

#endif
