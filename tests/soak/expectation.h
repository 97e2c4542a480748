// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SOAK_EXPECTATION_H
#define QTOVELMIXER_TESTS_SOAK_EXPECTATION_H

#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <array>
#include <atomic>
#include <limits>
#include <vector>

/// Which stretches of the material a session plays, one after the other; frames of the mixer.
struct Score
{
    struct Stretch
    {
        qint64 begin;
        qint64 end;
    };
    struct Place
    {
        qint64 frame;    ///< of the material
        qint64 distance; ///< frames to the nearest jump
    };

    std::vector<Stretch> stretches;
    bool looping = false;

    qint64 length() const;
    Place placeAt(qint64 clockFrame) const;
};

constexpr int sourceSlots = 32;

/// What all sinks share.
struct Ledger
{
    Score score;
    /// Where on the clock the source of a slot has come in, or was moved to.
    std::array<std::atomic<qint64>, sourceSlots> joined;
    std::atomic<qint64> patience{0}; ///< frames that may be silent after a jump

    std::atomic<const char *> operation{""}; ///< the last one
    std::atomic<qint64> frames{0};           ///< recorded
    std::atomic<qint64> verified{0};         ///< samples compared
    std::atomic<qint64> waited{0};           ///< of these, silent ones while sources were read anew
    std::atomic<qint64> lost{0};             ///< of these, those that are not what they had to be

    /// The first few go to standard error.
    void reportLoss(const QString &what, qint64 samples = 1);
};

/// What one channel of a sink has to record: at any time the material of one source, or silence.
/// The main thread announces each change before it makes it and confirms it afterwards; the frames
/// in between may be either.
class Expectation
{
public:
    struct Route
    {
        int source = -1; ///< none
        float gain = 1.0f;
    };

    explicit Expectation(Ledger &ledger);

    /// A change that blocks from this frame of the clock on may see.
    void announce(const Route &route, qint64 frame);
    /// Blocks from this frame on see it.
    void confirm(qint64 frame);
    Route route() const;

    /// The clock jumped to this frame: what is recorded from now on knows of no earlier change.
    void jump(qint64 frame);

    /// Compares `count` samples, `stride` apart, that were recorded from this frame on.
    void verify(const float *samples, qint64 frame, qint64 count, int stride);

private:
    static constexpr qint64 never = std::numeric_limits<qint64>::max();

    struct Change
    {
        Route route;
        qint64 from;
        qint64 certain;
    };

    std::vector<Change> changesAt(qint64 frame);
    void verifyRun(const Route *allowed, size_t routes, const float *samples, qint64 frame,
                   qint64 count, int stride);
    qint64 joinFrame(const Route &route) const;
    bool matches(const Route &route, float sample, const Score::Place &place, qint64 frame) const;
    bool maySilence(const Route *allowed, size_t routes, qint64 frame) const;

    Ledger &m_ledger;
    mutable QMutex m_mutex;
    std::vector<Change> m_changes; ///< guarded by m_mutex, never empty

    // Of the sink's worker, and of the main thread while it holds the worker off.
    qint64 m_jumpFrame = 0;
};

#endif
