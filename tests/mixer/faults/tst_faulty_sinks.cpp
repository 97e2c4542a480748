// SPDX-License-Identifier: MIT
// Hosts whose writeSamples blocks, throws or lags.
#include "faulty_hosts.h"

#include <mixer/io/sink_p.h>
#include <support/log_capture.h>

#include <thread>

using namespace QTovelMixer;

class tst_FaultySinks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void seek_letsTheMixGoOn_whileAHostWrites();
    void start_letsTheMixGoOn_whileAHostWrites();
    void seek_tellsEverySink_beforeItWaitsForOne();
    void seek_reachesASink_thatNeverRests();
    void setTime_isRefused_onTheSinksOwnThread();
    void blocking_overflowsTheRing_andTheTakeStaysInPlace();
    void throwing_endsTheTake_data();
    void throwing_endsTheTake();

private:
    FaultySink *addSink(Session &session);
    FaultySink *startRecording(Session &session);
    void mixesWhileMainWaits(Session &session, FaultySink *sink,
                             const std::function<void()> &operation);
};

FaultySink *tst_FaultySinks::addSink(Session &session)
{
    auto *sink = new FaultySink(&session.engine, 2);
    if (session.engine.addSink(sink))
        return sink;
    delete sink;
    return nullptr;
}

/// A minute of material beside a sink that takes blocks. Null when anything fails.
FaultySink *tst_FaultySinks::startRecording(Session &session)
{
    FaultySink *const sink = addSink(session);
    return sink && session.addRamp(48000, 60.0) && session.startRecording() ? sink : nullptr;
}

// The operation runs on this thread while the host is inside writeSamples; another one sees what
// becomes of the blocks meanwhile.
void tst_FaultySinks::mixesWhileMainWaits(Session &session, FaultySink *sink,
                                          const std::function<void()> &operation)
{
    sink->barrier.close();
    session.runWithoutWaiting(4);
    QVERIFY(sink->barrier.waitUntilReached());
    session.api->startThread();
    const quint64 dropped = session.engine.droppedBlocks();
    bool waited = false;
    bool mixed = false;
    std::thread observer([&] {
        const double begin = session.engine.time();
        waited = waitUntil([&] { return SinkAccess::data(*sink).updateWaiters > 0; });
        const quint64 first = session.api->blocks;
        mixed = waitUntil([&] { return session.api->blocks > first + 200; });
        mixed = mixed && session.engine.time() > begin;
        sink->barrier.open();
    });
    operation();
    observer.join();
    const quint64 droppedAfter = session.engine.droppedBlocks();
    session.api->stopThread();
    QVERIFY(waited);
    QVERIFY(mixed);
    // The change itself is short: a block may meet it, not the two hundred of the wait.
    QVERIFY(droppedAfter - dropped < 100);
}

void tst_FaultySinks::seek_letsTheMixGoOn_whileAHostWrites()
{
    const LogCapture quiet;
    Session session(2, 2);
    FaultySink *const sink = startRecording(session);
    QVERIFY(sink);
    mixesWhileMainWaits(session, sink, [&] { session.engine.setTime(30.0); });
    QVERIFY(session.engine.time() >= 30.0);
    const size_t before = sink->pieces().size();
    session.run(4);
    QTRY_VERIFY_WITH_TIMEOUT(sink->pieces().size() > before, longest);
    QVERIFY(sink->pieces().back().time >= 30.0);
    playsAgain(session);
}

void tst_FaultySinks::start_letsTheMixGoOn_whileAHostWrites()
{
    const LogCapture quiet;
    Session session(2, 2);
    FaultySink *const sink = startRecording(session);
    QVERIFY(sink);
    mixesWhileMainWaits(session, sink, [&] { QVERIFY(session.engine.start(0.0)); });
    playsAgain(session);
}

void tst_FaultySinks::seek_tellsEverySink_beforeItWaitsForOne()
{
    const LogCapture quiet;
    Session session(2, 2);
    FaultySink *const slow = startRecording(session);
    FaultySink *const other = addSink(session);
    QVERIFY(slow && other);
    other->start();
    slow->barrier.close();
    session.runWithoutWaiting(4);
    QVERIFY(slow->barrier.waitUntilReached());
    bool told = false;
    std::thread observer([&] {
        told = waitUntil([&] { return SinkAccess::data(*other).updateWaiters > 0; });
        slow->barrier.open();
    });
    session.engine.setTime(1.0);
    observer.join();
    QVERIFY(told);
    QCOMPARE(SinkAccess::data(*slow).updateWaiters.load(), 0);
    QCOMPARE(SinkAccess::data(*other).updateWaiters.load(), 0);
    session.stopAll();
}

// A worker that drains a backlog asks for its mutex again at once; whoever seeks gets it all the
// same.
void tst_FaultySinks::seek_reachesASink_thatNeverRests()
{
    const LogCapture quiet;
    Session session(2, 2);
    FaultySink *const sink = startRecording(session);
    QVERIFY(sink);
    session.api->startThread();
    for (int i = 0; i < 50; ++i) {
        session.engine.setTime(i % 2 ? 10.0 : 40.0);
        QCOMPARE(SinkAccess::data(*sink).updateWaiters.load(), 0);
    }
    session.api->stopThread();
    playsAgain(session);
}

void tst_FaultySinks::setTime_isRefused_onTheSinksOwnThread()
{
    class Seeker : public TakeSink
    {
    public:
        explicit Seeker(Engine *engine) : TakeSink(engine, 48000, 2) {}
        ~Seeker() override
        {
            stop(NoReason);
            wait();
        }
        void writeSamples(float *buffer, int frames, int channels, double time) override
        {
            setTime(5.0);
            TakeSink::writeSamples(buffer, frames, channels, time);
        }
    };
    const LogCapture log;
    Session session(2, 2);
    auto *sink = new Seeker(&session.engine);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(2);
    QTRY_COMPARE_WITH_TIMEOUT(sink->frames(), qint64(512), longest);
    QCOMPARE(sink->pieces().front().time, 0.0);
    QVERIFY(log.contains(QString("QTovelMixer::Sink::setTime: refused on the sink's own thread "
                                 "(0x%1)!!")
                             .arg(quintptr(static_cast<void *>(sink)), 0, 16)));
    playsAgain(session);
}

// The device input carries its frame number: a frame of the take is that of its place, or silence
// where the ring had no room.
void tst_FaultySinks::blocking_overflowsTheRing_andTheTakeStaysInPlace()
{
    const LogCapture log;
    Session session(2, 2);
    FaultySink *sink = addSink(session);
    QVERIFY(sink);
    QVERIFY(session.startRecording());
    sink->barrier.close();
    constexpr int blocks = 1500; // 8 s into a ring of 5 s
    session.run(blocks);
    QVERIFY(sink->barrier.waitUntilReached());
    QCOMPARE(session.engine.droppedBlocks(), 0u);
    sink->barrier.open();
    QTRY_COMPARE_WITH_TIMEOUT(sink->freeFrames(), SinkAccess::data(*sink).ring->capacity(),
                              longest);
    constexpr int later = 100;
    session.run(later);
    constexpr qint64 all = qint64(blocks + later) * Session::blockFrames;
    QTRY_COMPARE_WITH_TIMEOUT(sink->frames(), all, longest);
    const std::vector<float> take = sink->samples();
    qint64 lost = 0;
    for (qint64 frame = 1; frame < all; ++frame) {
        const float sample = take[size_t(frame) * 2];
        if (sample == 0.0f)
            ++lost;
        else
            QCOMPARE(sample, float(frame));
    }
    const qint64 room = SinkAccess::data(*sink).ring->capacity();
    QVERIFY(lost > 0);
    QVERIFY(lost <= qint64(blocks) * Session::blockFrames - room);
    for (qint64 frame = all - qint64(later - 1) * Session::blockFrames; frame < all; ++frame)
        QCOMPARE(take[size_t(frame) * 2], float(frame));
    QVERIFY(log.contains("Sink::mixer_callback frame-offset"));
    QVERIFY(log.contains("Frame Offset = "));
    playsAgain(session);
}

void tst_FaultySinks::throwing_endsTheTake_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<QString>("what");
    QTest::newRow("exception") << int(FaultySink::ThrowsException) << "disk full";
    QTest::newRow("number") << int(FaultySink::ThrowsNumber) << "unknown";
}

void tst_FaultySinks::throwing_endsTheTake()
{
    QFETCH(int, fault);
    QFETCH(QString, what);
    const LogCapture log;
    Session session(2, 2);
    FaultySink *sink = addSink(session);
    QVERIFY(sink);
    QVERIFY(session.startRecording());
    session.run(4);
    QTRY_COMPARE_WITH_TIMEOUT(sink->frames(), qint64(4 * Session::blockFrames), longest);
    sink->fault = FaultySink::Fault(fault);
    session.run(1);
    QTRY_COMPARE_WITH_TIMEOUT(session.count("stopped"), 1, longest);
    QCOMPARE(session.count("sinkFinished"), 1);
    QCOMPARE(
        log.countStarting(QString("QTovelMixer::writeSamples: Exception (%1) in sink (").arg(what)),
        1);
    QCOMPARE(session.engine.numActiveSinks(), 0);
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_FaultySinks)
#include "tst_faulty_sinks.moc"
