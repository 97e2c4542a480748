// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_IO_RECORDING_SINK_H
#define QTOVELMIXER_TESTS_MIXER_IO_RECORDING_SINK_H

#include <mixer/aligned_vector.h>
#include <mixer/engine.h>
#include <mixer/io/sink.h>
#include <mixer/io/sink_p.h>
#include <support/ramp.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QMutex>
#include <QtCore/QSemaphore>
#include <QtCore/QWaitCondition>
#include <QtTest/QTest>

#include <atomic>
#include <cmath>
#include <stdexcept>
#include <vector>

/// Milliseconds after which a test gives up on another thread.
constexpr int patience = 20000;

/// An engine without a backend that has a rate.
class ClockEngine : public QTovelMixer::Engine
{
public:
    explicit ClockEngine(unsigned rate = 48000) : Engine(nullptr), m_rate(rate) {}
    unsigned sampleRate() const override { return m_rate; }

private:
    const unsigned m_rate;
};

/// A ramp's frames from `mixerFrame` on, one vector per channel.
inline std::vector<QTovelMixer::aligned_vector<float, 16>> rampBlock(int channels,
                                                                     qint64 mixerFrame, int frames)
{
    std::vector<QTovelMixer::aligned_vector<float, 16>> inputs;
    for (int c = 0; c < channels; ++c) {
        inputs.emplace_back(size_t(frames));
        for (int i = 0; i < frames; ++i)
            inputs.back()[i] = Ramp::sample(mixerFrame + i, c);
    }
    return inputs;
}

/// Hands the sink such a block, as the engine does.
inline void deliver(QTovelMixer::Sink &sink, int channels, qint64 mixerFrame, int frames)
{
    std::vector<QTovelMixer::aligned_vector<float, 16>> inputs =
        rampBlock(channels, mixerFrame, frames);
    sink.mixer_callback(inputs.data(), channels, mixerFrame);
}

/// A sink that keeps everything, and that can be held up inside writeSamples.
class RecordingSink : public QTovelMixer::Sink
{
public:
    struct Call
    {
        int frames;
        int channels;
        double time;
        bool straight; // the buffer was the ring's own memory
        Qt::HANDLE thread;
    };

    RecordingSink(QTovelMixer::Engine *engine, int channels, int rate, float seconds = 5.0f)
        : Sink(engine, seconds), m_channels(channels), m_rate(rate)
    {
        // Direct: counts what came before the signal, on the thread that emits it.
        connect(
            this, &Sink::sinkStateChanged, this,
            [this] {
                if (notified == notifiedBeforeSignal + 1)
                    ++notifiedBeforeSignal;
                stateThread = QThread::currentThreadId();
            },
            Qt::DirectConnection);
    }

    ~RecordingSink() override
    {
        releaseHost();
        QTovelMixer::SinkAccess::endAndWait(*this);
    }

    int numChannels() const override { return m_channels; }
    int sampleRate() const override { return m_rate; }
    void notifyState() override { ++notified; }
    void onStop() override { ++stops; }
    void onRunStart() override
    {
        ++runStarts;
        m_started.release();
    }

    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        inHost = true;
        if (throwing == 1)
            throw std::runtime_error("disk full");
        if (throwing == 2)
            throw 2;
        if (m_blocking) {
            m_blocked.release();
            m_gate.acquire();
        }
        const QTovelMixer::FrameRing::Slice slice =
            QTovelMixer::SinkAccess::data(*this).ring->readSlice();
        if (checkAgainstTime)
            compare(buffer, frames, channels, time);
        const QMutexLocker lock(&m_mutex);
        m_calls.push_back(
            {frames, channels, time, slice.data == buffer, QThread::currentThreadId()});
        m_samples.insert(m_samples.end(), buffer, buffer + frames * channels);
        m_frames += frames;
        inHost = false;
        m_arrived.wakeAll();
    }

    bool waitForStart() { return m_started.tryAcquire(1, patience); }
    void blockHost() { m_blocking = true; }
    bool waitUntilBlocked() { return m_blocked.tryAcquire(1, patience); }
    void releaseHost()
    {
        if (m_blocking.exchange(false))
            m_gate.release();
    }

    bool waitForFrames(qint64 frames)
    {
        const QDeadlineTimer deadline(patience);
        QMutexLocker lock(&m_mutex);
        while (m_frames < frames)
            if (!m_arrived.wait(&m_mutex, deadline))
                return false;
        return true;
    }

    qint64 takenFrames() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_frames;
    }
    QList<Call> calls() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_calls;
    }
    float sample(qint64 frame, int channel) const
    {
        const QMutexLocker lock(&m_mutex);
        return m_samples[size_t(frame * m_channels + channel)];
    }
    double endTime() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_calls.last().time + double(m_calls.last().frames) / m_rate;
    }

    std::atomic<int> notified{0};
    std::atomic<int> notifiedBeforeSignal{0};
    std::atomic<int> runStarts{0};
    std::atomic<int> stops{0};
    std::atomic<int> throwing{0};
    std::atomic<int> mismatches{0};
    std::atomic<bool> checkAgainstTime{false};
    std::atomic<bool> inHost{false};
    std::atomic<Qt::HANDLE> stateThread{nullptr};

private:
    void compare(const float *buffer, int frames, int channels, double time)
    {
        const qint64 first = std::llround(time * m_rate);
        for (int i = 0; i < frames; ++i)
            for (int c = 0; c < channels; ++c) {
                const float sample = buffer[i * channels + c];
                if (sample != 0.0f && sample != Ramp::sample(first + i, c))
                    ++mismatches;
            }
    }

    const int m_channels;
    const int m_rate;
    QSemaphore m_started;
    QSemaphore m_blocked;
    QSemaphore m_gate;
    std::atomic<bool> m_blocking{false};
    mutable QMutex m_mutex;
    QWaitCondition m_arrived;
    QList<Call> m_calls;
    std::vector<float> m_samples;
    qint64 m_frames = 0;
};

/// Counts a sink's signals on the thread of the test.
class SinkSignals
{
public:
    explicit SinkSignals(QTovelMixer::Sink &sink)
    {
        QObject::connect(&sink, &QTovelMixer::Sink::sinkStateChanged, &m_context,
                         [this](const QPointer<QTovelMixer::Sink> &which) {
                             ++states;
                             last = which;
                         });
        QObject::connect(&sink, &QTovelMixer::Sink::sinkFinished, &m_context,
                         [this](const QPointer<QTovelMixer::Sink> &which) {
                             ++finished;
                             last = which;
                         });
    }

    int states = 0;
    int finished = 0;
    QPointer<QTovelMixer::Sink> last;

private:
    QObject m_context;
};

inline constexpr int second = 48000; // frames

/// Waits until the host has this many frames and the worker nothing left to hand over.
inline bool drained(RecordingSink &sink, qint64 frames)
{
    return sink.waitForFrames(frames) &&
           QTest::qWaitFor([&sink] { return QTovelMixer::SinkAccess::data(sink).ring->isEmpty(); },
                           patience);
}

inline QString hex(const void *pointer)
{
    return QStringLiteral("0x") + QString::number(quintptr(pointer), 16);
}

inline const QString prefix = QStringLiteral("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");

#endif
