// SPDX-License-Identifier: MIT
#include "rtaudio_fixture.h"

#include <mixer/meter/meter.h>
#include <mixer/meter/meter_values.h>

#include <support/callback_watch.h>

#include <jack/jack.h>

#include <functional>

using namespace QTovelMixer;

namespace {

constexpr int period = 4096;
constexpr int rate = 48000;
#if defined(__SANITIZE_THREAD__)
constexpr qint64 hours = 1; // each takes a minute and more
#else
constexpr qint64 hours = 5;
#endif
constexpr qint64 wantedFrames = hours * 3600 * rate;
// Workers look at their rings some ten times a second, whatever the pace of the mix.
constexpr int ringSeconds = 120;

// Two ramps whose sum tells the frame, exactly: one has its low bits, the other the high ones. The
// second channel is the first one's negative.
constexpr qint64 cycle = qint64{1} << 23;
constexpr float unit = 1.0f / float(cycle);

class HalfRamp : public Source
{
public:
    HalfRamp(Engine *engine, qint64 bits)
        : Source(engine, rate, 2, float(ringSeconds)), m_bits(bits)
    {}

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1e6; }
    bool acceptPause(PauseMode) override { return true; }

    int readSamples(float *buffer, int frames, int, double time) override
    {
        const auto first = qint64(std::floor(time * rate + 0.5));
        ready = first; // what was read before is in the ring
        for (qint64 frame = 0; frame < frames; ++frame) {
            const float value = float((first + frame) & m_bits) * unit;
            buffer[frame * 2] = value;
            buffer[frame * 2 + 1] = -value;
        }
        return frames;
    }

    std::atomic<qint64> ready{0}; ///< frames that the mix can take

private:
    const qint64 m_bits;
};

/// Compares every frame with the one before.
class ComparingSink : public Sink
{
public:
    explicit ComparingSink(Engine *engine) : Sink(engine, float(ringSeconds)) {}

    int numChannels() const override { return 2; }
    int sampleRate() const override { return rate; }

    void writeSamples(float *buffer, int frames, int, double) override
    {
        for (int frame = 0; frame < frames; ++frame) {
            const float left = buffer[2 * frame];
            const float right = buffer[2 * frame + 1];
            if (m_next < 0 && left != 0.0f && right != 0.0f)
                m_next = qint64(left / unit);
            if (m_next < 0)
                continue;
            const float expected = float(m_next) * unit;
            if (left != expected || right != -expected) {
                if (wrong++ == 0)
                    firstWrong = compared.load();
            }
            m_next = (m_next + 1) % cycle;
            ++compared;
        }
        taken += frames;
    }

    std::atomic<qint64> taken{0};
    std::atomic<qint64> compared{0};
    std::atomic<qint64> wrong{0};
    std::atomic<qint64> firstWrong{-1};

private:
    qint64 m_next = -1;
};

/// A client that holds the server's graph up until it may go on. A mixer reads and writes files
/// beside its audio thread: faster than these it cannot be.
class Pacer
{
public:
    explicit Pacer(std::function<bool()> mayGoOn) : m_mayGoOn(std::move(mayGoOn))
    {
        m_client = jack_client_open("pacer", JackNoStartServer, nullptr);
        if (!m_client)
            return;
        m_port = jack_port_register(m_client, "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        jack_set_process_callback(m_client, process, this);
        jack_activate(m_client);
    }
    ~Pacer()
    {
        m_ending = true;
        if (m_client)
            jack_client_close(m_client);
    }
    Q_DISABLE_COPY_MOVE(Pacer)

private:
    static int process(jack_nframes_t frames, void *self)
    {
        auto *pacer = static_cast<Pacer *>(self);
        auto *samples = static_cast<float *>(jack_port_get_buffer(pacer->m_port, frames));
        std::fill_n(samples, frames, 0.0f);
        while (!pacer->m_ending && !pacer->m_mayGoOn())
            QThread::usleep(50);
        return 0;
    }

    std::function<bool()> m_mayGoOn;
    std::atomic<bool> m_ending{false};
    jack_client_t *m_client = nullptr;
    jack_port_t *m_port = nullptr;
};

} // namespace

class tst_RtAudioJackFreewheel : public QObject
{
    Q_OBJECT

private slots:
    void mixer_isExact_overHours();
    void audioThread_isClean_overAMillionCallbacks();
};

void tst_RtAudioJackFreewheel::mixer_isExact_overHours()
{
    JackServer server(rate, period);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Duplex);
    QVERIFY(session.openDefaults());
    Engine &engine = *session.engine;
    auto *low = new HalfRamp(&engine, (qint64{1} << 15) - 1);
    auto *high = new HalfRamp(&engine, cycle - (qint64{1} << 15));
    auto *first = new ComparingSink(&engine);
    auto *second = new ComparingSink(&engine);
    QVERIFY(engine.addSource(low));
    QVERIFY(engine.addSource(high));
    QVERIFY(engine.addSink(first));
    QVERIFY(engine.addSink(second));
    engine.inputMeter()->start();
    engine.outputMeter()->start();
    QVERIFY(engine.start());
    QVERIFY(session.goesOn());

    const Pacer pacer([&] {
        const auto now = qint64(engine.time() * rate);
        const auto fed = [&](const HalfRamp *source) { return source->ready > now + 2 * period; };
        const auto drained = [&](const ComparingSink *sink) {
            return sink->taken > now - ringSeconds / 2 * rate;
        };
        return fed(low) && fed(high) && drained(first) && drained(second);
    });
    // Ahead of the mixer in every cycle.
    QVERIFY2(server.connectPorts(QStringLiteral("pacer:out"), QStringLiteral("test:inport 0")),
             qPrintable(server.report()));
    for (const int channel : {1, 0})
        QVERIFY2(server.connectPorts(QStringLiteral("test:outport %1").arg(channel),
                                     QStringLiteral("test:inport %1").arg(channel)),
                 qPrintable(server.report()));
    QVERIFY(session.wait([&] { return first->compared > rate && second->compared > rate; }));
    const qint64 firstBefore = first->compared;
    QCOMPARE(first->wrong.load(), 0);

    QElapsedTimer clock;
    clock.start();
    QVERIFY2(server.setFreewheel(true), qPrintable(server.report()));
    const bool done = session.wait(
        [&] {
            return (first->compared >= wantedFrames && second->compared >= wantedFrames) ||
                   first->wrong > 0 || second->wrong > 0;
        },
        240000);
    const double seconds = double(clock.elapsed()) / 1000.0;
    const qint64 frames = first->compared - firstBefore;
    QVERIFY2(server.setFreewheel(false), qPrintable(server.report()));
    qInfo(
        "FREEWHEEL | %.2f hours in %.1f s, %.0f times real time | %lld frames of 2 sinks compared "
        "| %lld and %lld wrong",
        double(frames) / rate / 3600, seconds, double(frames) / rate / seconds,
        static_cast<long long>(frames), static_cast<long long>(first->wrong.load()),
        static_cast<long long>(second->wrong.load()));
    QCOMPARE(first->firstWrong.load(), -1);
    QCOMPARE(second->firstWrong.load(), -1);
    QVERIFY(done);

    const auto status = session.api->streamStatus();
    QCOMPARE(status.droppedBlocks, 0u);
    MeterValues input;
    MeterValues output;
    engine.inputMeter()->getValues(input);
    engine.outputMeter()->getValues(output);
    for (const MeterValues *values : {&input, &output}) {
        QCOMPARE(values->numChannels(), 2);
        QVERIFY(values->hold_level(0) > -60.0);
        QVERIFY(values->hold_level(1) > -60.0);
    }
    QVERIFY(session.goesOn());
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

// The watch over the callbacks ends the program with a failure when one of them does what it must
// not.
void tst_RtAudioJackFreewheel::audioThread_isClean_overAMillionCallbacks()
{
    constexpr int shortest = 32;
    const quint64 wanted = CallbackWatch::isOn() ? 1000000 : 20000;
    JackServer server(rate, shortest);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Duplex, shortest);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    const CallbackWatch::Counts before = CallbackWatch::counts();
    const quint64 blocksBefore = session.api->streamStatus().blocks;
    QVERIFY2(server.setFreewheel(true), qPrintable(server.report()));
    QElapsedTimer clock;
    clock.start();
    quint64 blocks = 0;
    const bool done = session.wait(
        [&] {
            blocks = session.api->streamStatus().blocks - blocksBefore;
            return blocks >= wanted;
        },
        240000);
    QVERIFY2(server.setFreewheel(false), qPrintable(server.report()));
    const CallbackWatch::Counts after = CallbackWatch::counts();
    qInfo("FREEWHEEL | %llu blocks of %d frames in %.1f s | %llu watched, %llu page faults",
          static_cast<unsigned long long>(blocks), shortest, double(clock.elapsed()) / 1000.0,
          static_cast<unsigned long long>(after.callbacks - before.callbacks),
          static_cast<unsigned long long>(after.pageFaults - before.pageFaults));
    QVERIFY(done);
    if (CallbackWatch::isOn()) {
        QVERIFY(after.callbacks - before.callbacks >= wanted);
        QCOMPARE(after.pageFaults, before.pageFaults);
    }
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

RTAUDIO_TEST_MAIN(tst_RtAudioJackFreewheel)
#include "tst_rtaudio_jack_freewheel.moc"
