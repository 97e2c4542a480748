// SPDX-License-Identifier: MIT
// Whatever a slot does, on whichever signal of the engine and at whichever of its emissions:
// nothing is used after it is gone, and what is left of the mixer works.
#include "faulty_hosts.h"

#include <base/trace_p.h>
#include <mixer/io/sink_p.h>
#include <support/log_capture.h>

#include <QtCore/QEventLoop>
#include <QtCore/QMetaMethod>
#include <QtCore/QTimer>

#include <functional>
#include <set>

using namespace QTovelMixer;

namespace {

using Slot = std::function<void()>;

struct SignalRow
{
    const char *name;
    std::function<void(Engine *, const Slot &)> connectTo;
};

template <typename Signal>
std::function<void(Engine *, const Slot &)> via(Signal signal)
{
    return [signal](Engine *engine, const Slot &slot) {
        QObject::connect(engine, signal, engine, [slot] { slot(); });
    };
}

const SignalRow signalRows[] = {
    {"sourceAdded", via(&Engine::sourceAdded)},
    {"sinkAdded", via(&Engine::sinkAdded)},
    {"sourceStateChanged", via(&Engine::sourceStateChanged)},
    {"sinkStateChanged", via(&Engine::sinkStateChanged)},
    {"sourceFinished", via(&Engine::sourceFinished)},
    {"sinkFinished", via(&Engine::sinkFinished)},
    {"deviceListChanged", via(&Engine::deviceListChanged)},
    {"defaultDeviceChanged", via(&Engine::defaultDeviceChanged)},
    {"updatingDeviceList", via(&Engine::updatingDeviceList)},
    {"started", via(&Engine::started)},
    {"stopped", via(&Engine::stopped)},
    {"paused", via(&Engine::paused)},
    {"resumed", via(&Engine::resumed)},
    {"activated", via(&Engine::activated)},
    {"deactivated", via(&Engine::deactivated)},
    {"mixerChanged", via(&Engine::mixerChanged)},
    {"meterLayoutChanged", via(&Engine::meterLayoutChanged)},
    {"updateDeviceListFailed", via(&Engine::updateDeviceListFailed)},
    {"deviceFailed", via(&Engine::deviceFailed)},
    {"deviceStalled", via(&Engine::deviceStalled)},
};

/// A mixer on the heap, on a backend with two devices whose blocks run on a thread of their own.
struct Desk
{
    Desk();
    ~Desk() { delete engine; }

    bool add();
    /// Everything that makes the engine emit its signals, until the engine is gone.
    void operate();
    /// Answers whether a new source comes out frame by frame.
    bool playsAgain();

    QPointer<TestApi> api;
    QPointer<Engine> engine;
    Device *first = nullptr;
    Device *second = nullptr;

private:
    void settle() const;
    bool isQuiet() const;
};

Desk::Desk() : api(new TestApi(Session::blockFrames)), engine(new Engine(api))
{
    for (const char *name : {"First", "Second"}) {
        TestDevice *device = api->addTestDevice(name, 2, 2);
        device->defaultInput = device->defaultOutput = true;
        (first ? second : first) = device;
    }
    api->updateDeviceList();
    engine->setPauseMode(PauseSoft);
}

bool Desk::add()
{
    auto *source = new FaultySource(engine, 60.0);
    if (!engine->addSource(source)) {
        delete source;
        return false;
    }
    if (!engine)
        return false;
    auto *sink = new FaultySink(engine, 2);
    if (!engine->addSink(sink)) {
        delete sink;
        return false;
    }
    return true;
}

bool Desk::isQuiet() const
{
    const QList<Source *> sources = engine->activeSources();
    const QList<Sink *> sinks = engine->activeSinks();
    return std::all_of(sources.begin(), sources.end(),
                       [](Source *source) { return !source->wasStoped(); }) &&
           std::all_of(sinks.begin(), sinks.end(),
                       [](Sink *sink) { return !SinkAccess::isOver(*sink); });
}

/// What workers and queued calls still have to say is said, and who was told to end has left.
void Desk::settle() const
{
    const QDeadlineTimer deadline(longest);
    do {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    } while (engine && !isQuiet() && !deadline.hasExpired());
}

void Desk::operate()
{
    const Slot steps[] = {
        [&] { engine->activate(); },
        [&] { add(); },
        [&] { engine->start(0.0); },
        [&] { api->startThread(); },
        [&] { engine->pause(); },
        [&] { engine->resume(); },
        [&] { engine->setChannelMeterEnabled(Type::Output, 0, false); },
        [&] { engine->setLooping(true); },
        [&] { engine->select(second, second, 48000); },
        [&] { engine->stop(true, UserStopAction); },
        [&] { engine->updateDeviceList(false); },
        [&] { engine->open(first, first, 44100); },
        [&] {
            api->failUpdate = true;
            engine->doDeviceListUpdate();
        },
        [&] {
            api->failUpdate = false;
            api->addTestDevice("Third", 0, 2);
            engine->doDeviceListUpdate();
        },
        [&] { emit engine->defaultDeviceChanged(); },
        [&] { engine->updateDeviceList(true); },
        [&] { engine->activate(); },
        [&] {
            if (add() && engine)
                engine->start(0.0);
        },
        [&] {
            api->stopThread();
            engine->monitorTimeout();
            if (engine)
                engine->monitorTimeout();
        },
        [&] {
            if (add() && engine)
                engine->start(0.0);
        },
        [&] { engine->setPauseMode(PauseKeepState); },
        [&] { engine->pause(); },
        [&] {
            api->rearmDeviceFailure();
            api->reportDeviceFailure();
        },
    };
    for (const Slot &step : steps) {
        if (!engine)
            return;
        step();
        settle();
    }
}

bool Desk::playsAgain()
{
    api->stopThread();
    engine->stop(true, UserStopAction);
    settle();
    api->stopThread();
    engine->deactivate();
    engine->activate();
    QCoreApplication::processEvents();
    if (!engine->select(first, nullptr, 48000))
        return false;
    auto *source = new FaultySource(engine, 2.0);
    if (!engine->addSource(source) || !engine->start(0.0))
        return false;
    for (int block = 0; block < 20; ++block) {
        if (!waitUntil([&] { return source->bufferedFrames() >= Session::blockFrames; }))
            return false;
        api->runBlock();
        for (int frame = 0; frame < Session::blockFrames; ++frame) {
            if (api->output[size_t(frame) * 2] != float(block * Session::blockFrames + frame))
                return false;
        }
    }
    return true;
}

struct ActionRow
{
    const char *name;
    void (*act)(Desk &);
};

void spin(const Slot &meanwhile = {})
{
    QEventLoop loop;
    if (meanwhile)
        QTimer::singleShot(0, &loop, meanwhile);
    QTimer::singleShot(0, &loop, &QEventLoop::quit);
    loop.exec();
}

const ActionRow actionRows[] = {
    {"delete engine", [](Desk &desk) { delete desk.engine; }},
    {"delete engine in a nested loop", [](Desk &desk) { spin([&desk] { delete desk.engine; }); }},
    {"delete source", [](Desk &desk) { qDeleteAll(desk.engine->activeSources()); }},
    {"deactivate", [](Desk &desk) { desk.engine->deactivate(UserStopAction); }},
    {"start", [](Desk &desk) { desk.engine->start(1.0); }},
    {"select",
     [](Desk &desk) {
         const bool isFirst = desk.engine->currentDevice(DeviceKind::Output) == desk.first;
         desk.engine->select(isFirst ? desk.second : desk.first, nullptr, 96000);
     }},
    {"nested loop", [](Desk &) { spin(); }},
};

} // namespace

class tst_SignalActions : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void table_holdsEverySignal();
    void slot_doesAnything_data();
    void slot_doesAnything();
};

void tst_SignalActions::table_holdsEverySignal()
{
    std::set<QByteArray> emitted;
    const QMetaObject &meta = Engine::staticMetaObject;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal)
            emitted.insert(meta.method(i).name());
    }
    std::set<QByteArray> listed;
    for (const SignalRow &row : signalRows)
        listed.insert(row.name);
    QCOMPARE(listed.size(), size_t(20));
    QVERIFY(listed == emitted);
}

void tst_SignalActions::slot_doesAnything_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<int>("action");
    for (int signal = 0; signal < int(std::size(signalRows)); ++signal) {
        for (int action = 0; action < int(std::size(actionRows)); ++action)
            QTest::addRow("%s: %s", signalRows[signal].name, actionRows[action].name)
                << signal << action;
    }
}

void tst_SignalActions::slot_doesAnything()
{
    QFETCH(int, signal);
    QFETCH(int, action);
    const LogCapture quiet;
    constexpr int mostEmissions = 40;
    int emissions = 0;
    for (int chosen = 1; chosen == 1 || chosen <= emissions; ++chosen) {
        QVERIFY(chosen <= mostEmissions);
        Desk desk;
        emissions = 0;
        bool inside = false;
        signalRows[signal].connectTo(desk.engine, [&] {
            if (inside || ++emissions != chosen)
                return;
            inside = true;
            actionRows[action].act(desk);
            inside = false;
        });
        desk.operate();
        QVERIFY(emissions > 0);
        if (!desk.engine)
            continue;
        inside = true; // from here on the slot keeps still
        QVERIFY(desk.playsAgain());
    }
    flushTrace();
}

QTEST_GUILESS_MAIN(tst_SignalActions)
#include "tst_signal_actions.moc"
