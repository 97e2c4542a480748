// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_H
#define QTOVELMIXER_MIXER_ENGINE_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>
#include <mixer/types.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <memory>

namespace QTovelMixer {

struct EngineAccess;

/// The mixer that a host drives: it opens devices through a backend, mixes sources and device
/// inputs into device outputs and sinks, and follows a playback timeline.
///
/// Ownership: the engine owns its backend, its meters, its timeline, and every source and sink
/// from a successful `addSource` or `addSink` until it has deleted it. Effects stay the host's.
///
/// Threads: the words main, worker, audio and any are those of docs/threads.md. Unless a line
/// says otherwise an operation belongs to the main thread; one that changes the mix and is
/// called elsewhere answers false (or does nothing) and logs one line. So does every operation
/// that an effect, or whatever else runs inside a block, calls, but for those marked
/// `Real-time: yes`.
///
/// Slots on the signals may do anything, also delete the engine, directly or from a nested event
/// loop: the operation that emitted the signal then ends without touching it, and answers what it
/// had done until then. A slot of `mixerChanged` that opens or closes devices ends the `select`
/// that it interrupts.
///
/// Errors: an operation that runs out of memory throws std::bad_alloc, releases its locks and
/// leaves the lists as they were, so that it may be called again; docs/reliability.md lists the
/// exceptions.
///
/// Units: times are seconds, clock positions frames at the device's rate, gains linear factors.
/// At most 128 input channels (device inputs plus all source channels) and 128 output channels
/// (device outputs plus all sink channels) are mixed.
class QTOVELMIXER_EXPORT Engine : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Engine)

public:
    /// Builds an inactive engine around `api`, which it owns from now on. A null backend is
    /// tolerated: nothing can then be opened, played or recorded. Errors: a backend that has an
    /// engine already stays that engine's; this one logs a line, has no backend and is never
    /// activated.
    explicit Engine(Api *api);

    /// Ends and waits for every source and sink, closes the device and deletes what the engine
    /// owns. Emits nothing.
    ~Engine() override;

    /// Registers the types that travel through queued signals. Call it once, before the first
    /// engine; calling it again does no harm. Threads: main.
    static void Initialize();
    /// The counterpart of `Initialize`, for symmetry; does nothing.
    static void Finalize();

    // Devices ------------------------------------------------------------------------------

    /// The devices that the backend lists now; empty without a backend.
    virtual QList<Device *> devices() const;
    /// The name of the audio system in use, "Auto" … "Disabled"; empty without a backend.
    virtual QString backendString() const;
    /// The audio system in use; `NoBackend` without a backend.
    virtual Backend backend() const;
    /// The open device of this kind, or null.
    virtual Device *currentDevice(DeviceKind kind) const;
    /// The name of the open device of this kind, "null" without one.
    virtual QString currentDeviceName(DeviceKind kind) const;
    /// The rate of the mix in Hz; 0 without a backend. Threads: any. Real-time: yes.
    virtual unsigned int sampleRate() const QTOVELMIXER_NONBLOCKING;
    /// The frames of one device block, as the backend was told last: an open stream keeps those it
    /// was opened with (see `Api::setBufferFrames`). 0 without a backend.
    virtual unsigned int bufferFrames() const;

    /// Opens a pair of devices, either of which may be null, at `sampleRate` Hz; with its
    /// fallbacks: output alone, input alone, the same three at the preferred rate, then devices
    /// of the same name. With `startapi` an active engine's stream starts as well.
    /// Every attempt takes 50 ms at least and replaces both meters. When these devices are open at
    /// that rate already, nothing is done, also after `Api::setBufferFrames`.
    ///
    /// What is in the mix plays on, with the gains, masks and routes that the host set, as far as
    /// the new device has the channels; the other gains come from the stored route for the new
    /// device, or else from the default matrix. At another rate than before, everything ends with
    /// `DeviceListChanged`, and the answer is true all the same: compare `sampleRate` to know. With
    /// `startapi` false, what plays is silent until the next `start`.
    ///
    /// A device with more than 128 channels is mixed in its first 128, which is logged.
    /// Errors: false when nothing could be opened: no device is open then. An active engine stays
    /// active; `select`, `activate` and the next update of the device list try anew. If something
    /// plays or records and none of these has helped when the event loop turns, the engine treats
    /// it as a failure of the device (`deviceFailed`). So it does when the stream does not start.
    /// Threads: any, blocking until the main thread has done it; from the thread of a source, sink
    /// or meter, of whichever engine, it is queued and answers true. Off the main thread it is
    /// `open`: these very devices or none, without the fallbacks.
    virtual bool select(Device *output, Device *input, unsigned int sampleRate,
                        bool startapi = true);
    /// The rate in Hz at which these devices like to run; 0 for no device.
    virtual unsigned int preferedSampleRate(Device *output, Device *input) const;
    /// The rates in Hz, ascending, at which all given devices can run. `rate` is corrected: kept
    /// when listed, else 48000 when that is listed, else the nearest (a tie goes up); 0 when
    /// nothing is listed.
    virtual QList<unsigned int> availableSampleRates(Device *output, Device *input,
                                                     unsigned int &rate) const;
    /// The buffer sizes in frames, ascending, that all given devices accept. `size` is corrected
    /// to the nearest listed one (a tie goes up); 0 when nothing is listed.
    virtual QList<unsigned int> availableBufferSizes(Device *output, Device *input,
                                                     unsigned int &size) const;

    /// True when the source is in the mix. Any pointer may be asked. Threads: any.
    virtual bool isValid(Source *source) const;
    /// True when the sink is in the mix. Any pointer may be asked. Threads: any.
    virtual bool isValid(Sink *sink) const;
    /// True unless the backend is `Disabled`.
    virtual bool hasControlPanel() const;
    /// The watchdog's interval in ms; 0 or less means no watchdog.
    virtual int monitorTimerInverval() const;

public Q_SLOTS:
    /// Asks for a fresh device list. While something plays or records the update waits for
    /// `stopped`. Otherwise it runs 2.5 s later (`updatingDeviceList` at once); an active engine
    /// is deactivated first when asked to. Threads: any, queued off the main thread.
    virtual void updateDeviceList(bool deactivate_before_update = false);
    /// Shows the desktop's sound settings at the Output or Input tab. Errors: false for another
    /// kind.
    virtual bool showControlPanel(DeviceKind kind);

protected:
    /// Called after `setMasterOutputGain` and `setMasterInputGain`, on their caller's thread.
    virtual void onMasterGainChanged();
    /// Called at the end of every successful `stop_mixer`. Threads: main.
    virtual void onStopped();

public Q_SLOTS:
    /// Makes the engine usable: opens the default devices (or, without preference, the active
    /// ones) unless a device is open. Emits `activated` on success, nothing otherwise; after a
    /// failure the engine counts as active without a device. On an active engine it does nothing,
    /// unless the last device did not open. Threads: any, as `select`.
    virtual void activate(bool preferDefaultOutput = true, bool preferDefaultInput = true);
    /// Stops everything with `stopReason`, closes the device, deletes the meters and emits
    /// `deactivated` and `mixerChanged`. Sources and sinks leave the mix from the event loop
    /// afterwards. Empties the timeline, as `stop` does. Threads: any, as `select`.
    virtual void deactivate(QTovelMixer::StopReason stopReason = QTovelMixer::NoReason);
    /// Rebuilds the device list now, whatever the engine is doing. Threads: main.
    virtual void doDeviceListUpdate();
    /// What both `stop` operations do. Errors: false without `force` when the engine is not
    /// active or not running; with a `source`, false while another source has not stopped.
    virtual bool stop_mixer(bool force, QTovelMixer::Source *source,
                            QTovelMixer::StopReason stopReason);
    /// The watchdog's tick: stops the mixer, by `stop(false)`, when no block was mixed since the
    /// last one, after `deviceStalled`. It leaves what only `play` has started.
    virtual void monitorTimeout();

public:
    /// The backend's default device of this kind, or null.
    Device *defaultDevice(DeviceKind kind) const;
    /// The listed device that matches a stored identity best, or the default one.
    Device *device(DeviceKind kind, const QString &name) const;
    /// The listed device with this number, or the default one.
    Device *device(DeviceKind kind, unsigned int number) const;
    /// Channels of the open input device, also those beyond the 128 that are mixed. Threads: main.
    unsigned int numInputChannels() const;
    /// Channels of the open output device, also those beyond the 128 that are mixed. Threads: main.
    unsigned int numOutputChannels() const;

    /// The process-wide choice for a kind: "default" or "null". Errors: throws std::logic_error
    /// for any other name or kind.
    static void setDefault(DeviceKind kind, const QString &name);
    /// The process-wide choice for a kind, "default" until it is set. Errors: throws
    /// std::logic_error for a kind other than `Input` and `Output`.
    static QString getDefault(DeviceKind kind);

    // Transport ----------------------------------------------------------------------------

    /// Positions every source and sink at `time` in the material, starts their threads and
    /// waits until every source has 0.2 s buffered. Emits `started`.
    ///
    /// Starting again positions everything anew, but waits for no source twice: one that has been
    /// primed may miss its first blocks while it reads. A source with a range of its own begins at
    /// `time` too, and plays to the end of its range: `start(0)` also plays what lies before the
    /// range, so start at the range's start. Errors: false when not active, inside a change of the
    /// mix, or when the stream that a source or sink needs does not start.
    bool start(double time = 0.0);
    /// Suspends the mix; sources pause in the current `pauseMode`. With the default mode,
    /// `PauseKeepState`, the sources end, leave the mix and are deleted: the host builds them
    /// again from the `Config` that `Source::notifyState` got; a source that was never started
    /// goes as well. With `PauseSoft` they stay, and `resume` goes on with the next frame. Emits
    /// `paused`. Before a start it may be called any
    /// number of times: the next `start` is then suspended, until one `resume`. Errors: false when
    /// not active, or when already paused while running.
    bool pause();
    /// Ends a pause. Emits `resumed`. Errors: false unless active, running and paused: a preview
    /// that only `play` has started cannot be resumed.
    bool resume();
    /// Stops every source and sink; they leave the mix from the event loop, and `stopped`
    /// follows with the reason of the last one. Reason `NoReason` keeps the objects' own.
    /// Empties the timeline: limits and selections are gone, looping stays.
    /// A preview begun by `play` alone needs `force`. Errors: false without `force` when not
    /// active or not running. Threads: any, as `select`.
    bool stop(bool force = false, StopReason reason = NoReason);
    /// Stops one source. When it was the last that played, the mixer stops: the timeline is
    /// emptied and `isRunning` is false, but sinks record on, and only `stop(true)` ends them.
    /// Errors: also false while other sources play on, and for null, which stops nothing: a guarded
    /// pointer is null when its source has gone.
    bool stop(Source *source, bool force = false, StopReason reason = NoReason);
    /// A reason alone would count as `force`.
    bool stop(StopReason reason) = delete;
    bool stop(Source *source, StopReason reason) = delete;

    /// The clock in seconds; 0.0 when not active. Threads: any. Real-time: yes.
    double time() const QTOVELMIXER_NONBLOCKING;
    /// Where playback stands, seconds in the material; with selections never in a gap. Once nothing
    /// plays or records, or the mixer was stopped or lost its device, where it stood last. `start`
    /// and `setTime` set it also while nothing plays; a preview by `play` alone leaves it. It is
    /// the mix's position: what is heard is later by the device's latency. Threads: main.
    double position() const;
    /// Where playback last started, seconds in the material. Threads: any. Real-time: yes.
    double startTime() const QTOVELMIXER_NONBLOCKING;
    /// Blocks that were not mixed because the mix was being changed, or because their size was
    /// not that of the open stream. Threads: any. Real-time: yes.
    quint64 droppedBlocks() const QTOVELMIXER_NONBLOCKING;
    /// Samples that were not finite and were replaced by 0 in blocks, behind the master gains: of
    /// the device input, and sums that overflowed on the device output. Each of the two is logged
    /// once per device. Sources, sinks and effects count their own. Threads: any. Real-time: yes.
    quint64 replacedSamples() const QTOVELMIXER_NONBLOCKING;
    /// Between `activate` and `deactivate`. Threads: any. Real-time: yes.
    bool isActive() const QTOVELMIXER_NONBLOCKING;
    /// Active, started, and with a source or a sink. Threads: any. Real-time: yes.
    bool isRunning() const QTOVELMIXER_NONBLOCKING;
    /// Active, started, and with a source. Threads: any. Real-time: yes.
    bool isPlaying() const QTOVELMIXER_NONBLOCKING;
    /// Active, started and suspended. Threads: any. Real-time: yes.
    bool isPaused() const QTOVELMIXER_NONBLOCKING;
    /// The device input is heard on the device output. Threads: any.
    bool isMonitoring() const;
    /// What `setStreaming` was told last; false at first. Threads: main.
    bool isStreaming() const;
    /// The open output device can play back. The argument goes to the device.
    bool canPlayback(bool argument = false) const;
    /// The open input device can capture. The argument goes to the device.
    bool canCapture(bool argument = false) const;

    /// The mode in which `pause` pauses sources; `PauseKeepState` at first.
    void setPauseMode(PauseMode mode);
    PauseMode pauseMode() const;
    /// When monitoring ends by itself; `MonitorUntilStop` at first.
    void setMonitorTrigger(MonitorTrigger trigger);
    MonitorTrigger monitorTrigger() const;

    /// Puts the timeline and both effect bypasses aside and goes on with an empty timeline.
    /// Emits `mixerChanged`. Errors: false when not active, or running; logged. A mixer whose
    /// sources have come to their natural end still counts as running: `stop` it first.
    bool save();
    /// Brings back what the last `save` put aside. Emits `mixerChanged`. Errors: false when not
    /// active, running, or nothing was saved; logged.
    bool restore();

    // Sources and sinks --------------------------------------------------------------------

    /// Puts a source into the mix, scaled by `gain`, wired by the stored route for its channel
    /// count and the open output device, or by the default matrix (`<mixer/gains.h>`). The source
    /// attaches to the timeline, whose limits are set to the source's span unless they cover it:
    /// they are replaced, not joined, so that limits of 0 to 5 s and a source from 3 to 8 s give 3
    /// to 8 s. Call `setLimits` after the last source to have others.
    /// The end of endless material (`contentDuration` infinite) is infinity.
    /// Its number of channels is asked once, here. Emits `sourceAdded`. Errors: false for null, a
    /// source without channels, an inactive engine, or an output that cannot play back; false,
    /// logged, for more than 128 input channels, a rate that cannot be converted to the mixer's
    /// (<dsp/resample.h> names the limits), a gain that is not finite, a `contentDuration` that is
    /// no number, or negative for a source without a valid range, and for a source that is in the
    /// mix already, was built for another engine, or is used up: removed, asked to end, or ended.
    /// The source then stays the host's, unless it is in a mix.
    bool addSource(Source *source, float gain = 1.0f, Options options = {});
    /// An option in the gain's place would count as a gain.
    bool addSource(Source *source, Option options) = delete;
    bool addSource(Source *source, Options options) = delete;
    /// Puts a sink into the mix, wired by the stored route for the open input device and its
    /// channel count, or by the default matrix. Emits `sinkAdded`. Errors: as `addSource`; the
    /// backend must be able to play back or to capture. A sink's rate is looked at when it starts.
    bool addSink(Sink *sink, float gain = 1.0f, Options options = {});
    /// An option in the gain's place would count as a gain.
    bool addSink(Sink *sink, Option options) = delete;
    bool addSink(Sink *sink, Options options) = delete;
    /// Adds a source, starts it at the clock's position and primes it. Such a preview does not
    /// start the mixer: `isPlaying` stays false, `resume` and `stop` without `force` answer false,
    /// neither the watchdog nor an update of the device list knows of it, and `pause` silences it
    /// until `stop`. End it with `stop(true, reason)`. Errors: false when inactive (the source
    /// stays the host's) or when it cannot be added (the source is deleted, unless it
    /// is in a mix).
    bool play(Source *source, float gain = 1.0f);
    bool play(Source *source, Option options) = delete;
    bool play(Source *source, Options options) = delete;

    /// Takes a source whose worker has ended, or was never started, out of the mix and deletes
    /// it from the event loop. The last source or sink to go emits `stopped`.
    /// Errors: logged, and nothing happens, for an unknown or running source, or off main.
    void removeSource(Source *source);
    /// As `removeSource`.
    void removeSink(Sink *sink);
    /// The sources in the mix, in the order they were added. Threads: any.
    QList<Source *> activeSources() const;
    /// The sinks in the mix, in the order they were added. Threads: any.
    QList<Sink *> activeSinks() const;
    int numActiveSources() const;
    int numActiveSinks() const;

    // Gains, effects, meters ---------------------------------------------------------------

    /// Sets the gain from a source's channel to a device output. It stays until the source leaves,
    /// also on other devices. Errors: false, logged, for an unknown source, an index out of
    /// range or beyond the first 128 channels, or a gain that is not finite; nothing changes.
    bool setGain(Source *source, int channel, int output, float gain);
    /// Sets the gain from a device input to a sink's channel. Errors: as above.
    bool setGain(int input, Sink *sink, int channel, float gain);
    /// Sets the gain from a source's channel to a sink's channel. Errors: as above.
    bool setGain(Source *source, int channel, Sink *sink, int sinkChannel, float gain);
    /// Wires a source into a sink by the default input matrix, scaled by `gain`. Errors: false
    /// for null; false, logged, when either is unknown or the gain is not finite.
    bool addRoute(Source *source, Sink *sink, float gain = 1.0f);
    bool addRoute(Source *source, Sink *sink, Option options) = delete;
    bool addRoute(Source *source, Sink *sink, Options options) = delete;
    /// Lets channel c of a source through to the device outputs when bit c of `mask` is set.
    /// Routes into sinks are not masked. With more than 32 channels of the source, or 33 outputs
    /// and more, nothing is masked, though the answer is true; the source is told the mask in any
    /// case. A mask belongs to the source's rows of the mix: when an earlier source leaves, it
    /// stays on these rows, for whatever source moves there; set masks again after a removal.
    /// `select` brings every source its own mask again. The last two arguments are accepted and
    /// have no effect. Errors: false, logged, for an unknown source.
    bool setChannelsMask(Source *source, unsigned long long mask, float gain = 1.0f,
                         bool flag = false);

    float masterOutputGain() const;
    float masterInputGain() const;

    /// Installs an effect on the first source's samples, or null, and returns the one replaced.
    /// The engine lets go of an effect that is destroyed; replace it first all the same, so that
    /// its subclass is whole while the mix may still call it.
    Effect *replaceOutputEffect(Effect *effect);
    /// Installs an effect on the device input, or null, and returns the one replaced.
    Effect *replaceInputEffect(Effect *effect);
    /// Ignored while inactive; otherwise emits `mixerChanged`. Threads: main.
    void setOutputEffectBypass(bool bypass);
    /// Ignored while inactive; otherwise emits `mixerChanged`. Threads: main.
    void setInputEffectBypass(bool bypass);
    bool outputEffectBypass() const;
    bool inputEffectBypass() const;

    /// Switches a channel (0 … 127) of the input or output meter; emits `meterLayoutChanged` when
    /// that changes something. Ignored while inactive, without that meter, or for another type.
    void setChannelMeterEnabled(Type type, int channel, bool enabled);
    /// The meter of the open input device, idle until `Meter::start`; null while no device is open.
    /// When only an output is open it is there, without a channel. It hears something while the
    /// stream runs only (see `setStreaming`). Every `open` replaces it: fetch it again at
    /// `mixerChanged`.
    Meter *inputMeter() const;
    /// The meter of the open output device, as `inputMeter`.
    Meter *outputMeter() const;

    /// The playback timeline. Change it through the engine only.
    Timeline *timeline() const;
    bool isLooping() const;

    /// The bit of a block's status that asks not to wait for the update lock.
    static constexpr unsigned int BlockMustNotWait = 0x4;
    /// Mixes one device block: the backend's entry on its audio thread. `input` and `output` are
    /// interleaved blocks of at least `frames` × device channels; of `status` only the bit
    /// `BlockMustNotWait` counts. Answers 0. A block that is too small, or that finds the lock
    /// busy, leaves everything as it is. Threads: audio. Real-time: yes.
    int mixerCallback(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                      unsigned int frames, double streamTime,
                      unsigned int status) noexcept QTOVELMIXER_NONBLOCKING;
    /// What `mixWhenReady` answers for a block that was not mixed.
    static constexpr int BlockNotReady = 3;
    /// As `mixerCallback`, for a backend that no device paces: the block is mixed when every
    /// source in the mix has all of its frames, or has ended, and every sink has room for them;
    /// until then this waits, without polling, for `milliseconds` at most. While the mixer is
    /// paused, or an attached source or sink is not started, it waits too, so that no frame is
    /// lost, and also when all that is played is over and nothing records or monitors. Errors:
    /// `BlockNotReady` when the time is over, or when something changed and that was not enough;
    /// nothing was mixed then, and the backend calls again. Call it at least twice a second, or the
    /// mixer's watchdog stops it. Threads: the backend's own, not one that others wait for while
    /// they hold the mix.
    int mixWhenReady(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                     unsigned int frames, double streamTime, int milliseconds) noexcept;
    /// Lets `mixWhenReady` look again. Sources and sinks of this library call it; a host needs it
    /// only to end a wait early. Threads: any. Real-time: no.
    void wakeMix();

public Q_SLOTS:
    /// Target gain of the device output; reached by a linear ramp within one block. Errors: a gain
    /// that is not finite is logged and ignored.
    /// Threads: any. Real-time: yes, as far as `onMasterGainChanged` is.
    void setMasterOutputGain(float gain);
    /// Target gain of the device input; as `setMasterOutputGain`.
    void setMasterInputGain(float gain);
    /// Empties the timeline.
    void reset();
    /// `activate()` or `deactivate(UserStopAction)`.
    void setActive(bool value);
    /// Passes the device input to the device output by the default matrix. Ignored unless
    /// active, with a backend that can play back. It starts no stream: with nothing in the mix it
    /// is heard only while `setStreaming` or `select` keeps one running.
    void setMonitoring(bool value);
    /// Keeps the stream of an active engine running when there is nothing in the mix, so that the
    /// input meter shows a level and monitoring is heard at any time. Off at first; what it is told
    /// stays through `deactivate`. The clock goes on with the stream. Threads: main.
    void setStreaming(bool value);
    /// Emits `mixerChanged`. Ignored while inactive.
    void setLooping(bool value);
    /// Removes the source whose signal called; see `removeSource(Source *)`.
    void removeSource();
    /// Removes the sink whose signal called.
    void removeSink();
    /// Moves the play position to `time` seconds in the material.
    void setTime(double time);
    /// Adds a selection to the timeline, seconds in the material. This and the five operations
    /// below do nothing while a sink or a source with a range of its own is in the mix. Ends may be
    /// infinity.
    void addSelection(double begin, double end);
    void removeSelection(double begin, double end);
    void clearSelections();
    void setLimits(double begin, double end);
    /// `setLimits` if that reaches beyond the limits, or none are set.
    void expandLimits(double begin, double end);
    /// `setLimits` if that lies inside the limits, or none are set.
    void collapsLimits(double begin, double end);
    /// The backend's failure report: deactivates with `DeviceFailed`, emits `deviceFailed`. A
    /// report that arrives after another device was opened is ignored, with a line.
    /// Threads: any, queued off the main thread.
    void onApiDeviceFailure();
    /// One attempt to open these devices; see `select`. Errors: false, logged.
    bool open(QTovelMixer::Device *outputDevice, QTovelMixer::Device *inputDevice,
              unsigned int sampleRate, bool startapi = true);
    /// Deletes a sink at once, after waiting for its worker; one in the mix is taken out first,
    /// without a signal. Null is ignored. Threads: main, so that a worker cannot delete its own
    /// object: `Sink::stop` ends it.
    void deleteSink(QTovelMixer::Sink *sink);
    /// Deletes a source at once, as `deleteSink`.
    void deleteSource(QTovelMixer::Source *source);
    /// Writes "StopReason: " and the reason's name to the debug log; nothing for `WorkerFailed`.
    void printStopReason(QTovelMixer::StopReason reason);

Q_SIGNALS:
    void sourceAdded(QTovelMixer::Source *source);
    void sinkAdded(QTovelMixer::Sink *sink);
    void sourceStateChanged(QTovelMixer::SourcePointer source);
    void sinkStateChanged(QTovelMixer::SinkPointer sink);
    void sourceFinished(QTovelMixer::SourcePointer source);
    void sinkFinished(QTovelMixer::SinkPointer sink);
    void deviceListChanged();
    /// Never emitted: compare `defaultDevice` at `deviceListChanged`.
    void defaultDeviceChanged();
    void updatingDeviceList();
    void started();
    /// The last source or sink has left the mix; the reason is that object's own.
    void stopped(QTovelMixer::StopReason reason = QTovelMixer::NoReason);
    void paused();
    void resumed();
    void activated();
    void deactivated();
    void mixerChanged();
    void meterLayoutChanged();
    void updateDeviceListFailed(QString backendString);
    void deviceFailed(bool wasPlaying, bool wasCapturing, QString backendString);
    /// The open device asks for no blocks any more, and reports no failure: a frozen sound server
    /// does so. Emitted once per stall, by the watchdog, before it stops what plays and records;
    /// `stopped` follows, with the reason of a host's own `stop`. When a slot opens a device, or
    /// makes the stream start again, the watchdog leaves it at that. `position`: seconds in the
    /// material, as `position()`.
    void deviceStalled(double position);

public:
    struct Data;

private:
    friend struct EngineAccess;
    friend class Source;
    friend class Sink;
    // Takes an object that is about to be destroyed out of the mix.
    void letGo(Source *source);
    void letGo(Sink *sink);
    // Pauses later what the source has brought to its pause position, unless the host stops or
    // starts before. Threads: the source's worker.
    void pauseFor(Source *source);
    // Returns when no block that began before is under way. Threads: worker.
    void waitForBlock() const;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
