// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_VIRTUAL_H
#define QTOVELMIXER_MIXER_API_API_VIRTUAL_H

#include <mixer/api/api.h>

#include <functional>

/// A backend without hardware that plays and records: its devices are those that the host plugs
/// in, and a thread of its own drives the blocks.
///
/// With the pacing `RealTime` blocks begin at absolute times of the monotonic clock, so that the
/// stream never drifts: a late block is followed by the next one as soon as possible. With
/// `FreeWheel` a block runs as soon as every source in the mix has it buffered (or has ended) and
/// every sink has room for it, so that nothing is lost however slow a source's host is; until all
/// attached sources and sinks are started, while the mixer is paused, and when all sources are over
/// and nothing records or monitors, no block runs.
///
/// The input of a stream is silence unless `setGenerator` or `setLoopback` said otherwise; its
/// output goes to the handler, or nowhere. Generator and handler run on the audio thread; one
/// that throws breaks the stream as a failing device does. They may take their time in free-wheel,
/// but never wait for the main thread.
///
/// Threads: main, unless a line says otherwise.
class QTOVELMIXER_EXPORT QTovelMixerApiVirtual : public QTovelMixer::Api
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(QTovelMixerApiVirtual)

public:
    enum class Pacing { RealTime, FreeWheel };

    /// A device that a host plugs in. The name is its identity.
    struct DeviceSetup
    {
        QString name;
        unsigned int inputChannels = 0;                          ///< 0 … 128
        unsigned int outputChannels = 0;                         ///< 0 … 128
        QList<unsigned int> sampleRates = {44100, 48000, 96000}; ///< Hz, each above 0
        unsigned int preferedSampleRate = 48000; ///< Hz; the first rate when it is not listed
        bool defaultInput = false;
        bool defaultOutput = false;
        unsigned int minBufferFrames = 64;
        unsigned int maxBufferFrames = 4096;
    };

    /// How the stream has kept its time since `start`.
    struct Statistics
    {
        quint64 blocks = 0;     ///< begun
        quint64 lateBlocks = 0; ///< begun more than 1 ms after their time; `RealTime` only
        qint64 worstDelay = 0;  ///< nanoseconds after its time at which the latest block began
    };

    /// Fills `frames` interleaved frames of `channels` channels (zeros so far). The first one has
    /// the number `firstFrame` since the start of the stream.
    using Generator = std::function<void(float *samples, unsigned int frames, unsigned int channels,
                                         quint64 firstFrame)>;
    /// Takes `frames` interleaved frames, valid during the call.
    using OutputHandler = std::function<void(const float *samples, unsigned int frames,
                                             unsigned int channels, quint64 firstFrame)>;

    /// A backend without devices, with blocks of `bufferFrames` frames, 1 to 4096.
    explicit QTovelMixerApiVirtual(Pacing pacing, unsigned int bufferFrames = 256,
                                   const QString &name = QStringLiteral("Virtual"));
    /// Ends the stream and waits for its thread, for a handler under way too.
    ~QTovelMixerApiVirtual() override;

    Pacing pacing() const;

    /// Makes a device known to the next `updateDeviceList`; a plugged one with the same name gets
    /// the new description. Errors: false, and nothing changes, for an empty name, no or more than
    /// 128 channels on a side, no or a zero rate, a buffer range that is empty or beyond 4096
    /// frames, or a device that is open.
    bool plug(const DeviceSetup &setup);
    /// Takes a device away, also from the next list. If it is open, its stream ends and the
    /// failure is reported as for a broken device. Errors: false for an unknown name.
    bool unplug(const QString &name);
    /// Makes a device fail, or work again: while it fails it stays listed but does not open, and
    /// if it is open its stream ends and the failure is reported. Errors: false for an unknown
    /// name.
    bool setFailing(const QString &name, bool failing);

    /// Silence as input, the default. This and the three below take effect with the next `start`.
    void setSilence();
    /// Calls `generator` for every block of input.
    void setGenerator(const Generator &generator);
    /// The output as input, `delayFrames` later, channel by channel; input channels beyond the
    /// output's are silent. A delay below one block becomes one block, and one above 2^26 frames
    /// becomes that.
    void setLoopback(quint64 delayFrames);
    /// Gives every block of output to `handler`; null drops it.
    void setOutputHandler(const OutputHandler &handler);

    /// How the stream does, or did until it stopped.
    Statistics statistics() const;

    bool updateDeviceList() override;
    /// Errors: false for a device that is not plugged, or failing, or while an earlier stream has
    /// not ended yet.
    bool open(QTovelMixer::Device *output, QTovelMixer::Device *input,
              unsigned int sampleRate) override;
    bool start() override;
    /// Waits for the block under way, 2 s at most. From a handler it does not wait. Errors: false
    /// when the block did not end; the stream then ends as soon as it does.
    bool stop() override;
    bool close() override;
    bool isOpen() const override;
    bool isRunning() const override;

private:
    struct VirtualData;
    std::unique_ptr<VirtualData> v;
};

#endif
