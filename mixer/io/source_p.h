// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_SOURCE_P_H
#define QTOVELMIXER_MIXER_IO_SOURCE_P_H

#include <base/hidden_p.h>
#include <base/lock_rank_p.h>
#include <base/nonblocking.h>
#include <mixer/io/frame_ring_p.h>
#include <mixer/io/resampler_bank_p.h>
#include <mixer/io/source.h>
#include <mixer/io/worker_sleep_p.h>

#include <QtCore/QPointer>
#include <QtCore/QSemaphore>

#include <array>
#include <atomic>
#include <memory>
#include <optional>

namespace QTovelMixer {

/// A range that one thread writes and others, the audio thread too, read without waiting.
class SharedRange
{
public:
    Range load() const noexcept QTOVELMIXER_NONBLOCKING;
    bool isValid() const noexcept { return load().isValid(); }
    void store(const Range &range) noexcept;

private:
    struct Slot
    {
        std::atomic<double> start{-1.0};
        std::atomic<double> end{-1.0};
    };

    // The even half of the version picks the slot in use; the writer fills the other one.
    std::array<Slot, 2> m_slots;
    std::atomic<unsigned> m_version{0};
};

inline Range SharedRange::load() const noexcept QTOVELMIXER_NONBLOCKING
{
    // The writer returns to a slot only after the version has moved on: whoever saw one of its
    // later values sees the new version as well.
    for (;;) {
        const unsigned version = m_version.load(std::memory_order_acquire);
        const Slot &slot = m_slots[version & 1];
        const Range range{slot.start.load(std::memory_order_acquire),
                          slot.end.load(std::memory_order_acquire)};
        if (m_version.load(std::memory_order_acquire) == version)
            return range;
    }
}

struct QTOVELMIXER_HIDDEN Source::Data : WorkerSleep
{
    // What the audio thread looks at in every block stands together, apart from what others write:
    // with many sources it would else wait for its caches more than it calculates.
    alignas(64) QPointer<Engine> engine;       // may go before an object that was never added
    std::atomic<Timeline *> timeline{nullptr}; // not owned
    std::atomic<FrameRing *> ring{nullptr};    // published before running becomes 1, never changed
    std::atomic<double> playStartTime{-1.0};   // seconds
    std::atomic<double> pausePositionTime{-1.0};
    std::atomic<float> gain{1.0f}; // linear
    std::atomic<int> running{0};
    std::atomic<int> pendingUpdates{0};
    std::atomic<int> numChannels{0};  // set up by the main thread
    std::atomic<qint64> frameBase{0}; // mixer frame of the ring's first frame since the flush;
                                      // moves only while pendingUpdates keeps the audio thread off
    std::atomic<qint64> consumedFrames{0}; // mixer frames; written by the audio thread
    std::atomic<unsigned> buses{0}; // channels when it was added; what the host says of itself may
                                    // not be asked any more while it is destroyed
    std::optional<FrameRing> ringOwner; // made once; stays as long as this record

    // Main thread.
    alignas(64)
        QPointer<Source> self; // the first one: Qt does not make it safely on two threads at once
    float bufferSeconds = 5.0f;
    std::atomic<bool> started{false};
    std::atomic<bool> primed{false};

    // Set up by the main thread, read by all.
    std::atomic<int> sampleRate{0}; // Hz
    SharedRange range;
    std::atomic<quint64> channelMask{0xff};

    // Reading, guarded by ringMutex: the worker's and, under update_lock, the main thread's.
    // Those that other threads look at are atomic.
    RankedMutex<LockRank::SourceRing> ringMutex;
    double readTime = 0.0;                 // seconds, of the next chunk
    double withheld = 0.0;                 // source frames that the resamplers hold back
    double pauseCut = -1.0;                // seconds, where reading was cut since the last setTime
    unsigned generation = 0;               // raised when what the resamplers hold back is void
    std::atomic<double> rangeCursor{-1.0}; // seconds, of the next chunk inside the range
    std::atomic<bool> pausePositionReached{false};
    std::atomic<bool> materialEnded{false}; // the last look at the material found nothing
    bool readFailed = false;                // the last readSamples threw
    bool readFailureTold = false;
    bool replacementTold = false;
    std::atomic<quint64> replacedSamples{0}; // of the host's, written by the worker

    bool keepStateOnStop = false; // guarded by waitMutex
    QSemaphore primedSemaphore;

    int mixerRate() const QTOVELMIXER_NONBLOCKING; // Hz, 0 without an engine
    void clearPausePosition();

    // The hand-over between the threads (source_transport.cpp).
    void endForPause();
    void countUpdateDown();
    void releasePriming();
    void wakeMix() const;

    // The worker (source_worker.cpp).
    int callHost(Source &source, float *buffer, int frames, int channels, double time);
    void logReadFailure(const Source &source, const char *what);
    void replaceNotFinite(float *samples, qint64 count);
    void tellReplacement(const Source &source);
    static void logNoMemory(const Source &source);
    void work(Source &source, int sourceHz, int mixerHz, int channels);
    void announceEnd(Source &source);
    void endWithoutThread(Source &source, const char *missing);
    void leave(Source &source);

    // The audio thread (source_block.cpp).
    void countConsumed(qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;
    qint64 alignBlock(FrameRing &from, qint64 readable,
                      qint64 ahead) noexcept QTOVELMIXER_NONBLOCKING;

    struct Worker; // one run of the thread (source_worker.cpp)
};

/// The engine's and the tests' way to the private record.
struct SourceAccess
{
    static Source::Data &data(Source &source) { return *source.d; }

    /// The constructor's.
    static Engine *engine(const Source &source);

    /// How many buses of the mix are the source's, from its adding on. Real-time: yes.
    static unsigned buses(const Source &source) noexcept QTOVELMIXER_NONBLOCKING
    {
        return source.d->buses.load(std::memory_order_relaxed);
    }
    static void setBuses(Source &source, unsigned channels) { source.d->buses = channels; }

    /// True once `start` was called.
    static bool threadStarted(const Source &source);

    /// Nothing will come from the source any more: its end was asked for or has come.
    static bool isUsedUp(const Source &source);

    /// The mix can take `frames` frames and lose none. Real-time: yes.
    static bool isReady(const Source &source, qint64 frames) noexcept QTOVELMIXER_NONBLOCKING;

    /// Nothing more comes from the source, not from its ring either. Real-time: yes.
    static bool isOver(const Source &source) noexcept QTOVELMIXER_NONBLOCKING;

    /// Lets the worker look at its ring.
    static void wake(Source &source);

    /// Has the worker begin no further read, without waiting for the one under way, until
    /// `withdrawUpdate`. Who asks several workers like this before taking their locks waits for the
    /// longest of the reads and not for their sum.
    static void announceUpdate(Source &source);
    /// Takes `announceUpdate` back, once `update_lock` holds the worker off.
    static void withdrawUpdate(Source &source);

    /// Undoes the silence of one `Source::pause`, and nothing else of it.
    static void takeBackSilence(Source &source);

    /// The position in the material, or the pause position that reading stopped at before it.
    static double boundedByPause(const Source &source, double position) noexcept;

    /// Asks the worker to end, wakes it and waits for it. Safe in any state, and before `start`.
    static void endAndWait(Source &source);
};

/// Channels that a mixer has on either side.
constexpr int maxMixerChannels = 128;

/// Frames (to the nearest) of a time; 0 for a time that is not finite or beyond 64 bits.
qint64 framesOfTime(double seconds, double rate) noexcept QTOVELMIXER_NONBLOCKING;

/// The time itself, or 0 when it is not finite or has no frame number at `rate`.
double representableTime(double seconds, double rate) noexcept QTOVELMIXER_NONBLOCKING;

} // namespace QTovelMixer

#endif
