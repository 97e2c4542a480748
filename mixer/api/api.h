// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_H
#define QTOVELMIXER_MIXER_API_API_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>
#include <mixer/types.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>

#include <memory>

namespace QTovelMixer {

struct ApiAccess;

/// A device backend: it owns the devices of one audio system, opens a pair of them for streaming
/// and hands every block of audio to the engine.
///
/// To write a backend, override the pure operations. `updateDeviceList` calls `beginDeviceUpdate`,
/// then `addDevice` for every device found, then `endDeviceUpdate`. `start` must not wait for a
/// callback: the engine may hold the update lock that the callback takes. `open` and `close` are
/// called by the engine through `openApi` and `closeApi`.
///
/// Threads: main, unless a line says otherwise.
class QTOVELMIXER_EXPORT Api : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Api)

public:
    /// A backend without devices, with blocks of `bufferFrames` frames, at most 4096.
    Api(Backend backend, const QString &name, unsigned int bufferFrames);
    /// Deletes every device that was ever added.
    ~Api() override;

    /// Probes the system and rebuilds the list. Errors: false when the probe failed.
    virtual bool updateDeviceList() = 0;
    virtual const QString &name() const;
    virtual Backend backend() const;
    /// The name of what `backend` answers.
    virtual QString backendString() const;
    /// The current list, unavailable devices included.
    virtual const QList<Device *> &devices() const;
    /// Frames of one block. Threads: any. Real-time: yes.
    virtual unsigned int bufferFrames() const QTOVELMIXER_NONBLOCKING;
    /// Hz of the open stream; 48000 before the first one. Threads: any. Real-time: yes.
    virtual unsigned int sampleRate() const QTOVELMIXER_NONBLOCKING;
    /// Channels of the open input device, 0 without one.
    virtual unsigned int numInputChannels() const;
    /// Channels of the open output device, 0 without one.
    virtual unsigned int numOutputChannels() const;
    virtual bool canCapture(bool argument = false) const;
    virtual bool canPlayback(bool argument = false) const;
    /// The open device of this kind, or what stands for it in the current list: an equal device,
    /// else the default one. Null when none is open.
    virtual Device *activeDevice(DeviceKind kind) const;
    /// The open device of this kind, or null.
    virtual Device *currentDevice(DeviceKind kind) const;
    /// The first default device of this kind, else the first with such channels, else null.
    virtual Device *defaultDevice(DeviceKind kind) const;
    /// "null": none; "default": the default; otherwise the listed device with such channels that
    /// matches the remembered identity best, or the default.
    virtual Device *device(DeviceKind kind, const QString &name) const;
    /// The listed device with such channels and this number, or the default.
    virtual Device *device(DeviceKind kind, unsigned int number) const;
    /// True for a listed device of this backend.
    virtual bool checkDevice(Device *device) const;
    virtual bool showControlPanel(DeviceKind kind);

    /// Opens the stream. Errors: false.
    virtual bool open(Device *output, Device *input, unsigned int sampleRate) = 0;
    /// Starts the open stream and returns without waiting for a block. Errors: false.
    virtual bool start() = 0;
    virtual bool stop() = 0;
    virtual bool close() = 0;
    /// Called when the engine pauses.
    virtual void onPause();
    /// Called when the engine resumes.
    virtual void onResume();
    virtual bool isOpen() const = 0;
    virtual bool isRunning() const = 0;
    /// True for a backend that pauses by itself, beside the engine. Threads: any. Real-time: yes.
    virtual bool mayPauseAgain() const QTOVELMIXER_NONBLOCKING;
    /// Frames of the blocks of streams that are opened from now on; `bufferFrames` answers it at
    /// once. An open stream, and what is added to the mix meanwhile, keeps its block: to change it,
    /// call `Engine::open` again (`Engine::select` leaves a device alone that is open already), or
    /// `deactivate` and `activate`. The file backend alone changes its blocks at once; longer ones
    /// than it was opened with are mixed in part only, and logged.
    virtual void setBufferFrames(unsigned int frames);

protected:
    virtual void beginDeviceUpdate();

public:
    /// The device with this identity among all that were ever added, or null.
    virtual Device *findDevice(const QString &uniqueId) const;
    /// `device` itself when it is listed, else a listed device with its full name and channel
    /// counts, else null.
    virtual Device *findActiveDevice(Device *device) const;

protected:
    /// Lists a device during an update; a new one is owned by the backend from now on. A second
    /// object for a known identity is refused, logged, and stays the caller's.
    virtual void addDevice(Device *device);
    virtual void endDeviceUpdate();
    /// Blocks that the engine let pass since it was made; see `Engine::droppedBlocks`.
    quint64 blocksDroppedByEngine() const;
    /// Hands one block to the engine once nobody would lose a frame; see `Engine::mixWhenReady`.
    /// Answers as `mixerCallback`, and `notReady` when the time is over. Threads: the backend's.
    int mixWhenReady(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                     unsigned int frames, double streamTime, int milliseconds) noexcept;
    /// Ends a wait of `mixWhenReady` early. Threads: any.
    void wakeMix();

public:
    /// The last update found something new or missing, or was the first.
    bool deviceListWasChanged() const;
    /// True before the first update and 1500 ms after the last one.
    bool canUpdateDeviceList() const;

    /// The engine to hand blocks and failures to; null for none.
    void setEngine(Engine *engine);
    /// What `setEngine` was given last. Threads: any.
    Engine *engine() const;
    /// Opens at a rate that all devices have, and makes them current. Errors: false, and nothing
    /// is current. Two null devices: nothing is opened, and the answer is true.
    bool openApi(Device *output, Device *input, unsigned int sampleRate);
    bool closeApi();

    /// What `mixWhenReady` answers for a block that was not mixed.
    static constexpr int notReady = 3;

    /// Hands one block to the engine; see `Engine::mixerCallback`. Answers 0 to go on, 1 to stop
    /// after draining, 2 to abort; 2 without an engine. Threads: audio. Real-time: yes.
    int mixerCallback(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                      unsigned int frames, double streamTime,
                      unsigned int status) noexcept QTOVELMIXER_NONBLOCKING;

    /// Reports a broken device, once until `rearmDeviceFailure`. Threads: any.
    void reportDeviceFailure();
    /// Lets the next failure be reported. Threads: any.
    void rearmDeviceFailure();
    /// True when no other device was opened since the last failure was reported.
    bool failureIsCurrent() const;

Q_SIGNALS:
    /// Never emitted; the engine's signal of this name is.
    void deviceListChanged();
    void deviceFailure();

private:
    friend struct ApiAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
