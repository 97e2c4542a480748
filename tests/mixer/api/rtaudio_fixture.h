// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_RTAUDIO_FIXTURE_H
#define QTOVELMIXER_TESTS_MIXER_API_RTAUDIO_FIXTURE_H

#include <mixer/api/api_rtaudio.h>
#include <mixer/api/device.h>
#include <mixer/engine.h>
#include <mixer/io/source.h>
#include <support/ramp.h>
#include <support/sound_server.h>
#include <support/take_sink.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

/// An application that knows how long its main thread was ever held, by an event or by a call
/// made through `timed`.
class TimedApplication : public QCoreApplication
{
public:
    using QCoreApplication::QCoreApplication;

    template <typename Call>
    static auto timed(Call call)
    {
        struct Watch
        {
            ~Watch() { longest = std::max(longest, clock.elapsed()); }
            QElapsedTimer clock;
        } watch;
        watch.clock.start();
        return call();
    }

    bool notify(QObject *receiver, QEvent *event) override
    {
        if (QThread::currentThread() != thread())
            return QCoreApplication::notify(receiver, event);
        return timed([&] { return QCoreApplication::notify(receiver, event); });
    }

    static inline qint64 longest = 0; ///< ms
};

#define RTAUDIO_TEST_MAIN(Test) \
    int main(int argc, char **argv) \
    { \
        TimedApplication application(argc, argv); \
        Test test; \
        return QTest::qExec(&test, argc, argv); \
    }

/// Threads and open files of the process.
struct Resources
{
    int threads = 0;
    int files = 0;

    static Resources now()
    {
        const auto count = [](const char *folder) {
            return int(QDir(QLatin1String(folder))
                           .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                           .size());
        };
        return {count("/proc/self/task"), count("/proc/self/fd")};
    }

    bool within(const Resources &other) const
    {
        return threads <= other.threads && files <= other.files;
    }
};

/// An endless ramp from frame 0 of its material on.
class EndlessRamp : public QTovelMixer::Source
{
public:
    EndlessRamp(QTovelMixer::Engine *engine, int rate, int channels)
        : Source(engine, rate, channels, 5.0f)
    {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        Ramp::fill(buffer, qint64(std::floor(time * sampleRate() + 0.5)), frames, channels);
        return frames;
    }
};

/// What a take holds of a ramp.
struct Arrival
{
    qint64 silence = 0; ///< frames before the first one
    qint64 first = -1;  ///< number of the first one in the ramp, modulo Ramp::frameCycle
    qint64 frames = 0;  ///< that follow each other from there on
    qint64 gaps = 0;    ///< frames of silence in between, which a server puts in when it is not fed
    QString mismatch;   ///< the first sample that is wrong: lost, doubled or changed

    Arrival(const std::vector<float> &samples, int channels)
    {
        const qint64 count = qint64(samples.size()) / channels;
        const auto isSilent = [&](qint64 frame) {
            const float *sample = samples.data() + frame * channels;
            return std::all_of(sample, sample + channels,
                               [](float value) { return value == 0.0f; });
        };
        for (qint64 frame = 0; frame < count && mismatch.isEmpty(); ++frame) {
            if (isSilent(frame)) {
                ++(first < 0 ? silence : gaps);
                continue;
            }
            if (first < 0) {
                const double code =
                    (double(samples[size_t(frame * channels)]) * 16777216.0 - 1.0) / 2.0;
                first = qint64(code) / Ramp::channelCycle;
            }
            mismatch =
                Ramp::mismatch(samples.data() + frame * channels, first + frames, 1, channels);
            ++frames;
        }
    }
};

/// A mixer on a sound server, driven as a host drives it, with what it told.
class RtAudioSession
{
public:
    enum Direction { Playback, Capture, Duplex };

    RtAudioSession(QTovelMixer::Backend backend, Direction way, unsigned frames = 512,
                   QTovelMixerApiRtAudio::Options options = {})
        : direction(way),
          api(new QTovelMixerApiRtAudio(backend, QStringLiteral("test"), options, frames)),
          engine(std::make_unique<QTovelMixer::Engine>(api))
    {
        using QTovelMixer::Engine;
        Engine::setDefault(QTovelMixer::DeviceKind::Output, choice(way != Capture));
        Engine::setDefault(QTovelMixer::DeviceKind::Input, choice(way != Playback));
        QObject::connect(engine.get(), &Engine::deviceFailed, engine.get(), [this] { ++failures; });
        QObject::connect(engine.get(), &Engine::stopped, engine.get(), [this] { ++stops; });
        QObject::connect(engine.get(), &Engine::deviceListChanged, engine.get(),
                         [this] { ++listChanges; });
    }

    /// Runs the event loop until the condition holds; false after `patience` ms.
    template <typename Condition>
    static bool wait(Condition condition, int patience = 10000)
    {
        return QTest::qWaitFor(condition, patience);
    }

    template <typename Call>
    static auto timed(Call call)
    {
        return TimedApplication::timed(call);
    }

    /// Lists the devices afresh and opens the default ones, as a host does after a failure.
    bool openDefaults()
    {
        return wait([this] {
            if (api->isOpen())
                return true;
            if (!engine->isActive() || api->canUpdateDeviceList())
                timed([this] { engine->doDeviceListUpdate(); });
            return false;
        });
    }

    /// Starts a ramp and a take, as far as the devices allow, and waits until blocks flow.
    bool play(int channels = 2)
    {
        const int rate = int(engine->sampleRate());
        auto newSource = std::make_unique<EndlessRamp>(engine.get(), rate, channels);
        auto newTake = std::make_unique<TakeSink>(engine.get(), rate, channels);
        source = nullptr;
        take = nullptr;
        timed([&] {
            if (engine->canPlayback() && engine->addSource(newSource.get()))
                source = newSource.release();
            if (engine->canCapture() && engine->addSink(newTake.get()))
                take = newTake.release();
        });
        return (source || take) && timed([this] { return engine->start(); }) && goesOn();
    }

    /// Whether blocks arrive: `count` more of them.
    bool goesOn(quint64 count = 8)
    {
        const quint64 before = blocks();
        const int failed = failures;
        return wait([&] { return blocks() >= before + count || failures > failed; }) &&
               failures == failed;
    }

    quint64 blocks() const { return api->streamStatus().blocks; }

    /// Ends everything; the devices are closed.
    bool rest()
    {
        timed([this] { engine->deactivate(QTovelMixer::UserStopAction); });
        return wait([this] {
            return engine->numActiveSources() == 0 && engine->numActiveSinks() == 0 &&
                   !api->isOpen();
        });
    }

    QTovelMixer::Device *device(QTovelMixer::DeviceKind kind, const QString &name) const
    {
        for (QTovelMixer::Device *each : engine->devices()) {
            if (each->name() == name && each->hasChannels(kind))
                return each;
        }
        return nullptr;
    }

    const Direction direction;
    QTovelMixerApiRtAudio *const api;
    std::unique_ptr<QTovelMixer::Engine> engine;
    QPointer<EndlessRamp> source;
    QPointer<TakeSink> take;
    int failures = 0;
    int stops = 0;
    int listChanges = 0;

private:
    static QString choice(bool wanted)
    {
        return wanted ? QStringLiteral("default") : QStringLiteral("null");
    }
};

#endif
