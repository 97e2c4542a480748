// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_BLOCK_GATE_P_H
#define QTOVELMIXER_MIXER_ENGINE_BLOCK_GATE_P_H

#include <base/lock_rank_p.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QWaitCondition>

#include <atomic>

namespace QTovelMixer {

/// Where a mix that has no device to pace it waits for the workers. A worker posts after every
/// change that may let a block go on; while nobody waits, that costs one atomic operation.
///
/// Whoever waits announces itself first, then looks whether it has to wait at all: of its
/// announcement and a worker's post one sees the other, so that no wake-up is lost.
class BlockGate
{
public:
    /// Announces a wait. Answers the mark to wait with.
    unsigned announce()
    {
        m_waiting.fetch_add(1);
        const QMutexLocker lock(&m_mutex);
        return m_posts;
    }

    /// Takes the announcement back.
    void leave() noexcept { m_waiting.fetch_sub(1); }

    /// Waits for a post since the mark was given. Errors: false when the time is over.
    bool wait(unsigned mark, int milliseconds)
    {
        const QDeadlineTimer end(milliseconds);
        QMutexLocker lock(&m_mutex);
        while (m_posts == mark) {
            if (!m_posted.wait(&m_mutex, end))
                return m_posts != mark;
        }
        return true;
    }

    /// Threads: any but audio.
    void post()
    {
        // A change of the same value: a plain look could pass the worker's own writes.
        if (m_waiting.fetch_add(0) == 0)
            return;
        const QMutexLocker lock(&m_mutex);
        ++m_posts;
        m_posted.wakeAll();
    }

private:
    std::atomic<int> m_waiting{0};
    RankedMutex<LockRank::Gate> m_mutex;
    QWaitCondition m_posted;
    unsigned m_posts = 0; ///< guarded by m_mutex
};

} // namespace QTovelMixer

#endif
