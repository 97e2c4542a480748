// SPDX-License-Identifier: MIT
// Sources and sinks that their host deletes itself while they are in the mix, and used-up ones that
// it adds.
#include "faulty_hosts.h"

#include <support/log_capture.h>

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

using namespace QTovelMixer;

namespace {

/// Without a destructor of its own: the host stops it and waits, as the header asks for.
class PlainSink : public TakeSink
{
public:
    using TakeSink::TakeSink;
    void onRunStart() override { hasBegun = true; }
    std::atomic<bool> hasBegun{false};
};

/// A sink whose own part of a block ends with its destructor.
class OverridingSink : public FaultySink
{
public:
    using FaultySink::FaultySink;
    ~OverridingSink() override
    {
        stop(NoReason);
        wait();
        whole = false;
    }
    void mixer_callback(aligned_vector<float, 16> *inputs, int channels,
                        long long mixerFrame) override
    {
        usedAfterEnd += !whole;
        FaultySink::mixer_callback(inputs, channels, mixerFrame);
    }

    static inline std::atomic<int> usedAfterEnd{0};

private:
    std::atomic<bool> whole{true};
};

/// A host that does something in one of the hooks that the engine calls during a change.
class HookedSource : public FaultySource
{
public:
    using FaultySource::FaultySource;
    void update_lock() override
    {
        reach("update_lock");
        FaultySource::update_lock();
    }
    void update_unlock() override
    {
        FaultySource::update_unlock();
        reach("update_unlock");
    }
    void setTime(double time) override
    {
        FaultySource::setTime(time);
        reach("setTime");
    }
    void adjustTime(double time, double offset) override
    {
        FaultySource::adjustTime(time, offset);
        reach("adjustTime");
    }
    void setTimeline(Timeline *timeline) override
    {
        FaultySource::setTimeline(timeline);
        reach("setTimeline");
    }

    QByteArray hook;
    std::function<void()> act;

private:
    void reach(const char *name)
    {
        if (hook == name && act)
            std::exchange(act, nullptr)();
    }
};

class HookedSink : public FaultySink
{
public:
    using FaultySink::FaultySink;
    void setTime(double time) override
    {
        FaultySink::setTime(time);
        if (act)
            std::exchange(act, nullptr)();
    }
    std::function<void()> act;
};

/// Always at the same address, where an allocator may well put what follows what was deleted.
template <typename T>
class Placed : public T
{
public:
    using T::T;
    static void *operator new(std::size_t)
    {
        alignas(T) static std::byte place[sizeof(Placed)];
        return place;
    }
    static void operator delete(void *) {}
};

template <typename T>
Placed<T> *newPlaced(Engine *engine)
{
    if constexpr (std::is_base_of_v<Source, T>)
        return new Placed<T>(engine, 60.0);
    else
        return new Placed<T>(engine, 2);
}

/// The first one has ended, and its worker's last call is still to come, when the second takes its
/// place.
template <typename T>
void checkSuccessor(bool engineDeletes)
{
    LogCapture log;
    Session session(2, 2);
    const auto add = [&](T *object) {
        if constexpr (std::is_base_of_v<Source, T>)
            return session.engine.addSource(object);
        else
            return session.engine.addSink(object);
    };
    QVERIFY(session.addRamp(48000, 60.0));
    T *const first = newPlaced<T>(&session.engine);
    QVERIFY(add(first));
    QVERIFY(session.engine.start());
    first->stop(UserStopAction);
    QVERIFY(first->wait(longest));
    if (!engineDeletes) {
        delete first;
    } else if constexpr (std::is_base_of_v<Source, T>) {
        session.engine.deleteSource(first);
    } else {
        session.engine.deleteSink(first);
    }
    T *const second = newPlaced<T>(&session.engine);
    QCOMPARE(static_cast<void *>(second), static_cast<void *>(first));
    const QPointer<T> alive(second);
    QVERIFY(add(second));
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QVERIFY(alive);
    QCOMPARE(session.engine.numActiveSources() + session.engine.numActiveSinks(), 2);
    QVERIFY(!log.contains("remove"));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

/// Deletes the object in one of the ways that hosts have.
void erase(QThread *object, int way)
{
    switch (way) {
    case 0:
        delete object;
        break;
    case 1: {
        auto parent = std::make_unique<QObject>();
        object->setParent(parent.get());
        break;
    }
    default:
        object->deleteLater();
        QCoreApplication::sendPostedEvents(object, QEvent::DeferredDelete);
    }
}

} // namespace

class tst_HostDeletes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void object_leavesTheMix_data();
    void object_leavesTheMix();
    void successor_atTheSameAddress_stays_data();
    void successor_atTheSameAddress_stays();
    void hook_mayDeleteSiblings_data();
    void hook_mayDeleteSiblings();
    void stream_isGivenBack_withTheLast();
    void stoppedObjects_mayBeDeleted_whileBlocksRun();
    void deleteLater_needsNoStop_whileBlocksRun();
    void overrides_areNotCalled_afterTheWorkersEnd();
    void deletion_fromASlot();

    void usedUpSource_isRefused_data();
    void usedUpSource_isRefused();
    void usedUpSink_isRefused_data();
    void usedUpSink_isRefused();
    void play_ofAUsedUpSource_deletesIt();
    void pause_removesWhatWasNeverStarted();
    void softPause_keepsWhatWasNeverStarted();
};

void tst_HostDeletes::object_leavesTheMix_data()
{
    QTest::addColumn<int>("way");
    QTest::addColumn<bool>("started");
    QTest::addColumn<bool>("isSink");
    const char *const ways[] = {"delete", "parent", "deleteLater"};
    for (int way = 0; way < 3; ++way) {
        for (bool started : {false, true}) {
            for (bool isSink : {false, true})
                QTest::addRow("%s of a %s %s", ways[way], started ? "running" : "new",
                              isSink ? "sink" : "source")
                    << way << started << isSink;
        }
    }
}

void tst_HostDeletes::object_leavesTheMix()
{
    QFETCH(int, way);
    QFETCH(bool, started);
    QFETCH(bool, isSink);
    const LogCapture quiet;
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 60.0));
    auto *source = new FaultySource(&session.engine, 60.0);
    auto *sink = new FaultySink(&session.engine, 2);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.addSink(sink));
    if (started) {
        QVERIFY(session.startRecording());
        session.run(4);
    }
    session.api->startThread();
    const QPointer<QThread> object(isSink ? static_cast<QThread *>(sink) : source);
    erase(object, way);
    QVERIFY(object.isNull());
    QCOMPARE(session.engine.numActiveSources(), isSink ? 2 : 1);
    QCOMPARE(session.engine.numActiveSinks(), isSink ? 0 : 1);
    QCOMPARE(session.count("stopped"), 0);
    const quint64 blocks = session.api->blocks;
    QVERIFY(waitUntil([&] { return session.api->blocks > blocks + 2; }));
    session.api->stopThread();
    session.checkMapping();
    playsAgain(session);
}

void tst_HostDeletes::successor_atTheSameAddress_stays_data()
{
    QTest::addColumn<bool>("isSink");
    QTest::addColumn<bool>("engineDeletes");
    for (bool isSink : {false, true}) {
        for (bool engineDeletes : {false, true})
            QTest::addRow("%s, %s", isSink ? "sink" : "source",
                          engineDeletes ? "deleted by the engine" : "deleted by the host")
                << isSink << engineDeletes;
    }
}

void tst_HostDeletes::successor_atTheSameAddress_stays()
{
    QFETCH(bool, isSink);
    QFETCH(bool, engineDeletes);
    if (isSink)
        checkSuccessor<FaultySink>(engineDeletes);
    else
        checkSuccessor<FaultySource>(engineDeletes);
}

void tst_HostDeletes::hook_mayDeleteSiblings_data()
{
    QTest::addColumn<QByteArray>("hook");
    QTest::addColumn<int>("place"); // of the source with the hook
    for (const char *hook : {"update_lock", "update_unlock", "setTime", "adjustTime", "setTimeline",
                             "setTime of a sink"}) {
        for (int place : {0, 1, 2})
            QTest::addRow("%s, %d", hook, place) << QByteArray(hook) << place;
    }
}

// Those before it hold their locks already, those after it are about to be called.
void tst_HostDeletes::hook_mayDeleteSiblings()
{
    QFETCH(QByteArray, hook);
    QFETCH(int, place);
    const LogCapture quiet;
    Session session(2, 2);
    std::vector<QPointer<FaultySource>> sources;
    std::vector<QPointer<FaultySink>> sinks;
    auto *source = new HookedSource(&session.engine, 60.0);
    auto *sink = new HookedSink(&session.engine, 2);
    for (int i = 0; i < 3; ++i) {
        sources.push_back(i == place ? source : new FaultySource(&session.engine, 60.0));
        sinks.push_back(i == place ? sink : new FaultySink(&session.engine, 2));
        QVERIFY(session.engine.addSource(sources.back()));
        QVERIFY(session.engine.addSink(sinks.back()));
    }
    const bool isSaved = hook == "setTimeline";
    if (!isSaved)
        QVERIFY(session.startRecording());
    bool reached = false;
    const auto act = [&] {
        reached = true;
        for (const auto &other : sources) {
            if (other != source)
                session.engine.deleteSource(other);
        }
        for (const auto &other : sinks) {
            if (other != sink)
                session.engine.deleteSink(other);
        }
    };
    source->hook = hook;
    (hook == "setTime of a sink" ? sink->act : source->act) = act;
    if (isSaved) {
        QVERIFY(session.engine.save());
        QVERIFY(session.engine.restore());
    } else if (hook == "adjustTime") {
        session.engine.setLooping(true);
    } else {
        session.engine.setTime(1.0);
    }
    if (!reached)
        session.stopAll();
    QVERIFY(reached);
    QCOMPARE(session.engine.numActiveSources(), 1);
    QCOMPARE(session.engine.numActiveSinks(), 1);
    session.checkMapping();
    session.stopAll();
    QTRY_COMPARE(session.engine.numActiveSources() + session.engine.numActiveSinks(), 0);
}

void tst_HostDeletes::stream_isGivenBack_withTheLast()
{
    const LogCapture quiet;
    Session session(2, 2);
    auto *source = new FaultySource(&session.engine, 60.0);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.api->isRunning());
    delete source;
    QVERIFY(!session.api->isRunning());
    session.checkAtRest();
    auto *sink = new FaultySink(&session.engine, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.api->isRunning());
    delete sink;
    QVERIFY(!session.api->isRunning());
    QCOMPARE(session.count("stopped"), 0);
    session.checkAtRest();
}

void tst_HostDeletes::stoppedObjects_mayBeDeleted_whileBlocksRun()
{
    const LogCapture quiet;
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 1e6));
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    for (int i = 0; i < 200; ++i) {
        auto *source = new RampSource(&session.engine, 48000, 2, 60.0);
        auto *sink = new PlainSink(&session.engine, 48000, 2);
        QVERIFY(session.engine.addSource(source));
        QVERIFY(session.engine.addSink(sink));
        source->start();
        sink->start();
        if (i % 2 == 0)
            QVERIFY(waitUntil([&] { return source->isRunning() && sink->isRunning(); }));
        source->stop(UserStopAction);
        sink->stop(UserStopAction);
        QVERIFY(source->wait(longest));
        QVERIFY(sink->wait(longest));
        delete source;
        delete sink;
        QCOMPARE(session.engine.numActiveSources(), 1);
        QCOMPARE(session.engine.numActiveSinks(), 0);
    }
    session.api->stopThread();
    playsAgain(session);
}

void tst_HostDeletes::deleteLater_needsNoStop_whileBlocksRun()
{
    const LogCapture quiet;
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 1e6));
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    for (int i = 0; i < 100; ++i) {
        const QPointer<RampSource> source(new RampSource(&session.engine, 48000, 2, 60.0));
        const QPointer<PlainSink> sink(new PlainSink(&session.engine, 48000, 2));
        QVERIFY(session.engine.play(source));
        QVERIFY(session.engine.addSink(sink));
        sink->start();
        // Qt keeps a flag of `deleteLater` beside one that it reads while a thread starts.
        QVERIFY(waitUntil([&] { return sink->hasBegun.load(); }));
        source->deleteLater();
        sink->deleteLater();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(!source);
        QVERIFY(!sink);
    }
    session.api->stopThread();
    playsAgain(session);
}

void tst_HostDeletes::overrides_areNotCalled_afterTheWorkersEnd()
{
    const LogCapture quiet;
    Session session(2, 2);
    QVERIFY(session.addRamp(48000, 1e6));
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    OverridingSink::usedAfterEnd = 0;
    for (int i = 0; i < 300; ++i) {
        auto *sink = new OverridingSink(&session.engine, 2);
        QVERIFY(session.engine.addSink(sink));
        sink->start();
        QVERIFY(waitUntil([&] { return sink->isRunning(); }));
        delete sink;
    }
    session.api->stopThread();
    QCOMPARE(OverridingSink::usedAfterEnd.load(), 0);
    playsAgain(session);
}

void tst_HostDeletes::deletion_fromASlot()
{
    const LogCapture quiet;
    Session session(2, 2);
    session.engine.setPauseMode(PauseSoft);
    for (int i = 0; i < 3; ++i) {
        auto *source = new FaultySource(&session.engine, 60.0);
        QVERIFY(session.engine.addSource(source));
    }
    connect(&session.engine, &Engine::sourceStateChanged, &session.engine,
            [&] { qDeleteAll(session.engine.activeSources()); });
    QVERIFY(session.engine.start(0.0));
    session.api->startThread();
    QVERIFY(session.engine.pause());
    QCOMPARE(session.engine.numActiveSources(), 0);
    QCOMPARE(session.count("paused"), 1);
    session.api->stopThread();
    disconnect(&session.engine, &Engine::sourceStateChanged, nullptr, nullptr);
    playsAgain(session);
}

namespace {

void addEnds()
{
    QTest::addColumn<int>("end");
    QTest::newRow("removed") << 0;
    QTest::newRow("asked to end") << 1;
    QTest::newRow("ended") << 2;
    QTest::newRow("thread finished") << 3;
    QTest::newRow("in the mix") << 4;
}

/// Uses a source or sink up; answers it, and whether it is the engine's to delete.
template <typename Add, typename Remove>
bool useUp(QThread *object, int end, Add add, Remove remove, const std::function<void()> &start,
           const std::function<void()> &stop)
{
    switch (end) {
    case 0:
        add();
        remove();
        return true;
    case 1:
        stop();
        return false;
    case 2:
        start();
        stop();
        object->wait(longest);
        return false;
    case 3:
        start(); // built so that its thread ends at once
        object->wait(longest);
        return false;
    default:
        add();
        return true;
    }
}

} // namespace

void tst_HostDeletes::usedUpSource_isRefused_data()
{
    addEnds();
}

void tst_HostDeletes::usedUpSource_isRefused()
{
    QFETCH(int, end);
    Session session;
    Engine &engine = session.engine;
    const QPointer<RampSource> source(
        new RampSource(&engine, end == 3 ? 0 : 48000, 2, end == 3 ? 0.0 : 60.0));
    bool isTheEngines = false;
    {
        const LogCapture quiet;
        isTheEngines = useUp(
            source, end, [&] { QVERIFY(engine.addSource(source)); },
            [&] { engine.removeSource(source); }, [&] { source->start(); },
            [&] { source->stop(UserStopAction); });
    }
    const int count = engine.numActiveSources();
    LogCapture log;
    QVERIFY(!engine.addSource(source));
    const QString text = end == 4 ? QStringLiteral("is in the mix already!!")
                                  : QStringLiteral("has ended, or was removed!!");
    QCOMPARE(log.texts(QtCriticalMsg).size(), 1);
    QVERIFY2(log.texts(QtCriticalMsg)[0].startsWith("QTovelMixer::addSource: ") &&
                 log.texts(QtCriticalMsg)[0].endsWith(text),
             qPrintable(log.texts(QtCriticalMsg)[0]));
    QCOMPARE(engine.numActiveSources(), count);
    QCOMPARE(session.count("sourceAdded"), isTheEngines ? 1 : 0);
    if (!isTheEngines)
        delete source;
    session.stopAll();
    QTRY_VERIFY(!source);
    session.checkAtRest();
}

void tst_HostDeletes::usedUpSink_isRefused_data()
{
    addEnds();
}

void tst_HostDeletes::usedUpSink_isRefused()
{
    QFETCH(int, end);
    Session session(2, 2);
    Engine &engine = session.engine;
    const QPointer<TakeSink> sink(new TakeSink(&engine, end == 3 ? 0 : 48000, 2));
    bool isTheEngines = false;
    {
        const LogCapture quiet;
        isTheEngines = useUp(
            sink, end, [&] { QVERIFY(engine.addSink(sink)); }, [&] { engine.removeSink(sink); },
            [&] { sink->start(); }, [&] { sink->stop(UserStopAction); });
    }
    LogCapture log;
    QVERIFY(!engine.addSink(sink));
    const QString text = end == 4 ? QStringLiteral("is in the mix already!!")
                                  : QStringLiteral("has ended, or was removed!!");
    QCOMPARE(log.texts(QtCriticalMsg).size(), 1);
    QVERIFY2(log.texts(QtCriticalMsg)[0].startsWith("QTovelMixer::addSink: ") &&
                 log.texts(QtCriticalMsg)[0].endsWith(text),
             qPrintable(log.texts(QtCriticalMsg)[0]));
    QCOMPARE(session.count("sinkAdded"), isTheEngines ? 1 : 0);
    if (!isTheEngines)
        delete sink;
    session.stopAll();
    QTRY_VERIFY(!sink);
    session.checkAtRest();
}

void tst_HostDeletes::play_ofAUsedUpSource_deletesIt()
{
    const LogCapture quiet;
    Session session;
    const QPointer<RampSource> source(new RampSource(&session.engine, 48000, 2, 60.0));
    source->stop(UserStopAction);
    QVERIFY(!session.engine.play(source));
    QVERIFY(!source);
    // One that is in the mix stays there.
    const QPointer<RampSource> listed(session.addRamp(48000, 60.0));
    QVERIFY(!session.engine.play(listed));
    QVERIFY(listed);
    QVERIFY(session.engine.isValid(listed));
}

void tst_HostDeletes::pause_removesWhatWasNeverStarted()
{
    const LogCapture quiet;
    Session session;
    QCOMPARE(session.engine.pauseMode(), PauseKeepState);
    const QPointer<Source> first(session.addRamp(48000, 60.0));
    const QPointer<Source> second(session.addRamp(48000, 60.0));
    // Of a mixer that runs, the watchdog would take them out as well.
    QVERIFY(!session.engine.isRunning());
    QVERIFY(session.engine.pause());
    QVERIFY(first && second); // not before the event loop
    QTRY_VERIFY(!first);
    QTRY_VERIFY(!second);
    QCOMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, UserPauseAction);
    session.stopAll();
    session.checkAtRest();
}

void tst_HostDeletes::softPause_keepsWhatWasNeverStarted()
{
    const LogCapture quiet;
    Session session;
    session.engine.setPauseMode(PauseSoft);
    const QPointer<Source> source(session.addRamp(48000, 60.0));
    QVERIFY(session.engine.pause());
    QCoreApplication::processEvents();
    QVERIFY(session.engine.isValid(source));
    session.stopAll();
    QTRY_VERIFY(!source);
    session.checkAtRest();
}

QTEST_GUILESS_MAIN(tst_HostDeletes)
#include "tst_host_deletes.moc"
