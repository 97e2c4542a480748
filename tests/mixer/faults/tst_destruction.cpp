// SPDX-License-Identifier: MIT
// Whatever is taken away, in whatever state and from wherever: nothing hangs, nothing is used after
// it is gone, and the mixer plays on.
#include "faulty_hosts.h"

#include <mixer/io/effect.h>
#include <mixer/io/sink_p.h>
#include <mixer/meter/meter.h>
#include <support/log_capture.h>

#include <thread>

using namespace QTovelMixer;

namespace {

enum class State {
    Created,
    Added,
    Waiting, // inside the host's call
    Running, // while another thread mixes
    Paused,
    Finished, // ended, and not removed yet
    Held,     // inside a change of the mix
    Stopping, // asked to end
    LastState
};

const char *const stateNames[] = {"created", "added",    "waiting", "running",
                                  "paused",  "finished", "held",    "stopping"};

class Doubler : public Effect
{
public:
    Doubler() : Effect(48000, 2) {}
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        for (int i = 0; i < channels * frames; ++i)
            output[i] = input[i] * 2.0f;
        return 1;
    }
};

void addStates()
{
    QTest::addColumn<int>("state");
    for (int state = 0; state < int(State::LastState); ++state)
        QTest::newRow(stateNames[state]) << state;
}

} // namespace

class tst_Destruction : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void source_inEveryState_data() { addStates(); }
    void source_inEveryState();
    void sink_inEveryState_data() { addStates(); }
    void sink_inEveryState();
    void engine_inEveryState_data() { addStates(); }
    void engine_inEveryState();
    void engine_beforeWhatWasNeverAdded();
    void effect_whileBlocksRun();
    void meter_whileBlocksRun();
    void objects_fromSlots_data();
    void objects_fromSlots();
    void objects_comeAndGo_whileBlocksRun();

private:
    struct Setting
    {
        std::unique_ptr<Session> session = std::make_unique<Session>(2, 2);
        FaultySource *source = nullptr;
        FaultySink *sink = nullptr;
        std::jthread opener; ///< lets blocked hosts go on once their end is asked for
    };
    void bring(Setting &setting, State state);
    template <typename Erase>
    void eraseInEveryState(Erase erase);

    std::unique_ptr<LogCapture> m_quiet;
};

// One source and one sink, both in that state, beside a source that plays.
void tst_Destruction::bring(Setting &setting, State state)
{
    Session &session = *setting.session;
    setting.source = new FaultySource(&session.engine, 60.0);
    setting.sink = new FaultySink(&session.engine, 2);
    if (state == State::Created)
        return;
    QVERIFY(session.engine.addSource(setting.source));
    QVERIFY(session.engine.addSink(setting.sink));
    if (state == State::Added)
        return;
    session.engine.setPauseMode(PauseSoft);
    QVERIFY(session.startRecording());
    session.run(4);
    switch (state) {
    case State::Waiting:
        setting.source->barrier.close();
        setting.sink->barrier.close();
        session.runWithoutWaiting(100);
        QVERIFY(setting.source->barrier.waitUntilReached());
        QVERIFY(setting.sink->barrier.waitUntilReached());
        // Both are reached: a deletion can only wait for the one that it deletes.
        setting.opener = std::jthread([source = setting.source, sink = setting.sink] {
            waitUntil([=] { return source->wasStoped() || SinkAccess::isOver(*sink); });
            source->barrier.open();
            sink->barrier.open();
        });
        break;
    case State::Running:
        session.api->startThread();
        break;
    case State::Paused:
        QVERIFY(session.engine.pause());
        break;
    case State::Finished:
        setting.source->stop(AudioFinished);
        setting.sink->stop(UserStopAction);
        QVERIFY(setting.source->wait(longest));
        QVERIFY(setting.sink->wait(longest));
        QVERIFY(session.engine.isValid(setting.source)); // the event loop has not run
        break;
    case State::Held:
        EngineAccess::shipped(session.engine).update_lock();
        break;
    case State::Stopping:
        QVERIFY(session.engine.stop(false, UserStopAction));
        break;
    default:
        break;
    }
}

/// Deletes one of the two, which must be gone at once, while the other stays.
template <typename Erase>
void tst_Destruction::eraseInEveryState(Erase erase)
{
    QFETCH(int, state);
    Setting setting;
    bring(setting, State(state));
    if (QTest::currentTestFailed())
        return;
    Session &session = *setting.session;
    QObject *const other = erase(setting);
    if (QTest::currentTestFailed())
        return;
    if (setting.opener.joinable())
        setting.opener.join();
    if (State(state) == State::Held)
        EngineAccess::shipped(session.engine).update_unlock();
    if (State(state) == State::Created)
        delete other;
    session.api->stopThread();
    if (State(state) != State::Created)
        session.checkMapping();
    playsAgain(session);
}

void tst_Destruction::source_inEveryState()
{
    eraseInEveryState([](Setting &setting) -> QObject * {
        const QPointer<Source> gone(setting.source);
        setting.session->engine.deleteSource(setting.source);
        [&] {
            QVERIFY(gone.isNull());
            QVERIFY(setting.session->engine.activeSources().isEmpty());
        }();
        return setting.sink;
    });
}

void tst_Destruction::sink_inEveryState()
{
    eraseInEveryState([](Setting &setting) -> QObject * {
        const QPointer<Sink> gone(setting.sink);
        setting.session->engine.deleteSink(setting.sink);
        [&] {
            QVERIFY(gone.isNull());
            QVERIFY(setting.session->engine.activeSinks().isEmpty());
        }();
        return setting.source;
    });
}

void tst_Destruction::engine_inEveryState()
{
    QFETCH(int, state);
    Setting setting;
    bring(setting, State(state));
    if (QTest::currentTestFailed())
        return;
    const QPointer<Source> source(setting.source);
    const QPointer<Sink> sink(setting.sink);
    if (State(state) == State::Held)
        EngineAccess::shipped(setting.session->engine).update_unlock();
    setting.session.reset();
    if (setting.opener.joinable())
        setting.opener.join();
    QCOMPARE(source.isNull(), State(state) != State::Created);
    QCOMPARE(sink.isNull(), State(state) != State::Created);
    // Of what was never added, the host's own destructors still ask.
    delete source;
    delete sink;
    QCoreApplication::sendPostedEvents();
    Session next;
    playsAgain(next);
}

void tst_Destruction::engine_beforeWhatWasNeverAdded()
{
    auto session = std::make_unique<Session>();
    FaultySource source(&session->engine, 1.0);
    FaultySink sink(&session->engine, 2);
    QCOMPARE(source.mixerEngine(), &session->engine);
    session.reset();
    QVERIFY(!source.mixerEngine());
    QVERIFY(!sink.mixerEngine());
    QCOMPARE(source.time(false), 0.0);
    QVERIFY(!source.isPaused());
    QVERIFY(!source.isLooping());
    QCOMPARE(sink.time(), 0.0);
    QCOMPARE(sink.start_time(), 0.0);
    // Without a rate their threads end at once.
    source.start();
    sink.start();
    QVERIFY(source.wait(longest));
    QVERIFY(sink.wait(longest));
    source.stop(UserStopAction);
    sink.stop(UserStopAction);
}

void tst_Destruction::effect_whileBlocksRun()
{
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 60.0));
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    for (int i = 0; i < 200; ++i) {
        auto *output = new Doubler;
        auto *input = new Doubler;
        session.engine.replaceOutputEffect(output);
        session.engine.replaceInputEffect(input);
        const quint64 blocks = session.api->blocks;
        QVERIFY(waitUntil([&] { return session.api->blocks > blocks + 2; }));
        QCOMPARE(session.engine.replaceOutputEffect(nullptr), output);
        QCOMPARE(session.engine.replaceInputEffect(nullptr), input);
        delete output;
        delete input;
    }
    // One that goes while it is installed is let go of.
    auto *forgotten = new Doubler;
    session.api->stopThread();
    session.engine.replaceOutputEffect(forgotten);
    delete forgotten;
    QCOMPARE(session.engine.replaceOutputEffect(nullptr), nullptr);
    playsAgain(session);
}

void tst_Destruction::meter_whileBlocksRun()
{
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 60.0));
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    for (int i = 0; i < 3; ++i) {
        session.engine.inputMeter()->start();
        session.engine.outputMeter()->start();
        // Opening again replaces both meters, and closing deletes them.
        const QPointer<Meter> input(session.engine.inputMeter());
        QVERIFY(session.engine.open(session.engine.currentDevice(DeviceKind::Output),
                                    session.engine.currentDevice(DeviceKind::Input), 48000));
        QVERIFY(session.engine.inputMeter() != input);
        QTRY_VERIFY_WITH_TIMEOUT(input.isNull(), longest);
        session.api->startThread();
    }
    const QPointer<Meter> output(session.engine.outputMeter());
    session.engine.deactivate(UserStopAction);
    QVERIFY(!session.engine.outputMeter());
    QTRY_VERIFY_WITH_TIMEOUT(output.isNull(), longest);
    session.engine.activate();
    playsAgain(session);
}

void tst_Destruction::objects_fromSlots_data()
{
    QTest::addColumn<QByteArray>("signal");
    for (const char *signal :
         {"started()", "paused()", "resumed()", "mixerChanged()",
          "stopped(QTovelMixer::StopReason)", "deactivated()",
          "sourceStateChanged(QTovelMixer::SourcePointer)",
          "sinkStateChanged(QTovelMixer::SinkPointer)",
          "sourceFinished(QTovelMixer::SourcePointer)", "sinkFinished(QTovelMixer::SinkPointer)"})
        QTest::newRow(signal) << QByteArray(signal);
}

void tst_Destruction::objects_fromSlots()
{
    QFETCH(QByteArray, signal);
    class Eraser : public QObject
    {
    public:
        explicit Eraser(Session &owner) : session(owner) {}
        int qt_metacall(QMetaObject::Call call, int id, void **arguments) override
        {
            id = QObject::qt_metacall(call, id, arguments);
            if (id == 0 && call == QMetaObject::InvokeMetaMethod) {
                ++calls;
                const QList<Source *> sources = session.engine.activeSources();
                const QList<Sink *> sinks = session.engine.activeSinks();
                for (Source *source : sources)
                    session.engine.deleteSource(source);
                for (Sink *sink : sinks)
                    session.engine.deleteSink(sink);
            }
            return -1;
        }
        Session &session;
        int calls = 0;
    };
    Session session(2, 2);
    Eraser eraser(session);
    session.engine.setPauseMode(PauseSoft);
    for (int i = 0; i < 3; ++i) {
        QVERIFY(session.addRamp(48000, 60.0));
        QVERIFY(session.engine.addSink(new FaultySink(&session.engine, 2)));
    }
    const int index =
        session.engine.metaObject()->indexOfSignal(QMetaObject::normalizedSignature(signal));
    QVERIFY(index >= 0);
    QVERIFY(QMetaObject::connect(&session.engine, index, &eraser,
                                 QObject::staticMetaObject.methodCount()));
    session.api->startThread();
    session.engine.start(0.0);
    session.engine.pause();
    session.engine.resume();
    session.engine.setLooping(true);
    session.engine.setLooping(false);
    session.engine.stop(true, UserStopAction);
    QCoreApplication::processEvents();
    session.api->stopThread();
    session.engine.deactivate(UserStopAction);
    QTRY_VERIFY_WITH_TIMEOUT(eraser.calls > 0, longest);
    QMetaObject::disconnect(&session.engine, index, &eraser,
                            QObject::staticMetaObject.methodCount());
    playsAgain(session);
}

void tst_Destruction::objects_comeAndGo_whileBlocksRun()
{
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 1e6));
    QVERIFY(session.startRecording());
    session.api->startThread();
    for (int i = 0; i < 200; ++i) {
        auto *source = new FaultySource(&session.engine, 60.0);
        auto *sink = new FaultySink(&session.engine, 2);
        QVERIFY(i % 2 ? session.engine.play(source) : session.engine.addSource(source));
        QVERIFY(session.engine.addSink(sink));
        sink->start();
        QVERIFY(session.engine.addRoute(source, sink));
        if (i % 4 < 2)
            QCoreApplication::processEvents();
        session.engine.deleteSink(sink);
        session.engine.deleteSource(source);
        QCOMPARE(session.engine.numActiveSources(), 1);
        QCOMPARE(session.engine.numActiveSinks(), 0);
    }
    session.api->stopThread();
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_Destruction)
#include "tst_destruction.moc"
