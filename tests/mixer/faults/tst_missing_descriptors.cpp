// SPDX-License-Identifier: MIT
// Workers for which the process has no descriptor left.
#include "faulty_hosts.h"
#include "resource_limits.h"

#include <mixer/meter/meter.h>
#include <support/log_capture.h>

using namespace QTovelMixer;

namespace {

constexpr char noSource[] = "QTovelMixer::Source: Cannot start a thread (";

/// Returns when the threads of the meters have what they need: they were begun before the limit.
void waitForMeters(Session &session)
{
    for (Meter *const meter : {session.engine.inputMeter(), session.engine.outputMeter()}) {
        if (!meter)
            continue;
        meter->start();
        meter->stop(true);
    }
}

} // namespace

class tst_MissingDescriptors : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void source_ends_andWhatPlaysGoesOn();
    void sink_ends();
    void sources_startWhileThereAreDescriptors();
    void meters_areMissed();
};

void tst_MissingDescriptors::source_ends_andWhatPlaysGoesOn()
{
    const LogCapture log;
    Session session;
    waitForMeters(session);
    RampSource *const playing = session.addRamp(48000, 60.0);
    QVERIFY(playing);
    QVERIFY(session.engine.start(0.0));
    session.run(10);
    auto *const late = new RampSource(&session.engine, 48000, 2, 60.0);
    StopReason reason = NoReason;
    connect(&session.engine, &Engine::sourceFinished, this,
            [&](const SourcePointer &source) { reason = source->stopReason(); });
    {
        const DescriptorLimit limit(0);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.play(late));
        const std::vector<float> heard = session.run(10);
        for (size_t i = 0; i < heard.size(); ++i)
            QCOMPARE(heard[i], float(10 * Session::blockFrames + int(i)));
        QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 1, longest);
    }
    QCOMPARE(session.engine.activeSources().first(), playing);
    QCOMPARE(reason, WorkerFailed);
    QCOMPARE(log.countStarting(noSource), 1);
    QVERIFY(log.contains("no descriptor!!"));
    playsAgain(session);
}

void tst_MissingDescriptors::sink_ends()
{
    const LogCapture log;
    Session session(2, 2);
    waitForMeters(session);
    auto *const sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    {
        const DescriptorLimit limit(0);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
        QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSinks(), 0, longest);
    }
    QCOMPARE(session.lastReason, WorkerFailed);
    QCOMPARE(log.countStarting("QTovelMixer::Sink: Cannot start a thread ("), 1);
    playsAgain(session);
}

// They are started one after the other, and each takes its descriptor when its thread begins.
void tst_MissingDescriptors::sources_startWhileThereAreDescriptors()
{
    constexpr int count = 24;
    const LogCapture log;
    Session session;
    waitForMeters(session);
    std::vector<RampSource *> sources;
    for (int i = 0; i < count; ++i)
        sources.push_back(session.addRamp(48000, 60.0));
    {
        const DescriptorLimit limit(24);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
    }
    const int failed = log.countStarting(noSource);
    QVERIFY2(failed > 0 && failed < count, qPrintable(QString::number(failed)));
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), count - failed, longest);
    const std::vector<float> heard = session.run(10);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i) * float(count - failed));
    playsAgain(session);
}

void tst_MissingDescriptors::meters_areMissed()
{
    const LogCapture log;
    Session session;
    waitForMeters(session);
    Engine &engine = session.engine;
    Device *const output = engine.currentDevice(DeviceKind::Output);
    {
        const DescriptorLimit limit(0);
        QVERIFY(limit.isSet());
        QVERIFY(engine.select(output, nullptr, 44100, false));
        QVERIFY(log.countStarting("QTovelMixer::Meter: Cannot start a thread (") >= 1);
        QVERIFY(engine.outputMeter());
        engine.outputMeter()->start();
        QVERIFY(!engine.outputMeter()->isRunning());
    }
    QVERIFY(engine.select(output, nullptr, 48000, false));
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_MissingDescriptors)
#include "tst_missing_descriptors.moc"
