// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_SINK_P_H
#define QTOVELMIXER_MIXER_IO_SINK_P_H

#include <base/hidden_p.h>
#include <base/lock_rank_p.h>
#include <base/nonblocking.h>
#include <mixer/io/frame_ring_p.h>
#include <mixer/io/resampler_bank_p.h>
#include <mixer/io/sink.h>
#include <mixer/io/worker_sleep_p.h>

#include <QtCore/QPointer>

#include <atomic>
#include <memory>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Sink::Data : WorkerSleep
{
    // Main thread.
    QPointer<Engine> engine; // may go before an object that was never added
    QPointer<Sink> self;     // the first one: Qt does not make it safely on two threads at once
    float bufferSeconds = 5.0f;
    std::atomic<bool> started{false};
    std::atomic<double> skipTime{0.0}; // seconds

    // Draining, guarded by ringMutex: the worker's, and the main thread's in setTime, which it may
    // call inside a change of the mix that holds the worker off.
    RankedRecursiveMutex<LockRank::SinkRing> ringMutex;
    double recordTime = 0.0; // seconds, of the next chunk handed over
    bool replacementTold = false;
    std::atomic<quint64> replacedSamples{0}; // of the mix, written by the worker

    // Raised when what the resamplers hold back is void. Guarded by ringMutex.
    unsigned generation = 0;

    // Shared with the audio thread. The ring is complete before running becomes 1 (release,
    // acquire) and stays until the destructor. frameBase moves only under the engine's update
    // lock, which the audio thread holds during a block.
    std::unique_ptr<FrameRing> ring;
    alignas(64) std::atomic<int> running{0};
    std::atomic<unsigned> buses{0};   // channels when it was added; what the host says of itself
                                      // may not be asked any more while it is destroyed
    std::atomic<qint64> frameBase{0}; // mixer frame of the ring's first frame since the flush

    // Audio thread, from running = 1 on.
    std::atomic<qint64> skipFrames{0};     // mixer frames of lead-in still to drop
    std::atomic<qint64> recordedFrames{0}; // mixer frames, silence included

    struct Worker;

    int mixerRate() const QTOVELMIXER_NONBLOCKING; // Hz, 0 without an engine
    void work(Sink &sink, int sinkHz, int mixerHz, int channels);
    void replaceNotFinite(const Sink &sink, float *samples, qint64 count);
    void endWithoutMemory(const Sink &sink);
    void endWithoutThread(Sink &sink, const char *missing);
    void leave(Sink &sink);
    void wakeMix() const;
    qint64 takeLeadIn(qint64 blockFrames) noexcept QTOVELMIXER_NONBLOCKING;
    void countRecorded(qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;
    bool fillGap(const Sink *sink, FrameRing::Slice &slice,
                 qint64 mixerFrame) noexcept QTOVELMIXER_NONBLOCKING;
};

/// The engine's and the tests' way to the private record.
struct SinkAccess
{
    static Sink::Data &data(Sink &sink) { return *sink.d; }

    /// The constructor's.
    static Engine *engine(const Sink &sink);

    /// How many buses of the mix are the sink's, from its adding on. Real-time: yes.
    static unsigned buses(const Sink &sink) noexcept QTOVELMIXER_NONBLOCKING
    {
        return sink.d->buses.load(std::memory_order_relaxed);
    }
    static void setBuses(Sink &sink, unsigned channels) { sink.d->buses = channels; }

    /// Whether the worker's loop runs: only then may a block call what the host overrides.
    /// Real-time: yes.
    static bool isRunning(const Sink &sink) noexcept QTOVELMIXER_NONBLOCKING
    {
        return sink.d->running.load() != 0;
    }

    /// True once `start` was called.
    static bool threadStarted(const Sink &sink);

    /// The sink will take nothing any more: its end was asked for or has come.
    static bool isUsedUp(const Sink &sink);

    /// The sink can take `frames` frames of the mix and lose none. Real-time: yes.
    static bool isReady(const Sink &sink, qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;

    /// The sink was asked to end. Real-time: yes.
    static bool isOver(const Sink &sink) noexcept QTOVELMIXER_NONBLOCKING;

    /// Lets the worker look at its ring.
    static void wake(Sink &sink);

    /// Asks the worker to end, wakes it and waits for it. Safe in any state, and before `start`.
    static void endAndWait(Sink &sink);

    /// The worker begins no further `writeSamples`; `lockRing` must follow. Does not wait. Threads:
    /// main.
    static void announceUpdate(Sink &sink);
    /// Waits for a `writeSamples` under way and keeps the worker from the ring, so that `setTime`
    /// does not wait. Blocks are taken meanwhile.
    static void lockRing(Sink &sink);
    /// Ends both.
    static void unlockRing(Sink &sink);

    /// Moves the sink along when the mixer's clock is set to other numbers of the same moment:
    /// the recording goes on without a gap. Under the engine's update lock.
    static void shiftFrameBase(Sink &sink, qint64 frames);
};

} // namespace QTovelMixer

#endif
