// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_TYPES_H
#define QTOVELMIXER_MIXER_TYPES_H

#include <base/export.h>

#include <QtCore/QFlags>
#include <QtCore/QPointer>
#include <QtCore/QString>

namespace QTovelMixer {

class Api;
class Device;
class Effect;
class Engine;
class Meter;
class Sink;
class Source;
class Timeline;

/// Why a source, a sink or the mixer stopped.
enum StopReason : qint32 {
    NoReason = 0,             ///< without a cause; the watchdog stops with it
    AudioFinished = 1,        ///< a source reached the end of its material
    PausePositionReached = 2, ///< playback reached a pause position
    UserStopAction = 3,       ///< the user stopped; also what an untouched object answers
    UserPauseAction = 4,      ///< the user paused with `PauseKeepState`
    DeviceListChanged = 5,    ///< the devices changed under a running mixer
    DeviceFailed = 6,         ///< the device backend reported a failure
    WorkerFailed = 7 ///< a source could not play, or a sink not record: its rate or channels
                     ///< are refused, there is no memory or no thread, or its host threw
};

/// The side of a device.
enum DeviceKind : qint32 {
    Input = 0, ///< capture
    Output = 1 ///< playback
};

namespace TypeEnum {
/// The side of a meter, or the direction of a route. Lives in a namespace of its own since
/// `Input` and `Output` are values of `DeviceKind` too; write `Type::Input`.
enum Type : qint32 {
    NoType = 0,
    Input = 1,  ///< a capture meter; a route from an input device
    Output = 2, ///< a playback meter; a route to an output device
    Loop = 3    ///< a route from one device to another
};
} // namespace TypeEnum
using Type = TypeEnum::Type;

/// What `Engine::addSource` and `Engine::addSink` leave out.
enum Option : qint32 {
    NoAddedSignal = 0x1, ///< no `sourceAdded` or `sinkAdded`
    NoTimeline = 0x2     ///< the engine's timeline is neither attached nor widened
};
Q_DECLARE_FLAGS(Options, Option)
Q_DECLARE_OPERATORS_FOR_FLAGS(Options)

/// How a source pauses.
enum PauseMode : qint32 {
    PauseSoft = 0,     ///< the worker goes on, the mix takes silence from the source
    PauseKeepState = 1 ///< the worker ends; the host rebuilds the source from its `Config`
};

/// What a source announces through `Source::notifyState`.
enum PlaybackState : qint32 {
    Stopped = 0, ///< the worker ended
    Playing = 1, ///< the worker started, or the source resumed
    Paused = 2   ///< the source paused
};

/// When input monitoring ends by itself (bits).
enum MonitorTrigger : qint32 {
    MonitorUntilStop = 1 ///< when the mixer stops
};

/// The audio system behind a device backend.
enum Backend : qint32 {
    NoBackend = -1,
    Auto = 0,
    File = 1,
    Alsa = 2,
    Pulse = 3,
    OSS = 4,
    Jack = 5,
    CoreAudio = 6,
    WASAPI = 7,
    ASIO = 8,
    DirectSound = 9,
    Disabled = 10
};

/// A stretch of time in seconds.
struct Range
{
    double start = -1.0;
    double end = -1.0;

    /// True when 0 ≤ start < end.
    bool isValid() const noexcept { return 0.0 <= start && start < end; }

    friend bool operator==(const Range &, const Range &) = default;
};

/// What a source hands over with a change of state, so that a host can build it again.
struct Config
{
    double position = 0.0;      ///< position in the material, seconds
    double scale = 1.0;         ///< the host's, from `Source::configScale`
    Range range;                ///< the playback range, seconds
    qint32 flags = 0;           ///< the host's, from `Source::configFlags`
    quint64 channelMask = 0xff; ///< bit c stands for channel c
};

using SourcePointer = QPointer<Source>;
using SinkPointer = QPointer<Sink>;

/// "input", "output", "loop", and "invalid" for every other value. Threads: any.
QTOVELMIXER_EXPORT QString toString(Type type);

/// The type with this name, whatever its case; `Type::NoType` for any other text. Threads: any.
QTOVELMIXER_EXPORT Type fromTypeString(const QString &text);

/// The name of a backend, empty for `NoBackend`. Threads: any.
/// Errors: throws std::logic_error ("Invalid backend") outside −1 … 10.
QTOVELMIXER_EXPORT QString convertBackendToString(Backend backend);

/// The backend with this name, whatever its case; `Auto` for any other text. Threads: any.
QTOVELMIXER_EXPORT Backend convertStringToBackend(const QString &name);

/// True on the application's main thread, by the host's `BLTHREAD_IsRunningInMainThread`.
/// Threads: any.
QTOVELMIXER_EXPORT bool IsRunningInMainThread();

} // namespace QTovelMixer

#endif
