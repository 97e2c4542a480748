// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_VIRTUAL_STREAM_P_H
#define QTOVELMIXER_MIXER_API_VIRTUAL_STREAM_P_H

#include <mixer/aligned_vector.h>
#include <mixer/api/api_virtual.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtCore/QWaitCondition>

#include <atomic>
#include <functional>
#include <vector>

namespace QTovelMixer {

/// The frame times of a stream, without a sum that could drift.
struct FrameClock
{
    unsigned int rate; ///< Hz

    /// Nanoseconds from frame 0 to this one, rounded down.
    qint64 nanoseconds(quint64 frame) const noexcept
    {
        constexpr quint64 second = 1000000000;
        return qint64(frame / rate * second + frame % rate * second / rate);
    }
};

/// The last frames of an output, read back later.
class DelayLine
{
public:
    /// A line that answers zeros before the first frame that was written.
    DelayLine(quint64 delayFrames, unsigned int blockFrames, unsigned int channels);

    /// The frames from `first` − delay on, one block at most, into `channels` interleaved ones.
    void read(float *samples, unsigned int frames, unsigned int channels, quint64 first) const;
    void write(const float *samples, unsigned int frames, quint64 first);

private:
    quint64 m_delay;
    quint64 m_capacity; ///< frames
    unsigned int m_channels;
    std::vector<float> m_line;
};

/// One run of a virtual device: the audio thread with its blocks and its timing.
class VirtualStream : public QThread
{
public:
    using Block = aligned_vector<float, 16>;
    using Pacing = QTovelMixerApiVirtual::Pacing;

    struct Setup
    {
        Pacing pacing = Pacing::RealTime;
        unsigned int frames = 0;
        unsigned int rate = 0; ///< Hz
        unsigned int inputChannels = 0;
        unsigned int outputChannels = 0;
        bool loopback = false;
        quint64 delayFrames = 0;
        QTovelMixerApiVirtual::Generator generator;
        QTovelMixerApiVirtual::OutputHandler handler;
        /// Mixes one block; answers 0, or `Api::notReady` after a while, or another value to end.
        std::function<int(Block &, Block &, unsigned int, double)> mix;
        std::function<void()> wake; ///< lets `mix` come back
        std::function<void()> fail; ///< the generator or the handler has thrown
    };

    explicit VirtualStream(const Setup &setup);
    /// Ends the thread and waits for it.
    ~VirtualStream() override;

    /// Asks for the end and wakes the thread. Threads: any.
    void requestEnd();
    /// The thread runs blocks and was not asked to end. Threads: any.
    bool isActive() const;
    /// Threads: any.
    QTovelMixerApiVirtual::Statistics statistics() const;

protected:
    void run() override;

private:
    void runBlocks();
    bool waitForTime(quint64 frame);
    bool runBlock(quint64 frame);
    void fillInput(quint64 frame);
    void deliver(quint64 frame);

    const Setup m_setup;
    Block m_input;
    Block m_output;
    DelayLine m_line;
    QElapsedTimer m_clock;
    std::atomic<bool> m_endRequested{false};
    std::atomic<bool> m_ended{false};
    QMutex m_mutex;
    QWaitCondition m_wake; ///< with m_mutex: the end was requested
    std::atomic<quint64> m_blocks{0};
    std::atomic<quint64> m_lateBlocks{0};
    std::atomic<qint64> m_worstDelay{0}; ///< nanoseconds
};

} // namespace QTovelMixer

#endif
