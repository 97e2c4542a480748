// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_SOURCE_H
#define QTOVELMIXER_MIXER_IO_SOURCE_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/types.h>

#include <QtCore/QThread>

#include <memory>

namespace QTovelMixer {

template <typename T, unsigned Alignment>
class aligned_vector;

/// A playback producer: a thread that pulls interleaved float samples from the host's override
/// of `readSamples`, converts them to the mixer's rate and keeps a ring several seconds ahead of
/// the play position, from which the audio thread takes the frames of each block.
///
/// What the host changes in material that was read already is heard when the ring has played out,
/// after its length (nearly 5 s and more). To have it heard after 0.1 s, without a gap, while
/// playing: `update_lock`, `adjustTime(engine.time(), 0.1)`, `update_unlock`, on the source.
///
/// What is read comes from the playback range when it is valid, else from the engine's timeline
/// when the source has one, else it is the material from `setTime`'s position on.
///
/// Lifetime: the engine adopts an added source and deletes it when it has been removed, after
/// its thread has ended; the host does nothing for that. A host that deletes the source itself
/// may do so in any state, on the main thread: it is taken out of the mix first, without a signal,
/// and its worker is waited for. `deleteLater` and `Engine::deleteSource` need nothing more. Before
/// a plain `delete` of a started source, by the host or by a `QObject` parent, or first thing in
/// the subclass's destructor, call `stop` and `QThread::wait`: the overrides die before this
/// class's destructor. From the end of the worker on the mix calls none of them.
///
/// Pausing. With `PauseSoft` the worker goes on and the ring keeps its contents: `resume`
/// continues to the sample. With `PauseKeepState` (the engine's default) the worker ends for
/// good, the engine removes the source, and the host builds a new one from the `Config` that
/// `notifyState` got with `Paused`.
///
/// Calls of the main thread may come from any thread that is not the source's own and not the
/// audio thread, one at a time.
class QTOVELMIXER_EXPORT Source : public QThread
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Source)

public:
    /// A source without a range. Units: Hz; interleaved channels; seconds of ring, at least 5
    /// (less is raised to 5). The thread has no parent. Threads: main.
    Source(Engine *engine, int sampleRate, int numChannels, float bufferSeconds);

    /// A source that plays `range` of its material, whatever the engine's timeline says. Start the
    /// engine at the range's start: `Engine::start` moves the source to its time, also before the
    /// range.
    Source(Engine *engine, int sampleRate, int numChannels, const Range &range,
           float bufferSeconds);

    /// Leaves the mix, asks the worker to end, wakes it and waits for it. Threads: main.
    ~Source() override;

protected:
    /// The worker.
    void run() override;

    /// Handles the end by `deleteLater` as the destructor does, while the overrides still live.
    bool event(QEvent *event) override;

public:
    /// Start of the range; else of the timeline; else the engine's start time. Seconds.
    /// Threads: any.
    virtual double loopStartTime() const;

    /// End of the range; else of the timeline; else the largest finite double. Seconds.
    /// Threads: any.
    virtual double loopEndTime() const;

    /// Start of the range, else the engine's start time. Seconds. Threads: any.
    virtual double startTime() const;

    /// End of the range; else of the timeline's stretch at `time` (below 0: at the play
    /// position); else of the material. Seconds. Threads: any.
    virtual double currentChunkEnd(double time) const;

    /// The play position in seconds: of the timeline, bounded to its limits when `clamp`, else
    /// −1 outside them; without a timeline the engine's time, up to a pause position reached.
    /// Threads: any. Real-time: yes.
    virtual double time(bool clamp) const QTOVELMIXER_NONBLOCKING;

    /// Bit c stands for output channel c. Threads: any.
    virtual quint64 channelMask() const;

    /// Where the host's material begins, seconds. Threads: main.
    virtual double contentStart() const = 0;

    /// Length of the host's material, seconds; infinity for endless material. Threads: main.
    virtual double contentDuration() const = 0;

    /// The host's `Config::scale` for a pause; 1.0 unless overridden. Threads: main.
    virtual double configScale() const;

    /// Linear. Threads: any. Real-time: yes.
    virtual float gain() const QTOVELMIXER_NONBLOCKING;

    /// Interleaved channels that the host delivers. Threads: any.
    virtual int numChannels() const QTOVELMIXER_NONBLOCKING;

    /// The source's own rate, Hz. Threads: any.
    virtual int sampleRate() const;

    /// True while the worker's loop runs. Threads: any. Real-time: yes.
    virtual bool isRunning() const QTOVELMIXER_NONBLOCKING;

    /// The engine's answer, false without an engine. Threads: any.
    virtual bool isPaused() const QTOVELMIXER_NONBLOCKING;

    /// The engine's answer, false without an engine. Threads: any.
    virtual bool isLooping() const;

    /// True when the source was started and has been asked to end, or has ended by itself.
    /// Threads: any.
    virtual bool isFinished() const;

    /// True with a valid range: limits and selections are then fixed while it is attached.
    /// Threads: any.
    virtual bool isContinuous() const;

    /// True once an end was asked for. Threads: any.
    virtual bool wasStoped() const;

    /// The host agrees (true) or refuses (false) to pause in this mode. Threads: main.
    virtual bool acceptPause(PauseMode mode) = 0;

    /// Why the source ended; `UserStopAction` as long as nothing set it. Threads: any.
    virtual StopReason stopReason() const QTOVELMIXER_NONBLOCKING;

    /// Sets the playback range; reading and playing start at its start.
    /// Errors: logs a warning and changes nothing once a timeline is set. Threads: main.
    virtual void setRange(const Range &range);

    /// The playback range, seconds; (−1, −1) for none. Threads: any.
    virtual Range range();
    virtual Range range() const;

    /// Moves the source to `time` seconds of the mixer clock and drops what is buffered.
    /// A time that is not finite counts as 0. Call between `update_lock` and `update_unlock`,
    /// or before `start`. Threads: main.
    virtual void setTime(double time);

    /// Units: linear. Errors: a gain that is not finite is logged and ignored. Threads: any.
    virtual void setGain(float gain);

    /// Starts the worker; later calls do nothing. Errors: a source that cannot play (its rate
    /// cannot be converted to the mixer's, it has more than 128 channels, or there is no memory, no
    /// thread or no descriptor for one) logs one line and ends with `WorkerFailed`. Threads: main.
    virtual void start(QThread::Priority priority = QThread::InheritPriority);

    /// Asks the worker to end. `NoReason` keeps the reason known so far. Threads: any.
    virtual void stop(StopReason reason);

    /// Writes up to `frames` interleaved frames of `channels` channels, from `time` seconds of
    /// the material on, into `buffer` and returns how many; 0 or less means there are no more.
    /// It may block and allocate, but must not wait for the main thread. More frames than asked
    /// for count as those asked for. An exception is logged and ends the material; the source then
    /// ends with `WorkerFailed` when what is buffered has been played. Samples that are not finite
    /// are replaced by 0, counted by `replacedSamples`, and logged once.
    /// Threads: worker.
    virtual int readSamples(float *buffer, int frames, int channels, double time) = 0;

    /// Silences the source, waits for a read in progress and holds the worker off. Not nestable.
    /// Threads: main.
    virtual void update_lock();

    /// Ends `update_lock` and wakes the worker. Threads: main.
    virtual void update_unlock();

    /// Told before every `sourceStateChanged`. Threads: worker (playing, stopped), main (paused,
    /// and playing after a pause): must be thread-safe.
    virtual void notifyState(PlaybackState state, const Config &config);

    /// Told when an engine has adopted the source. Threads: main.
    virtual void onAdded(Engine *engine);

    /// Told when the worker ends, unless it ends for `PauseKeepState`. Threads: worker.
    virtual void onFinished(StopReason reason);

    /// Told when the worker starts; the milliseconds that one chunk of reading covers.
    /// Threads: worker.
    virtual void onRunStart(double chunkMilliseconds);

    /// Told at the end of `stop`, `pause` and `resume`. Threads: those of the calls.
    virtual void onStop();
    virtual void onPause();
    virtual void onResume();

    /// The host's `Config::flags` for a pause; 0 unless overridden. Threads: main.
    virtual qint32 configFlags() const;

    /// For a source that is not added to an engine yet. Threads: main.
    virtual void setNumChannels(int channels);

    /// Units: Hz. For a source that is not added to an engine yet. Threads: main.
    virtual void setSampleRate(int sampleRate);

    /// The position in the material, seconds, at which reading stops and the engine pauses;
    /// negative for none. Threads: worker.
    virtual double pausePosition() const;

    /// Frames ready for the mix, at the mixer's rate; 0 before the worker runs. To wait for them,
    /// a backend calls `Engine::mixWhenReady`. Threads: any. Real-time: yes.
    qint64 bufferedFrames() const QTOVELMIXER_NONBLOCKING;

    /// Samples of the host's, or of their conversion, that were not finite and were replaced by 0.
    /// Threads: any. Real-time: yes.
    quint64 replacedSamples() const QTOVELMIXER_NONBLOCKING;

    /// Frames taken by the mix, counted at the mixer's rate, divided by the source's own rate.
    /// Threads: any.
    virtual double playedTime() const;

    /// Moves the play position to `playTime` seconds of the mixer clock without dropping what is
    /// buffered, except for what lies more than `keepSeconds` ahead, which is read again.
    /// Does nothing with a range, without a timeline or without channels.
    /// Call between `update_lock` and `update_unlock`. Threads: main.
    virtual void adjustTime(double playTime, double keepSeconds);

    /// Stores what `channelMask` answers; the engine's operation of the same name routes by it.
    /// Threads: main.
    virtual void setChannelsMask(unsigned long long mask);

    /// Silences the source and asks the host for the mode, then for the other of the two.
    /// Threads: main.
    virtual void pause(PauseMode mode);

    /// Takes one silence of `pause` back and announces `Playing`. Threads: main.
    virtual void resume();

    /// Waits until 0.2 s are buffered or the material has ended; later calls return at once.
    /// On a source that is never started it waits for ever. Threads: main.
    virtual void prime();

    /// Calls `notifyState`, then emits `sourceStateChanged`. Threads: worker, main.
    virtual void state_change(PlaybackState state, const Config &config);

    /// Follows `timeline` (not owned; null for none). Ignored with a valid range. Threads: main.
    virtual void setTimeline(Timeline *timeline);

    /// Takes the frames of one block that begins at `mixerFrame` into `channels` vectors of
    /// equal length, through `effect` when it is given and has as many channels.
    /// Threads: audio. Real-time: yes.
    void mixer_callback(aligned_vector<float, 16> *outputs, int channels, long long mixerFrame,
                        Effect *effect) QTOVELMIXER_NONBLOCKING;

    /// Reads what follows `time` (seconds), at most `maxFrames` frames at `rate` Hz, from the
    /// host. Returns the frames read, 0 or less when there are none. Threads: worker.
    int fill_production_buffer(float *buffer, int maxFrames, int rate, int channels, double time);

    /// The constructor's engine. Threads: any.
    Engine *mixerEngine() const QTOVELMIXER_NONBLOCKING;

    /// The timeline that is followed, null for none. Threads: any.
    Timeline *timeline() const QTOVELMIXER_NONBLOCKING;

Q_SIGNALS:
    /// Emitted on the thread that announced the state.
    void sourceStateChanged(QTovelMixer::SourcePointer source);

    /// Emitted once, on the worker, when it ends.
    void sourceFinished(QTovelMixer::SourcePointer source);

private:
    friend struct SourceAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
