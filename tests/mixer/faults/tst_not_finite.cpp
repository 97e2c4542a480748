// SPDX-License-Identifier: MIT
// Samples and gains that are no numbers, or too large for one: whatever brings them, the device and
// recordings get finite samples, and the log says once where they came from.
#include "faulty_hosts.h"

#include <mixer/io/effect.h>
#include <mixer/store/store.h>
#include <support/log_capture.h>

#include <cmath>
#include <limits>

using namespace QTovelMixer;

namespace {

constexpr float infinite = std::numeric_limits<float>::infinity();
constexpr float largest = std::numeric_limits<float>::max();

/// A ramp in which every hundredth frame holds something else, or the same throughout.
class BadSource : public RampSource
{
public:
    using RampSource::RampSource;

    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        RampSource::readSamples(buffer, frames, channels, time);
        const qint64 first = qint64(std::floor(time * sampleRate() + 0.5));
        for (int frame = 0; frame < frames; ++frame) {
            if (constant)
                std::fill_n(buffer + frame * channels, channels, bad);
            else if ((first + frame) % 100 == 50)
                buffer[frame * channels] = bad;
        }
        return frames;
    }

    float bad = 0.0f;
    bool constant = false;
};

/// An effect that goes wrong for good, as a filter does.
class BadEffect : public Effect
{
public:
    using Effect::Effect;
    int processBuffers(const float *, float *output, int channels, int frames) override
    {
        for (int i = 0; i < channels * frames; i += 2)
            output[i] = std::numeric_limits<float>::quiet_NaN();
        return 1;
    }
};

void addNumbers()
{
    QTest::addColumn<float>("bad");
    QTest::newRow("no number") << std::numeric_limits<float>::quiet_NaN();
    QTest::newRow("infinity") << infinite;
    QTest::newRow("minus infinity") << -infinite;
}

bool allFinite(const std::vector<float> &samples)
{
    return std::all_of(samples.begin(), samples.end(), [](float x) { return std::isfinite(x); });
}

} // namespace

class tst_NotFinite : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { QVERIFY(Store::store()->restoreRoutes("[]")); }
    void cleanup() { init(); }
    void source_isSilentThere_data() { addNumbers(); }
    void source_isSilentThere();
    void convertedSource_isFinite_data() { addNumbers(); }
    void convertedSource_isFinite();
    void conversion_thatOvershoots_isFinite();
    void input_isSilentThere_data() { addNumbers(); }
    void input_isSilentThere();
    void effect_isSilentThere_data();
    void effect_isSilentThere();
    void sum_thatOverflows_isSilent();
    void gain_isRefused_data() { addNumbers(); }
    void gain_isRefused();
    void route_ofTheHost_mixesFinite();
};

void tst_NotFinite::source_isSilentThere()
{
    QFETCH(float, bad);
    const LogCapture log;
    Session session;
    auto *const source = new BadSource(&session.engine, 48000, 2, 60.0);
    source->bad = bad;
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(40);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], i % 100 == 50 ? 0.0f : float(i));
    QVERIFY(source->replacedSamples() >= heard.size() / 100);
    QCOMPARE(log.countStarting("QTovelMixer::Source: Samples that are not finite count as 0 ("), 1);
    QCOMPARE(session.engine.replacedSamples(), 0u);
    playsAgain(session);
}

void tst_NotFinite::convertedSource_isFinite()
{
    QFETCH(float, bad);
    const LogCapture log;
    Session session;
    auto *const source = new BadSource(&session.engine, 44100, 2, 60.0);
    source->bad = bad;
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(allFinite(session.run(40)));
    QVERIFY(source->replacedSamples() >= 90);
    QCOMPARE(log.countStarting("QTovelMixer::Source: Samples that are not finite count as 0 ("), 1);
    playsAgain(session);
}

// What the filter adds up goes beyond the largest of its samples.
void tst_NotFinite::conversion_thatOvershoots_isFinite()
{
    const LogCapture quiet;
    Session session;
    auto *const source = new BadSource(&session.engine, 44100, 2, 60.0);
    source->bad = -largest; // a step of the largest numbers from the beginning on
    source->constant = true;
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(allFinite(session.run(10)));
    QVERIFY(source->replacedSamples() > 0);
    QCOMPARE(session.engine.replacedSamples(), 0u);
    playsAgain(session);
}

void tst_NotFinite::input_isSilentThere()
{
    QFETCH(float, bad);
    const LogCapture log;
    Session session(2, 2);
    session.engine.setMonitoring(true);
    QVERIFY(session.engine.isMonitoring());
    QVERIFY(session.addRamp(48000, 60.0, 0.0f)); // somebody has to use the device
    for (int block = 0; block < 2; ++block) {
        for (int i = 0; i < 2 * Session::blockFrames; ++i)
            session.api->input[i] = i % 7 == 3 ? bad : 0.5f;
        QCOMPARE(session.api->runBlock(), 0);
        for (int i = 0; i < 2 * Session::blockFrames; ++i)
            QCOMPARE(session.api->output[i], i % 7 == 3 ? 0.0f : 0.5f);
    }
    QCOMPARE(session.engine.replacedSamples(), 2u * 73u);
    QCOMPARE(log.count("QTovelMixer::Engine: Samples that are not finite count as 0 (device "
                       "input)!!"),
             1);
    session.engine.setMonitoring(false);
    playsAgain(session);
}

void tst_NotFinite::effect_isSilentThere_data()
{
    QTest::addColumn<bool>("onInput");
    QTest::newRow("of the input") << true;
    QTest::newRow("of the output") << false;
}

void tst_NotFinite::effect_isSilentThere()
{
    QFETCH(bool, onInput);
    const LogCapture log;
    Session session(2, 2);
    BadEffect effect(48000, 2);
    session.engine.setMonitoring(onInput);
    QVERIFY(session.addRamp(48000, 60.0));
    RampSource *const other = session.addRamp(48000, 60.0);
    QVERIFY(other);
    if (onInput)
        session.engine.replaceInputEffect(&effect);
    else
        session.engine.replaceOutputEffect(&effect);
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(10);
    // What does not go through the effect is heard as if it were not there.
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i) * (onInput ? 2.0f : 1.0f));
    QCOMPARE(effect.replacedSamples(), quint64(heard.size()));
    QCOMPARE(session.engine.replacedSamples(), 0u);
    QCOMPARE(log.countStarting("QTovelMixer::Effect: Samples that are not finite count as 0 ("), 1);
    session.engine.replaceInputEffect(nullptr);
    session.engine.replaceOutputEffect(nullptr);
    session.engine.setMonitoring(false);
    playsAgain(session);
}

void tst_NotFinite::sum_thatOverflows_isSilent()
{
    const LogCapture log;
    Session session(2, 2);
    auto *const sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    for (int i = 0; i < 2; ++i) {
        auto *const source = new BadSource(&session.engine, 48000, 2, 60.0);
        source->bad = largest;
        source->constant = true;
        QVERIFY(session.engine.addSource(source));
        QVERIFY(session.engine.addRoute(source, sink));
    }
    QVERIFY(session.startRecording());
    const std::vector<float> heard = session.run(20);
    QVERIFY(allFinite(heard));
    QCOMPARE(heard.back(), 0.0f);
    QVERIFY(session.engine.replacedSamples() > 0);
    QTRY_VERIFY_WITH_TIMEOUT(sink->frames() >= 20 * Session::blockFrames, longest);
    QVERIFY(allFinite(sink->samples()));
    QVERIFY(sink->replacedSamples() > 0);
    QCOMPARE(log.count("QTovelMixer::Engine: Samples that are not finite count as 0 (device "
                       "output)!!"),
             1);
    QCOMPARE(log.countStarting("QTovelMixer::Sink: Samples that are not finite count as 0 ("), 1);
    playsAgain(session);
}

void tst_NotFinite::gain_isRefused()
{
    QFETCH(float, bad);
    const LogCapture log;
    Session session(2, 2);
    Engine &engine = session.engine;
    RampSource *const source = session.addRamp(48000, 60.0);
    QVERIFY(source);
    auto *const sink = new TakeSink(&engine, 48000, 2);
    QVERIFY(engine.addSink(sink));
    const auto another = std::make_unique<RampSource>(&engine, 48000, 2, 60.0);
    const auto anotherSink = std::make_unique<TakeSink>(&engine, 48000, 2);
    const int before = int(log.texts(QtCriticalMsg).size());
    QVERIFY(!engine.setGain(source, 0, 0, bad));
    QVERIFY(!engine.setGain(0, sink, 0, bad));
    QVERIFY(!engine.setGain(source, 0, sink, 0, bad));
    QVERIFY(!engine.addRoute(source, sink, bad));
    QVERIFY(!engine.addSource(another.get(), bad));
    QVERIFY(!engine.addSink(anotherSink.get(), bad));
    engine.setMasterOutputGain(bad);
    engine.setMasterInputGain(bad);
    source->setGain(bad);
    QCOMPARE(int(log.texts(QtCriticalMsg).size()) - before, 9);
    QCOMPARE(engine.masterOutputGain(), 1.0f);
    QCOMPARE(engine.masterInputGain(), 1.0f);
    QCOMPARE(source->gain(), 1.0f);
    QVERIFY(session.startRecording());
    const std::vector<float> heard = session.run(10);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    QCOMPARE(engine.replacedSamples(), 0u);
    playsAgain(session);
}

// A route is the host's own table, and may hold anything.
void tst_NotFinite::route_ofTheHost_mixesFinite()
{
    const LogCapture quiet;
    Session session;
    Route route(2, session.engine.currentDevice(DeviceKind::Output));
    QVERIFY(route.setGain(0, 0, infinite));
    QVERIFY(route.setGain(0, 1, 1e38f));
    Store::store()->addRoute(route);
    QVERIFY(session.addRamp(48000, 60.0, 100.0f));
    QVERIFY(session.engine.start(0.0));
    for (const float sample : session.run(10))
        QCOMPARE(sample, 0.0f);
    QCOMPARE(session.engine.replacedSamples(), 0u);
    init();
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_NotFinite)
#include "tst_not_finite.moc"
