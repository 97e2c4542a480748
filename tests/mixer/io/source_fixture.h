// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SOURCE_FIXTURE_H
#define QTOVELMIXER_TESTS_SOURCE_FIXTURE_H

#include <mixer/aligned_vector.h>
#include <mixer/engine.h>
#include <mixer/engine_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>
#include <support/log_capture.h>

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QStringList>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

using namespace QTovelMixer;

/// An engine without a backend, whose rate and clock the test sets.
class ClockEngine : public Engine
{
public:
    explicit ClockEngine(unsigned rate) : Engine(nullptr), m_rate(rate)
    {
        EngineAccess::shipped(*this).active = true;
    }
    unsigned int sampleRate() const override { return m_rate; }
    void setFrame(qint64 frame) { EngineAccess::shipped(*this).mixTime = frame; }

private:
    std::atomic<unsigned> m_rate;
};

/// What the ramp source plays: frame k of channel c is k × 2 + c.
inline float rampSample(qint64 frame, int channel)
{
    return static_cast<float>(frame * 2 + channel);
}

/// Plays a ramp, or what `material` says, and remembers everything it was asked.
class RampSource : public Source
{
public:
    struct Read
    {
        int frames;
        int channels;
        double time; // seconds
    };
    struct State
    {
        PlaybackState state;
        Config config;
    };
    using Material = std::function<int(float *, int, int, double)>;

    using Source::Source;
    ~RampSource() override
    {
        if (!leaveToBase)
            SourceAccess::endAndWait(*this);
    }

    // Set before start.
    double duration = 10.0; // seconds
    Material material;      // instead of the ramp
    std::function<void()> runStarted;
    double pauseAt = -1.0; // seconds
    double scale = 1.0;
    qint32 flags = 0;
    bool leaveToBase = false; // the destructor lets the base class end the worker
    bool acceptSoft = true;
    bool acceptKeepState = true;

    std::vector<Read> reads() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_reads;
    }
    std::vector<State> states() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_states;
    }
    std::vector<PauseMode> asked;
    std::vector<StopReason> finishedWith; // look at it when the thread has ended
    std::vector<double> runStarts;        // likewise
    std::atomic<int> stops{0};
    std::atomic<int> pauses{0};
    std::atomic<int> resumes{0};

    auto &record() { return SourceAccess::data(*this); }

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return duration; }
    double configScale() const override { return scale; }
    qint32 configFlags() const override { return flags; }
    double pausePosition() const override { return pauseAt; }
    bool acceptPause(PauseMode mode) override
    {
        asked.push_back(mode);
        return mode == PauseSoft ? acceptSoft : acceptKeepState;
    }
    void notifyState(PlaybackState state, const Config &config) override
    {
        const QMutexLocker lock(&m_mutex);
        m_states.push_back({state, config});
    }
    void onFinished(StopReason reason) override { finishedWith.push_back(reason); }
    void onRunStart(double milliseconds) override
    {
        runStarts.push_back(milliseconds);
        if (runStarted)
            runStarted();
    }
    void onStop() override { ++stops; }
    void onPause() override { ++pauses; }
    void onResume() override { ++resumes; }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        {
            const QMutexLocker lock(&m_mutex);
            m_reads.push_back({frames, channels, time});
        }
        return material ? material(buffer, frames, channels, time)
                        : ramp(buffer, frames, channels, time);
    }
    int ramp(float *buffer, int frames, int channels, double time) const
    {
        const qint64 first = static_cast<qint64>(time * sampleRate() + 0.5);
        const qint64 end = static_cast<qint64>(duration * sampleRate() + 0.5);
        const qint64 count = std::clamp<qint64>(end - first, 0, frames);
        for (qint64 i = 0; i < count; ++i) {
            for (int c = 0; c < channels; ++c)
                buffer[i * channels + c] = rampSample(first + i, c);
        }
        return static_cast<int>(count);
    }

private:
    mutable QMutex m_mutex;
    std::vector<Read> m_reads;
    std::vector<State> m_states;
};

/// The planar buffers of one block, full of a value that no test expects.
class Block
{
public:
    static constexpr float dirt = -12345.0f;

    Block(int channels, size_t frames)
    {
        for (int c = 0; c < channels; ++c) {
            m_buses.emplace_back(frames);
            m_buses.back() = dirt;
        }
    }
    aligned_vector<float, 16> *buses() { return m_buses.data(); }
    int channels() const { return static_cast<int>(m_buses.size()); }
    float at(int channel, int frame) const { return m_buses[static_cast<size_t>(channel)][frame]; }
    size_t frames() const { return m_buses.front().size(); }
    bool isSilent(int fromFrame = 0) const
    {
        for (const aligned_vector<float, 16> &bus : m_buses) {
            for (size_t i = static_cast<size_t>(fromFrame); i < bus.size(); ++i) {
                if (bus.constData()[i] != 0.0f)
                    return false;
            }
        }
        return true;
    }

private:
    std::vector<aligned_vector<float, 16>> m_buses;
};

/// Gives a source a ring as its worker would, so that one thread can play all sides.
inline FrameRing &giveRing(Source &source, qint64 frames, int channels)
{
    auto &data = SourceAccess::data(source);
    data.ring = &data.ringOwner.emplace(frames, channels);
    data.running = 1;
    return *data.ringOwner;
}

/// Frames that a started source has ready, 0 before it has a ring.
inline qint64 readyFrames(Source &source)
{
    const FrameRing *ring = SourceAccess::data(source).ring;
    return ring ? ring->readSlice().frames : 0;
}

/// Takes the interleaved samples out of a started source until its worker has ended, or until
/// `most` of them have come.
inline std::vector<float> takeAll(Source &source, size_t most = ~size_t{0})
{
    std::vector<float> taken;
    for (;;) {
        const bool ended = static_cast<QThread &>(source).isFinished();
        FrameRing *ring = SourceAccess::data(source).ring;
        if (ring) {
            const FrameRing::Slice slice = ring->readSlice();
            taken.insert(taken.end(), slice.data, slice.data + slice.frames * ring->channels());
            ring->consume(slice.frames);
        }
        if (ended || taken.size() >= most)
            return taken;
        QThread::yieldCurrentThread();
    }
}

/// Puts frames `first` … of the ramp into a ring.
inline void produceRamp(FrameRing &ring, qint64 first, int frames)
{
    float *to = ring.writeSlice().data;
    for (int i = 0; i < frames; ++i) {
        for (int c = 0; c < ring.channels(); ++c)
            *to++ = rampSample(first + i, c);
    }
    ring.produce(frames);
}

/// The lines of a log that contain some words.
inline QStringList linesWith(const LogCapture &log, const QString &words)
{
    return log.texts().filter(words);
}

inline QString address(const void *pointer)
{
    return QStringLiteral("0x") + QString::number(reinterpret_cast<quintptr>(pointer), 16);
}

inline const QString tracePrefix = QStringLiteral("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");

#endif
