// SPDX-License-Identifier: MIT
// Workers for which the system has no thread.
#include "faulty_hosts.h"
#include "resource_limits.h"

#include <support/log_capture.h>

#include <limits>

using namespace QTovelMixer;

namespace {

constexpr size_t hugeStack = std::numeric_limits<unsigned>::max(); // bytes

} // namespace

class tst_MissingThreads : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void source_ends_andOthersPlay();
    void source_ends_inPlay();
    void source_ends_deletedByASlot();
    void sink_ends_andOthersPlay();
};

void tst_MissingThreads::source_ends_andOthersPlay()
{
    const LogCapture log;
    Session session;
    RampSource *const lonely = session.addRamp(48000, 60.0);
    QVERIFY(lonely);
    lonely->setStackSize(hugeStack);
    RampSource *const other = session.addRamp(48000, 60.0);
    QVERIFY(other);
    session.expectEnd(lonely, 0);
    {
        const AddressLimit limit(hugeStack / 2);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
    }
    QVERIFY(!lonely->QThread::isRunning());
    QCOMPARE(session.count("sourceFinished"), 0);
    QCOMPARE(log.countStarting("QTovelMixer::Source: Cannot start a thread ("), 1);
    const std::vector<float> heard = session.run(50);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 1, longest);
    QCOMPARE(session.engine.activeSources().first(), other);
    QCOMPARE(session.count("sourceFinished"), 1);
    QCOMPARE(session.count("stopped"), 0);
    playsAgain(session);
}

void tst_MissingThreads::source_ends_inPlay()
{
    const LogCapture log;
    Session session;
    auto *source = new RampSource(&session.engine, 48000, 2, 60.0);
    source->setStackSize(hugeStack);
    {
        const AddressLimit limit(hugeStack / 2);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.play(source));
    }
    QTRY_COMPARE_WITH_TIMEOUT(session.count("sourceFinished"), 1, longest);
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 0, longest);
    QCOMPARE(session.lastReason, WorkerFailed);
    QCOMPARE(log.countStarting("QTovelMixer::Source: Cannot start a thread ("), 1);
    playsAgain(session);
}

void tst_MissingThreads::source_ends_deletedByASlot()
{
    const LogCapture log;
    Session session;
    const QPointer<RampSource> source = session.addRamp(48000, 60.0);
    QVERIFY(source);
    source->setStackSize(hugeStack);
    connect(source.data(), &Source::sourceFinished, &session.engine,
            [&session](const QPointer<Source> &ended) { session.engine.deleteSource(ended); });
    {
        const AddressLimit limit(hugeStack / 2);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
    }
    QTRY_VERIFY_WITH_TIMEOUT(!source, longest);
    QCOMPARE(session.engine.numActiveSources(), 0);
    playsAgain(session);
}

void tst_MissingThreads::sink_ends_andOthersPlay()
{
    const LogCapture log;
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    sink->setStackSize(hugeStack);
    RampSource *const source = session.addRamp(48000, 60.0);
    QVERIFY(source);
    {
        const AddressLimit limit(hugeStack / 2);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
    }
    QCOMPARE(log.countStarting("QTovelMixer::Sink: Cannot start a thread ("), 1);
    const std::vector<float> heard = session.run(50);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSinks(), 0, longest);
    QCOMPARE(session.count("sinkFinished"), 1);
    QCOMPARE(session.count("stopped"), 0);
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_MissingThreads)
#include "tst_missing_threads.moc"
