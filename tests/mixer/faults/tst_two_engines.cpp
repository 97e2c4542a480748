// SPDX-License-Identifier: MIT
// Two mixers in one program: neither waits for the other, takes its objects or its backend.
#include "faulty_hosts.h"

#include <mixer/meter/meter.h>
#include <support/log_capture.h>

#include <random>

using namespace QTovelMixer;

namespace {

/// Calls another engine from its worker.
class CallingSource : public FaultySource
{
public:
    using Call = std::function<void()>;

    CallingSource(Engine *engine, Call call) : FaultySource(engine, 60.0), m_call(std::move(call))
    {}
    ~CallingSource() override
    {
        stop(NoReason);
        wait();
    }
    int readSamples(float *buffer, int frames, int channels, double time) override
    {
        m_call();
        ++calls;
        return FaultySource::readSamples(buffer, frames, channels, time);
    }

    std::atomic<int> calls{0};

private:
    const Call m_call;
};

class CallingSink : public FaultySink
{
public:
    CallingSink(Engine *engine, CallingSource::Call call)
        : FaultySink(engine, 2), m_call(std::move(call))
    {}
    ~CallingSink() override
    {
        stop(NoReason);
        wait();
    }
    void writeSamples(float *buffer, int frames, int channels, double time) override
    {
        m_call();
        ++calls;
        FaultySink::writeSamples(buffer, frames, channels, time);
    }

    std::atomic<int> calls{0};

private:
    const CallingSource::Call m_call;
};

/// What a worker may ask of any engine.
void callAnything(Engine &engine, Device *device, unsigned choice)
{
    switch (choice % 5) {
    case 0:
        engine.stop(true, UserStopAction);
        break;
    case 1:
        engine.select(device, device, choice % 2 ? 48000 : 44100);
        break;
    case 2:
        engine.activate();
        break;
    case 3:
        engine.deactivate(UserStopAction);
        break;
    default:
        engine.updateDeviceList();
    }
}

} // namespace

class tst_TwoEngines : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void worker_callsTheOther_withoutWaiting_data();
    void worker_callsTheOther_withoutWaiting();
    void meterThread_callsTheOther_withoutWaiting();
    void objectOfAnother_isRefused();
    void objectOfAnother_isNotPlayed_orTakenAway();
    void secondEngine_onOneBackend_leavesTheFirstAlone();
    void both_playExactly_sideBySide();
    void both_survive_whateverTheirWorkersAsk();
};

void tst_TwoEngines::worker_callsTheOther_withoutWaiting_data()
{
    QTest::addColumn<int>("choice");
    QTest::newRow("stop") << 0;
    QTest::newRow("select") << 1;
    QTest::newRow("activate") << 2;
    QTest::newRow("deactivate") << 3;
    QTest::newRow("updateDeviceList") << 4;
}

// The main thread waits for the worker to take a call, without an event loop: as it does whenever
// it changes a mix.
void tst_TwoEngines::worker_callsTheOther_withoutWaiting()
{
    QFETCH(int, choice);
    const LogCapture quiet;
    Session session(2, 2);
    Session other(2, 2);
    Device *const device = other.engine.currentDevice(DeviceKind::Output);
    QVERIFY(device);
    auto *source = new CallingSource(&session.engine,
                                     [&] { callAnything(other.engine, device, unsigned(choice)); });
    auto *sink = new CallingSink(&session.engine,
                                 [&] { callAnything(other.engine, device, unsigned(choice)); });
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.addSink(sink));
    source->start();
    sink->start();
    QVERIFY(waitUntil([&] { return source->calls > 0 && sink->isRunning(); }));
    session.runWithoutWaiting(50);
    QVERIFY(waitUntil([&] { return sink->calls > 0; }));
    session.stopAll();
    QTRY_COMPARE(session.engine.numActiveSources() + session.engine.numActiveSinks(), 0);
    QCoreApplication::processEvents();
    if (!other.engine.isActive())
        other.engine.activate();
    playsAgain(other);
}

void tst_TwoEngines::meterThread_callsTheOther_withoutWaiting()
{
    const LogCapture quiet;
    Session session(2, 2);
    Session other(2, 2);
    QVERIFY(other.addRamp(48000, 60.0));
    QVERIFY(other.engine.start(0.0));
    std::atomic<int> calls{0};
    Meter *const meter = session.engine.outputMeter();
    connect(
        meter, &Meter::meterStoped, meter,
        [&] {
            other.engine.stop(true, UserStopAction);
            ++calls;
        },
        Qt::DirectConnection);
    meter->start();
    // Closing the device waits for the meter's thread.
    session.engine.deactivate(UserStopAction);
    QCOMPARE(calls.load(), 1);
    QCOMPARE(other.engine.numActiveSources(), 1);
    QTRY_COMPARE(other.engine.numActiveSources(), 0);
}

void tst_TwoEngines::objectOfAnother_isRefused()
{
    Session session(2, 2);
    Session other(2, 2);
    const QPointer<FaultySource> source(new FaultySource(&session.engine, 60.0));
    const QPointer<FaultySink> sink(new FaultySink(&session.engine, 2));
    for (bool listed : {false, true}) {
        if (listed) {
            const LogCapture quiet;
            QVERIFY(session.engine.addSource(source));
            QVERIFY(session.engine.addSink(sink));
        }
        LogCapture log;
        QVERIFY(!other.engine.addSource(source));
        QVERIFY(!other.engine.addSink(sink));
        const QStringList lines = log.texts(QtCriticalMsg);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].startsWith("QTovelMixer::addSource: The source ("));
        QVERIFY(lines[0].endsWith("was built for another engine!!"));
        QVERIFY(lines[1].startsWith("QTovelMixer::addSink: The sink ("));
        QVERIFY(lines[1].endsWith("was built for another engine!!"));
        QCOMPARE(other.engine.numActiveSources() + other.engine.numActiveSinks(), 0);
    }
    QVERIFY(session.engine.isValid(source));
    QVERIFY(session.engine.isValid(sink));
}

void tst_TwoEngines::objectOfAnother_isNotPlayed_orTakenAway()
{
    const LogCapture quiet;
    Session session(2, 2);
    Session other(2, 2);
    QPointer<FaultySource> source(new FaultySource(&session.engine, 60.0));
    QVERIFY(session.engine.addSource(source));
    QVERIFY(!other.engine.play(source));
    QVERIFY(session.engine.isValid(source));
    // Deleted through whichever engine, it leaves its own first.
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    other.engine.deleteSource(source);
    QVERIFY(!source);
    QCOMPARE(session.engine.numActiveSources(), 0);
    session.api->stopThread();
    playsAgain(session);
}

void tst_TwoEngines::secondEngine_onOneBackend_leavesTheFirstAlone()
{
    Session session(2, 2);
    {
        const LogCapture quiet;
        QVERIFY(session.addRamp(48000, 60.0));
        QVERIFY(session.engine.start(0.0));
    }
    QCOMPARE(session.run(1)[10], 10.0f);
    LogCapture log;
    {
        Engine second(session.api);
        QCOMPARE(log.texts(QtCriticalMsg).size(), 1);
        QVERIFY(log.texts(QtCriticalMsg)[0].startsWith("QTovelMixer::Engine: The backend ("));
        QVERIFY(log.texts(QtCriticalMsg)[0].endsWith("has an engine already!!"));
        int signals_ = 0;
        connect(&second, &Engine::activated, &second, [&] { ++signals_; });
        second.activate();
        QVERIFY(!second.isActive());
        QCOMPARE(signals_, 0);
        QCOMPARE(log.count("QTovelMixer::activate: Another engine has the backend!!"), 1);
        QVERIFY(!second.select(session.engine.currentDevice(DeviceKind::Output), nullptr, 48000));
        FaultySource source(&second, 1.0);
        QVERIFY(!second.addSource(&source));
        QCOMPARE(session.run(1)[10], float(Session::blockFrames + 10));
    }
    QCOMPARE(session.run(1)[10], float(2 * Session::blockFrames + 10));
    playsAgain(session);
}

void tst_TwoEngines::both_playExactly_sideBySide()
{
    const LogCapture quiet;
    Session session(2, 2);
    Session other(2, 2);
    QVERIFY(session.addRamp(48000, 60.0));
    QVERIFY(other.addRamp(48000, 60.0));
    QVERIFY(session.engine.start(1.0));
    QVERIFY(other.engine.start(2.0));
    for (int block = 0; block < 50; ++block) {
        QCOMPARE(session.run(1)[0], float(48000 + block * Session::blockFrames));
        QCOMPARE(other.run(1)[0], float(96000 + block * Session::blockFrames));
    }
}

// Both devices run on threads of their own, every worker calls the other engine, and the main
// thread plays, records, seeks, pauses and stops on both.
void tst_TwoEngines::both_survive_whateverTheirWorkersAsk()
{
    constexpr int rounds = 60;
    const LogCapture quiet;
    std::mt19937 random(20240817);
    Session sessions[2]{Session(2, 2), Session(2, 2)};
    Device *const devices[2] = {sessions[0].engine.currentDevice(DeviceKind::Output),
                                sessions[1].engine.currentDevice(DeviceKind::Output)};
    std::atomic<unsigned> choices{0};
    std::atomic<int> budget{0};
    const auto callOther = [&](int other) {
        return [&, other] {
            const unsigned choice = ++choices;
            if (budget.fetch_sub(1) > 0)
                callAnything(sessions[other].engine, devices[other], choice);
        };
    };
    for (int round = 0; round < rounds; ++round) {
        budget = 6; // more would do nothing but open devices
        for (int i = 0; i < 2; ++i) {
            Session &session = sessions[i];
            session.engine.activate();
            auto *source = new CallingSource(&session.engine, callOther(1 - i));
            if (!session.engine.addSource(source))
                delete source;
            auto *sink = new CallingSink(&session.engine, callOther(1 - i));
            if (!session.engine.addSink(sink))
                delete sink;
            session.engine.start(double(random() % 50));
            session.api->startThread();
        }
        for (int step = 0; step < 10; ++step) {
            Session &session = sessions[random() % 2];
            switch (random() % 6) {
            case 0:
                session.engine.setTime(double(random() % 50));
                break;
            case 1:
                session.engine.pause();
                break;
            case 2:
                session.engine.resume();
                break;
            case 3:
                session.engine.stop(random() % 2 != 0, UserStopAction);
                break;
            case 4:
                session.engine.setLooping(random() % 2 != 0);
                break;
            default:
                QCoreApplication::processEvents();
            }
        }
        QCoreApplication::processEvents();
    }
    for (Session &session : sessions) {
        session.engine.stop(true, UserStopAction);
        QTRY_COMPARE_WITH_TIMEOUT(
            session.engine.numActiveSources() + session.engine.numActiveSinks(), 0, longest);
    }
    QCoreApplication::processEvents();
    for (int i = 0; i < 2; ++i) {
        Session &session = sessions[i];
        session.api->stopThread();
        session.engine.deactivate();
        session.engine.activate();
        QVERIFY(session.engine.select(devices[i], devices[i], 48000));
        session.engine.deactivate();
        session.engine.activate();
        playsAgain(session);
    }
    QVERIFY(choices > 0u);
}

QTEST_GUILESS_MAIN(tst_TwoEngines)
#include "tst_two_engines.moc"
