// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_SINK_H
#define QTOVELMIXER_MIXER_IO_SINK_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/types.h>

#include <QtCore/QThread>

#include <memory>

namespace QTovelMixer {

template <typename T, unsigned Alignment>
class aligned_vector;

/// A recording consumer: a thread that hands the audio which the mix delivers to the host's
/// override of `writeSamples`, at the sink's own rate.
///
/// Each block carries the frame of the mixer's clock at which it begins. The sink lines it up
/// with what it has already: silence fills a gap, a block that comes too early is dropped.
/// Blocks that pass between `start` and the first turn of the worker come back as silence, and
/// so does all clock time before a sink that starts late: call `setTime` with the engine's time
/// before `start` to place the take there. Blocks that pass while the engine is suspended or its
/// mix is edited leave no trace, not even silence, since the clock stands still meanwhile.
///
/// Lifetime: the engine adopts an added sink and deletes it when it has been removed, after its
/// thread has ended; the host does nothing for that. A host that deletes the sink itself may do so
/// in any state, on the main thread: it is taken out of the mix first, without a signal, and its
/// worker is waited for. `deleteLater` and `Engine::deleteSink` need nothing more. Before a plain
/// `delete` of a started sink, by the host or by a `QObject` parent, or first thing in the
/// subclass's destructor, call `stop` and `QThread::wait`: the overrides die before this class's
/// destructor. From the end of the worker on the mix calls none of them.
///
/// Calls of the main thread may come from any thread that is not the sink's own and not the
/// audio thread, one at a time.
class QTOVELMIXER_EXPORT Sink : public QThread
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Sink)

public:
    /// Units: seconds of ring, at least 5 (less is raised to 5). The thread has no parent.
    /// Threads: main.
    Sink(Engine *engine, float bufferSeconds);

    /// Leaves the mix, asks the worker to end, wakes it and waits for it. Threads: main.
    ~Sink() override;

protected:
    /// The worker. It ends at once without channels or without an engine.
    void run() override;

    /// Handles the end by `deleteLater` as the destructor does, while the overrides still live.
    bool event(QEvent *event) override;

public:
    /// True while the worker's loop runs. Threads: any. Real-time: yes.
    virtual bool isRunning() const QTOVELMIXER_NONBLOCKING;

    /// The engine's start time, seconds; 0 without an engine. Threads: any.
    virtual double start_time() const;

    /// The engine's time, seconds; 0 without an engine. Threads: any.
    virtual double time() const;

    /// Channels that the host wants, asked when the sink is added and when the worker starts.
    /// Threads: any.
    virtual int numChannels() const QTOVELMIXER_NONBLOCKING = 0;

    /// The host's rate in Hz, read when the worker starts. Threads: any.
    virtual int sampleRate() const = 0;

    /// What the host calls the sink; its object name unless overridden. Threads: any.
    virtual QString name() const;

    /// Asks the worker to end. `NoReason` keeps the reason known so far. Nothing more is handed
    /// over: what the ring still holds is dropped, all of it, which is up to a whole ring (5 s and
    /// more) for a host that writes slowly. `recordedTime` counts it. Threads: any.
    virtual void stop(StopReason reason);

    /// Why the sink ended; `UserStopAction` as long as nothing set it. Threads: any.
    virtual StopReason stopReason() const;

    /// Lead-in to drop, in seconds of the mixer's clock from the first block on; takes effect at
    /// `start` only. None of the dropped frames is handed over, but their time is: they do not
    /// move the sink's clock, so that silence of the same length stands in for them. To have a
    /// take begin at its first sound, call `setTime` with that time before `start` instead: then
    /// earlier blocks are dropped, and less than one block of silence remains. Threads: main.
    virtual void setSkipTime(double seconds);
    virtual double skipTime() const;

    /// Starts the worker; later calls do nothing. Errors: a sink that cannot record (the mixer's
    /// rate cannot be converted to its own, it has more than 128 channels, or there is no memory,
    /// no thread or no descriptor for one) logs one line and ends with `WorkerFailed`. Threads:
    /// main.
    virtual void start(QThread::Priority priority = QThread::InheritPriority);

    /// Takes `frames` interleaved frames (1 or more) of `channels` channels at the sink's rate,
    /// recorded at `time` seconds. The memory is the sink's own and valid during the call only.
    /// It may block and allocate, but must not wait for the main thread. Every sample is finite.
    /// An exception is logged and ends the recording with `WorkerFailed`. Threads: worker.
    virtual void writeSamples(float *buffer, int frames, int channels, double time) = 0;

    /// Told when an engine has adopted the sink. Threads: main.
    virtual void onAdded(Engine *engine);

    /// Told before every `sinkStateChanged`, that is when the worker starts and when it ends.
    /// Threads: worker: must be thread-safe.
    virtual void notifyState();

    /// Told when the worker starts, unless a stop is asked for already. Threads: worker.
    virtual void onRunStart();

    /// Told at the end of `stop`. Threads: that of the call.
    virtual void onStop();

    /// Room for frames of the mix, at the mixer's rate; 0 unless the worker runs. To wait for it,
    /// a backend calls `Engine::mixWhenReady`. Threads: any. Real-time: yes.
    qint64 freeFrames() const QTOVELMIXER_NONBLOCKING;

    /// Samples of the mix that were not finite (sums or gains that overflowed) and were replaced by
    /// 0 before they were handed over; logged once. Threads: any. Real-time: yes.
    quint64 replacedSamples() const QTOVELMIXER_NONBLOCKING;

    /// Frames taken from the mix, with the silence between them, in seconds of the mixer's
    /// clock. Threads: any.
    virtual double recordedTime() const;

    /// Drops what is not handed over yet and goes on at `time` seconds, of the mixer's clock and
    /// of the recording. A time that is not finite counts as 0. Waits for a `writeSamples` under
    /// way. Call it before `start`; afterwards the engine calls it, between two blocks and after
    /// it has waited while the mix went on. Errors: logged, and nothing happens, on the sink's own
    /// thread.
    /// Threads: main.
    virtual void setTime(double time);

    /// `notifyState`, then `sinkStateChanged`. Threads: worker.
    virtual void state_change();

    /// Takes one block of `channels` vectors of equal length that begins at `mixerFrame`.
    /// Threads: audio. Real-time: yes.
    virtual void mixer_callback(aligned_vector<float, 16> *inputs, int channels,
                                long long mixerFrame) QTOVELMIXER_NONBLOCKING;

    /// The owning engine. Threads: any.
    virtual Engine *mixerEngine() const;

    /// Forwards to `writeSamples`, without the rate. Threads: worker.
    void drain_consumed_buffer(float *buffer, int frames, int rate, int channels, double time);

Q_SIGNALS:
    /// Emitted on the worker when it starts and when it ends.
    void sinkStateChanged(QPointer<QTovelMixer::Sink> sink);

    /// Emitted once, on the worker, when it ends.
    void sinkFinished(QPointer<QTovelMixer::Sink> sink);

private:
    friend struct SinkAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
