// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_ENGINE_P_H
#define QTOVELMIXER_MIXER_ENGINE_ENGINE_P_H

#include <base/blocking_call_p.h>
#include <base/debug.h>
#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/engine.h>
#include <mixer/engine/block_gate_p.h>
#include <mixer/engine/block_lock_p.h>
#include <mixer/engine/gain_matrix_p.h>
#include <mixer/engine/host_gains_p.h>
#include <mixer/io/timeline.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QTimer>
#include <QtCore/QVarLengthArray>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <new>
#include <vector>

namespace QTovelMixer {

class Api;
class Route;

/// The channels of a source or sink; a host may answer less than none.
template <typename T>
unsigned channelsOf(const T *object)
{
    return unsigned(std::max(0, int(object->numChannels())));
}

/// The buses of a listed object. Asks the host nothing, so that the object may be half destroyed.
unsigned busesOf(const Source *source) noexcept QTOVELMIXER_NONBLOCKING;
unsigned busesOf(const Sink *sink) noexcept QTOVELMIXER_NONBLOCKING;

/// Counts down, but never below zero. Answers whether it did.
inline bool decrement(std::atomic<int> &counter) noexcept
{
    int value = counter.load();
    while (value > 0) {
        if (counter.compare_exchange_weak(value, value - 1))
            return true;
    }
    return false;
}

struct QTOVELMIXER_HIDDEN Engine::Data
{
    using Bus = aligned_vector<float, 16>;

    /// What the engine remembers of a source or sink while it is in the mix.
    struct Link
    {
        QMetaObject::Connection connections[3];
        float gain = 1.0f;        ///< given when it was added; needed again when buses are rebuilt
        bool holdsStream = false; ///< counted in streamUsers
        bool paused = false;      ///< by `pause`, and not resumed since
    };
    struct SavedState
    {
        Timeline *timeline;
        bool outputBypass;
        bool inputBypass;
    };
    /// What a source brings along for the timeline.
    struct Span
    {
        bool follows = false;
        bool widens = false; ///< the limits
        double begin = 0.0;  ///< seconds
        double end = 0.0;
    };
    /// All that adding takes memory for, made before the update lock is taken.
    template <typename T>
    struct Arrival
    {
        std::vector<Bus> buses;
        std::vector<float> gains; ///< its wiring to the device; empty for none
        std::map<const T *, Link> link;
    };
    template <typename T>
    struct Kind; ///< of source or sink (kinds_p.h)

    /// What is listed at a moment. With no more than there are buses for, it takes no memory:
    /// whatever stops and ends things has to work when there is none.
    template <typename T>
    using Snapshot = QVarLengthArray<T *, 128>;

    /// What the end of a bracket does with the clock.
    enum class Position {
        Keep,           ///< playback stays where it is in the material
        Restart,        ///< the timeline was reset: everything goes to the beginning
        RestartPlayback ///< as Restart, but sinks that still record keep what they have
    };

    explicit Data(Engine *owner, Api *backend);
    ~Data();

    // The block callback (block.cpp).
    int mixerCallback(Bus &input, Bus &output, unsigned frames, unsigned status,
                      bool onlyWhenReady = false) noexcept QTOVELMIXER_NONBLOCKING;
    void setBlockLength(unsigned frames) noexcept QTOVELMIXER_NONBLOCKING;
    unsigned mixSources(unsigned firstBus, bool mixing, unsigned frames,
                        qint64 now) noexcept QTOVELMIXER_NONBLOCKING;
    void countCallback() noexcept QTOVELMIXER_NONBLOCKING;
    void mixMatrix(unsigned busCount) noexcept QTOVELMIXER_NONBLOCKING;
    void countReplaced(size_t samples, bool &told,
                       const char *place) noexcept QTOVELMIXER_NONBLOCKING;
    void feedSinks(unsigned firstBus, qint64 now) noexcept QTOVELMIXER_NONBLOCKING;

    // Blocks at the pace of the workers (freewheel.cpp).
    /// No source would lack a frame and no sink room. Under the update lock.
    bool blockReady(unsigned frames) const noexcept QTOVELMIXER_NONBLOCKING;
    bool hasMore() const noexcept QTOVELMIXER_NONBLOCKING;
    void wakeWorkers();
    /// Suspends the mix, between two free-wheeling blocks.
    void raiseHold();

    // The gain matrix; each takes the update lock.
    void set_mixer_gains(unsigned row0, unsigned rows, unsigned col0, unsigned cols, float gain,
                         const float *gains);
    void set_input_mask(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                        unsigned long long mask);
    void remove_input_gains(unsigned first, unsigned count);
    void remove_output_gains(unsigned first, unsigned count);
    void resetGainMatrix();
    /// Rebuilds the mixing plan ahead of the next block, under the update lock.
    void planMix();
    /// Writes what the host set, here and for every device that is opened later.
    bool setCell(const HostGains::Cell &cell, float gain);
    /// Whether the gain is finite; logs a refusal that names the operation otherwise.
    static bool requireFinite(const char *operation, float gain);
    Effect *replaceEffect(Effect *&slot, QMetaObject::Connection &link, Effect *effect);
    /// Limits and selections stay as they are while something holds the stream.
    bool mayEdit(const char *operation) const;

    // The bracket round every change of the mix.
    void update_lock();
    void update_unlock();
    void endBracket(Position position);
    /// The bracket's locks without its snapshot of the position.
    void lockMix();
    void unlockMix();
    void releaseWorkers();
    /// Holds the workers of the sinks off: the outermost bracket, while the mix goes on.
    void holdSinks();
    void update_source_lock();
    void update_source_unlock();
    void takeSnapshot();

    void adjSourceTime(double time, double offset);
    void setTime(double time, double start);
    /// Active, started, and with a source or a sink.
    bool isRunning() const QTOVELMIXER_NONBLOCKING
    {
        return active && running && sourceCount + sinkCount > 0;
    }
    /// Where the clock stands in the material, seconds.
    double livePosition() const;
    /// Remembers where playback stands, for when it does no more.
    void keepPosition();
    void startAll(double time, double begin);
    void setMixTime(double time);
    /// Both answer false when a slot has deleted the engine: this record is gone then.
    bool forEachSource(const std::function<void(Source *)> &operation);
    bool forEachSink(const std::function<void(Sink *)> &operation);
    void prime();
    void prime(Source *source);
    /// Both answer as `forEachSource`.
    bool pause();
    bool resume();
    void pause(Source *source, bool counted);
    void stop(StopReason reason);
    bool stop(Source *source, StopReason reason);
    void stop(Sink *sink, StopReason reason);
    void setSourceChannelMask(Source *source, unsigned long long mask);
    void setSourceTimeline(Source *source, Timeline *timeline);
    void on_add(Source *source, Engine *engine);
    void on_add(Sink *sink, Engine *engine);

    // The device stream.
    bool openMixerApi(Device *output, Device *input, unsigned rate);
    void closeDevice();
    void startMixerApi();
    void stopMixerApi();
    void closeMixerApi();
    void deleteMeters();
    /// Keeps the stream alive for every user, also after it was reopened under them.
    void raiseApiRefs(int users);
    /// Something in the mix was not told to stop.
    bool hasLiveUsers() const;
    /// The mixer is started, or something plays or records without that.
    bool isBusy() const;
    /// Starts the open stream if somebody needs it.
    void startStreamForUsers();
    /// Has the loss of the stream told as a failure of the device, from the event loop: until then
    /// another device may be opened.
    void reportLostStream();
    void releaseStream();
    bool apiRunning() const;
    bool apiOpen() const;
    void stopWatchdog();
    bool mayStillRest() const;

    // Buses (buses.cpp).
    static constexpr unsigned maxChannels = 128;
    static std::vector<Bus> makeBuses(unsigned count, unsigned frames);
    void rebuildBuses(Device *output, Device *input);
    /// The stored or the default wiring of what has so many channels to a device.
    std::vector<float> initialGains(const Source *, unsigned channels, Device *output) const;
    std::vector<float> initialGains(const Sink *, unsigned channels, Device *input) const;
    void writeGains(const Source *source, unsigned row, float gain,
                    const std::vector<float> &table);
    void writeGains(const Sink *sink, unsigned column, float gain, const std::vector<float> &table);
    void writeInputGains(unsigned row0, unsigned rows, unsigned col0, unsigned cols, float gain);
    bool writeRoute(const Source *source, const Sink *sink, float gain);
    void writeMonitorGains(bool on);
    void writeMask(const Source *source, quint64 mask);
    void writeHostGains();
    bool cellOf(const HostGains::Cell &cell, unsigned &row, unsigned &column) const;
    void adoptRate(unsigned oldRate);
    /// First row or column of a listed object; the number of buses for one that has none.
    unsigned rowOf(const Source *source) const;
    unsigned columnOf(const Sink *sink) const;
    template <typename T>
    QList<T *> listed(const std::vector<T *> &objects) const;
    bool contains(const Source *source) const;
    bool contains(const Sink *sink) const;
    /// Takes a listed object out of the mix. Answers false when it is not listed.
    bool detach(Source *source);
    bool detach(Sink *sink);
    template <typename T>
    bool add(T *object, float gain, Options options);
    template <typename T>
    void prepare(T *object, unsigned channels, float gain, Arrival<T> &arrival);
    template <typename T>
    void attach(T *object, Arrival<T> &arrival, const Span &span);
    template <typename T>
    static void disconnect(const std::map<const T *, Link> &links);
    template <typename T>
    void makeRoom(size_t buses);
    template <typename T>
    bool takeOut(T *object);
    template <typename T>
    bool withdraw(T *object);
    template <typename T>
    void remove(T *object, QObject *caller);
    template <typename T>
    void destroy(T *object);
    /// Why an object cannot be added, with a place for its address; null when it can.
    template <typename T>
    const char *refusal(const T *object) const;
    template <typename T>
    void letGo(T *object);
    Span spanOf(const Source *source, Options options) const;
    Span spanOf(const Sink *sink, Options options) const;
    void follow(Source *source, const Span &span);
    void follow(Sink *sink, const Span &span);
    void unfollow(Source *source);
    void unfollow(Sink *sink);
    int users() const { return int(sources.size() + sinks.size()); }
    template <typename T>
    static bool isUnstarted(const T *object);
    void removeUnstarted();
    template <typename T>
    void removeUnstarted(const std::vector<T *> &objects);
    template <typename T>
    void cleanUp(const std::vector<T *> &objects);
    /// Does at once whatever could not be queued for want of memory.
    void cleanUp();
    /// Queues what has to be done some time; without memory `cleanUp` does it.
    template <typename Operation>
    void queueCleanUp(Operation operation);
    void checkRest() const;

    unsigned rate() const QTOVELMIXER_NONBLOCKING { return engine->sampleRate(); }
    double seconds(qint64 frames) const QTOVELMIXER_NONBLOCKING
    {
        const unsigned sampleRate = rate();
        return sampleRate > 0 ? double(frames) / sampleRate : 0.0;
    }
    /// The engine's thread, or the host's main thread, and not inside a block.
    bool onMainThread() const;
    /// True on the thread of a source, sink or meter of any engine: the main thread may be waiting
    /// for it.
    static bool onWorkerThread();
    /// As onMainThread; logs a refusal that names the operation otherwise.
    bool requireMainThread(const char *operation) const;
    /// True inside a block, which must not wait for anything; logs a refusal then.
    static bool refuseInBlock(const char *operation);
    /// Calls what an event loop calls: no loop passes exceptions on. Answers false, and logs one
    /// line that names the operation, when memory ran out.
    template <typename Operation>
    static bool callFromLoop(const char *name, Operation operation);
    /// Has the engine's thread call it some time.
    template <typename Operation>
    void callLater(const char *name, Operation operation);
    /// One or the other: nobody waits on a thread that the engine's may be waiting for.
    template <typename Operation>
    void callOnEngineThread(const char *name, Operation operation);

    // Main thread ---------------------------------------------------------------------------
    Engine *engine;
    QPointer<Engine> self; ///< the first one: further ones share its memory and take none
    QPointer<Api> api;
    bool isBackendTaken = false;        ///< by another engine
    unsigned activations = 0;           ///< raised by `activate` and `deactivate`
    std::atomic<unsigned> playbacks{0}; ///< raised by `start` and `stop`
    unsigned choices = 0;               ///< raised by whatever opens or closes devices for the host
    int apiRefs = 0;
    unsigned streamGeneration = 0; ///< raised by every open and close, so that late calls see it
    bool isLossTold = false;       ///< the host knows that the device opened last is lost
    std::atomic<unsigned> sourceCount{0};
    std::atomic<unsigned> sinkCount{0};
    std::atomic<int> streamUsers{0};
    int monitorTrigger = 1;
    int pauseMode = 1;
    double savedTime = 0.0;         ///< seconds
    double savedTimelineTime = 0.0; ///< seconds in the material
    double savedLoopOffset = 0.0;   ///< seconds
    bool openFailed = false;        ///< the last attempt to open a device
    bool activatedEmpty = false;    ///< there was no device at all
    bool streaming = false;         ///< the host wants a stream without users
    int bracketDepth = 0;
    std::vector<Source *> lockedSources; ///< by the outermost bracket
    std::vector<Sink *> lockedSinks;     ///< by the outermost bracket
    QString outputName;
    QString inputName;
    QTimer *deviceListTimer;
    QTimer *watchdogTimer;
    QTimer *cleanUpTimer;
    int owedStops = 0;             ///< of the stream
    unsigned owedGeneration = 0;   ///< of the stream
    std::vector<Bus> removedBuses; ///< has room for all; freed outside the update lock
    QElapsedTimer watchdogClock;
    QElapsedTimer streamClock; ///< since the stream was started
    QElapsedTimer loadClock;
    quint64 lastSeenCallbackCount = 0;
    bool isStallTold = false; ///< of the stall at that count
    QMetaObject::Connection stoppedLink;
    QMetaObject::Connection deactivatedLink;
    QMetaObject::Connection outputEffectLink;
    QMetaObject::Connection inputEffectLink;
    std::map<const Source *, Link> sourceLinks;
    std::map<const Sink *, Link> sinkLinks;
    std::vector<QPointer<Source>> retiredSources; ///< removed, deletion queued
    std::vector<QPointer<Sink>> retiredSinks;
    HostGains hostGains;
    std::vector<SavedState> savedStates;
    MixPlan plans[2];
    MixPlan *sparePlan = &plans[1]; ///< is made while the other one mixes
    bool pausedAtRest = false;      ///< holdCount holds the suspension of a pause before the start
    double keptPosition = 0.0;      ///< seconds in the material, where playback stood last

    // Shared: written on the main thread, read anywhere -------------------------------------
    std::atomic<bool> active{false};
    std::atomic<bool> running{false};
    std::atomic<bool> monitoring{false};
    std::atomic<double> startTime{0.0};
    std::atomic<int> holdCount{0}; ///< while non-zero neither sources nor the clock move
    std::atomic<int> resuming{0};  ///< as holdCount, until every source has resumed
    std::atomic<int> outputEffectBypass{0};
    std::atomic<int> inputEffectBypass{0};
    std::atomic<float> masterOutputGain{1.0f};
    std::atomic<float> masterInputGain{1.0f};

    /// Lets any thread ask what is attached. Beside it the main thread holds updateLock to change
    /// the lists; whoever holds this one takes no other lock but those that workers sleep under.
    mutable RankedPriorityMutex<LockRank::List> listLock;

    BlockGate gate;
    HoldLock holdLock; ///< taken under updateLock or alone

    // Guarded by updateLock -----------------------------------------------------------------
    mutable UpdateLock updateLock;
    unsigned numInputChannels = 0; ///< of the open device; the mix uses `maxChannels` of them
    unsigned numOutputChannels = 0;
    unsigned blockFrames = 0; ///< of the open stream, whatever the backend is told since
    Meter *inputMeter = nullptr;
    Meter *outputMeter = nullptr;
    std::vector<Source *> sources;
    std::vector<Sink *> sinks;
    std::vector<Bus> inputBuses;
    std::vector<Bus> outputBuses;
    Effect *outputEffect = nullptr;
    Effect *inputEffect = nullptr;
    GainMatrix matrix;
    float (&gainMatrix)[128][128] = matrix.gain;
    float (&enableMatrix)[128][128] = matrix.enable;
    MixPlan *plan = &plans[0];
    Timeline *timeline = nullptr;
    bool inputReplacementTold = false; ///< since the device was opened
    bool outputReplacementTold = false;

    // Audio thread --------------------------------------------------------------------------
    std::atomic<qint64> mixTime{0}; ///< frames
    float masterOutputGainApplied = 1.0f;
    float masterInputGainApplied = 1.0f;
    std::atomic<unsigned> blockNumber{0}; ///< odd while a block is under way
    std::atomic<quint64> callbackCount{0};
    std::atomic<quint64> droppedBlocks{0};
    std::atomic<quint64> replacedSamples{0}; ///< that were not finite
    std::atomic<qint64> lastCallbackLoad{0}; ///< tenths of a millisecond
    std::atomic<qint64> peakCallbackLoad{0};
    std::atomic<double> averageCallbackLoad{0.0};
};

template <typename Operation>
bool Engine::Data::callFromLoop(const char *name, Operation operation)
{
    try {
        operation();
    } catch (const std::bad_alloc &) {
        BLDEBUG_Error(-1, "QTovelMixer::%s: Out of memory!!", name);
        return false;
    }
    return true;
}

template <typename Operation>
void Engine::Data::callLater(const char *name, Operation operation)
{
    QMetaObject::invokeMethod(
        engine, [name, operation] { callFromLoop(name, operation); }, Qt::QueuedConnection);
}

template <typename Operation>
void Engine::Data::callOnEngineThread(const char *name, Operation operation)
{
    if (refuseInBlock(name))
        return;
    if (onWorkerThread())
        callLater(name, operation);
    else
        callAndWait(engine, operation);
}

/// Lets tests and benchmarks of this library reach the private record.
struct EngineAccess
{
    /// As it is: the engine goes on mixing as it does for hosts.
    static Engine::Data &shipped(Engine &engine) { return *engine.d; }
    /// For those who write cells of the gain matrix past its functions: from now on every block
    /// compares them with its plan.
    static Engine::Data &data(Engine &engine)
    {
        for (MixPlan &plan : engine.d->plans)
            plan.watchCells();
        return *engine.d;
    }
};

/// The bracket as a scope.
class MixBracket
{
public:
    explicit MixBracket(Engine::Data &engineData) : data(engineData) { data.update_lock(); }
    ~MixBracket() { data.endBracket(position); }
    Q_DISABLE_COPY_MOVE(MixBracket)

    Engine::Data::Position position = Engine::Data::Position::Keep;

private:
    Engine::Data &data;
};

/// The bracket's locks as a scope: nothing plays and nothing is mixed meanwhile.
class MixHold
{
public:
    explicit MixHold(Engine::Data &engineData) : data(engineData) { data.lockMix(); }
    ~MixHold() { data.unlockMix(); }
    Q_DISABLE_COPY_MOVE(MixHold)

private:
    Engine::Data &data;
};

} // namespace QTovelMixer

#endif
