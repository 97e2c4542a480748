// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_ENGINE_P_H
#define QTOVELMIXER_MIXER_ENGINE_ENGINE_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/engine.h>
#include <mixer/engine/attached_p.h>
#include <mixer/engine/calls_p.h>
#include <mixer/engine/change_p.h>
#include <mixer/engine/device_choice_p.h>
#include <mixer/engine/mix_p.h>
#include <mixer/engine/stream_p.h>

#include <atomic>

namespace QTovelMixer {

/// The engine's private record: its five parts, each with a header and a source file of its own,
/// and what moves all of them, the transport and the block.
struct QTOVELMIXER_HIDDEN Engine::Data : EngineCalls,
                                         EngineStream,
                                         EngineChange,
                                         EngineAttached,
                                         EngineMix,
                                         EngineDeviceChoice
{
    Data(Engine *owner, Api *backend);
    ~Data();

    // The block callback (block.cpp).
    int mixerCallback(Bus &input, Bus &output, unsigned frames, unsigned status,
                      bool onlyWhenReady = false) noexcept QTOVELMIXER_NONBLOCKING;
    /// No source would lack a frame and no sink room (freewheel.cpp). Under the update lock.
    bool blockReady(unsigned frames) const noexcept QTOVELMIXER_NONBLOCKING;

    // The transport of all (transport.cpp).
    /// Active, started, and with a source or a sink.
    bool isRunning() const QTOVELMIXER_NONBLOCKING
    {
        return active && running && sourceCount + sinkCount > 0;
    }
    /// The mixer is started, or something plays or records without that.
    bool isBusy() const { return isRunning() || (active && hasWorkingUsers()); }
    void startAll(double time, double begin);
    void prime();
    void prime(Source *source);
    /// Both return as `forEach`.
    bool pause();
    bool resume();
    void stop(StopReason reason);
    bool stop(Source *source, StopReason reason);
    void stop(Sink *sink, StopReason reason);

    // The clock (clock.cpp).
    unsigned rate() const QTOVELMIXER_NONBLOCKING { return engine->sampleRate(); }
    double seconds(qint64 frames) const QTOVELMIXER_NONBLOCKING
    {
        const unsigned sampleRate = rate();
        return sampleRate > 0 ? double(frames) / sampleRate : 0.0;
    }
    /// Frames at the mix's rate, to the nearest; 0 for what has no frame number.
    qint64 toFrames(double time) const;
    void setMixTime(double time) { mixTime = toFrames(time); }
    void adjSourceTime(double time, double offset);
    void setTime(double time, double start);
    /// What the clock shows at a position in the material; both in seconds.
    double clockAt(double position) const;
    /// The position that the clock shows now, seconds in the material.
    double livePosition() const;
    /// Remembers where playback stands, for when it does no more.
    void keepPosition();

    std::atomic<bool> active{false};
    std::atomic<bool> running{false};
    std::atomic<unsigned> playbacks{0}; ///< raised by `start` and `stop`
    bool pausedAtRest = false; ///< holdCount holds the suspension of a pause before the start
    int monitorTrigger = 1;
    int pauseMode = 1;
};

/// The record that one of its parts belongs to.
template <typename Part>
Engine::Data &whole(Part &part) noexcept
{
    return static_cast<Engine::Data &>(part);
}

template <typename Part>
const Engine::Data &whole(const Part &part) noexcept
{
    return static_cast<const Engine::Data &>(part);
}

/// Calls `operation` for every object of a list of `data` that is attached when its turn comes:
/// hosts' hooks and slots run inside it, and may take other objects away. Returns false when one of
/// them has deleted the engine: `data` is gone then.
template <typename T, typename Operation>
bool forEach(const Engine::Data &data, const std::vector<T *> &objects, Operation operation)
{
    const QPointer<Engine> alive(data.engine);
    for (T *object : Snapshot<T>(objects.begin(), objects.end())) {
        if (data.contains(object))
            operation(object);
        if (!alive)
            return false;
    }
    return true;
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

} // namespace QTovelMixer

#endif
