// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_RTAUDIO_H
#define QTOVELMIXER_MIXER_API_API_RTAUDIO_H

#include <base/nonblocking.h>
#include <mixer/api/api.h>

#include <QtCore/QFlags>
#include <QtCore/QStringList>

namespace QTovelMixer {
struct RtAudioAccess;
}

/// The backend for sound hardware: PulseAudio, JACK, PipeWire (through either), ALSA, CoreAudio,
/// WASAPI, ASIO and DirectSound, as far as RtAudio was compiled with them.
///
/// Every call into a sound server has a deadline. A server that does not answer costs the caller
/// at most 2.5 s, counted over all calls up to the next turn of its event loop; the stuck
/// connection is then left to itself, and the backend goes on with a fresh one. A device that
/// dies is reported once by `deviceFailure`, also where the sound library only warns.
///
/// Devices are found again by name and channel counts before each opening, since numbers change.
///
/// Threads: main, unless a line says otherwise.
class QTOVELMIXER_EXPORT QTovelMixerApiRtAudio : public QTovelMixer::Api
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(QTovelMixerApiRtAudio)

public:
    enum Option : qint32 {
        ScheduleRealtime = 1, ///< asks for real-time scheduling of the audio thread
        MinimizeLatency = 2   ///< asks for the lowest latency that the interface offers
    };
    Q_DECLARE_FLAGS(Options, Option)

    /// How the audio thread is scheduled.
    enum SchedulingClass : qint32 { UnknownScheduling, NormalScheduling, Fifo, RoundRobin };

    /// What a stream has been through. All counts begin anew at `open`.
    struct StreamStatus
    {
        unsigned int outputLatency = 0; ///< frames from the callback to the device, as told or set
        unsigned int inputLatency = 0;  ///< frames from the device to the callback
        quint64 blocks = 0;             ///< callbacks that reached the engine
        quint64 overflows = 0;          ///< blocks before which input was lost
        quint64 underflows = 0;         ///< blocks before which the output ran dry
        /// Blocks that became silence: the engine was being changed, or their size was wrong.
        quint64 droppedBlocks = 0;
        quint64 lateBlocks = 0; ///< blocks that took longer to mix than they last
        SchedulingClass schedulingClass = UnknownScheduling;
        int schedulingPriority = 0;
        QString lastError; ///< the last text that RtAudio gave, empty without one
    };

    /// `backend`: the interface; Auto takes the preferred one, NoBackend and File leave the choice
    /// to RtAudio. `name`: also what sound servers show users. `bufferFrames`: the block asked for,
    /// 32 to 4096 frames; the interface may give another. Errors: one log line, and `backend()` is
    /// NoBackend, when RtAudio was not compiled with the interface or fails; every operation is
    /// then refused.
    QTovelMixerApiRtAudio(QTovelMixer::Backend backend, const QString &name,
                          const QFlags<Option> &options, unsigned int bufferFrames);
    /// The same, under the name of the backend. Sound servers show users the application's name.
    QTovelMixerApiRtAudio(QTovelMixer::Backend backend, const QFlags<Option> &options,
                          unsigned int bufferFrames);
    ~QTovelMixerApiRtAudio() override;

    /// Lets the failures of the current connection be reported by this backend.
    void installDeviceFailureCallback();

    /// The interface in use, NoBackend without one.
    QTovelMixer::Backend backend() const override;

    /// Names of the interfaces that RtAudio was compiled with, in its order. Threads: any.
    static QStringList getAvailableBackends();
    /// Name of the first preferred interface that RtAudio was compiled with; "Disabled" when there
    /// is none. Errors: std::logic_error when the list holds a value that is no backend.
    static QString getPreferedBackend();
    /// Replaces the list of preferred interfaces, the best first.
    static void setPreferedBackends(const QList<QTovelMixer::Backend> &backends);

    /// Errors: false, and the list stays, without a connection or when the server does not answer.
    bool updateDeviceList() override;
    /// `sampleRate`: 10 to 192000 Hz. Errors: false and one log line.
    bool open(QTovelMixer::Device *output, QTovelMixer::Device *input,
              unsigned int sampleRate) override;
    bool start() override;
    bool stop() override;
    bool close() override;
    bool isOpen() const override;
    bool isRunning() const override;
    bool showControlPanel(QTovelMixer::DeviceKind kind) override;

    /// Latencies, losses and scheduling of the open stream.
    StreamStatus streamStatus() const;

    /// RtAudio's stream callback, with the backend as `userData`: interleaved floats, `frames`
    /// frames, on both sides. Threads: audio. Real-time: yes.
    static int MixerCallback(void *outputBuffer, void *inputBuffer, unsigned int frames,
                             double streamTime, unsigned int status,
                             void *userData) noexcept QTOVELMIXER_NONBLOCKING;

private:
    friend struct QTovelMixer::RtAudioAccess;
    struct RtAudioData;
    std::unique_ptr<RtAudioData> r;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QTovelMixerApiRtAudio::Options)

#endif
