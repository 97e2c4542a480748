// SPDX-License-Identifier: MIT
// Hosts whose readSamples blocks, throws or answers nonsense, seen from the mixer.
#include "faulty_hosts.h"

#include <mixer/io/source_p.h>
#include <support/log_capture.h>

#include <climits>
#include <thread>

using namespace QTovelMixer;

class tst_FaultySources : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void blocking_isSilence_andGoesOnInPlace();
    void blocking_atTheStart_holdsTheStartUp();
    void blocking_isEnded_byStop();
    void seek_tellsEverySource_beforeItWaitsForOne();
    void throwing_endsTheMaterial_data();
    void throwing_endsTheMaterial();
    void answer_thatEndsTheMaterial_data();
    void answer_thatEndsTheMaterial();
    void answer_beyondWhatWasAsked_countsAsThat_data();
    void answer_beyondWhatWasAsked_countsAsThat();
    void oneFault_leavesTheOthersAlone();

private:
    FaultySource *add(Session &session)
    {
        auto *source = new FaultySource(&session.engine, 60.0);
        if (session.engine.addSource(source))
            return source;
        delete source;
        return nullptr;
    }
};

void tst_FaultySources::blocking_isSilence_andGoesOnInPlace()
{
    const LogCapture quiet;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    QVERIFY(session.engine.start(0.0));
    std::vector<float> heard = session.run(20);
    source->barrier.close();
    session.runWithoutWaiting(100); // room for the next chunk
    QVERIFY(source->barrier.waitUntilReached());
    const qint64 buffered = source->bufferedFrames();
    const int blocks = int(buffered / Session::blockFrames) + 600; // 3 s more than there is
    session.runWithoutWaiting(blocks);
    QCOMPARE(session.api->output[0], 0.0f);
    QCOMPARE(qRound64(session.engine.time() * 48000), qint64(120 + blocks) * Session::blockFrames);
    QCOMPARE(session.engine.droppedBlocks(), 0u);

    source->barrier.open();
    heard = session.run(50);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float((120 + blocks) * Session::blockFrames + int(i)));
    QCOMPARE(session.count("stopped"), 0);
    playsAgain(session);
}

void tst_FaultySources::blocking_atTheStart_holdsTheStartUp()
{
    const LogCapture quiet;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    source->barrier.close();
    session.api->startThread();
    bool mixed = false;
    std::thread other([&] {
        source->barrier.waitUntilReached();
        const quint64 before = session.api->blocks;
        mixed = waitUntil([&] { return session.api->blocks > before + 100; });
        source->barrier.open();
    });
    QVERIFY(session.engine.start(0.0));
    other.join();
    session.api->stopThread();
    QVERIFY(mixed);
    QVERIFY(source->bufferedFrames() > 0);
    playsAgain(session);
}

void tst_FaultySources::blocking_isEnded_byStop()
{
    const LogCapture quiet;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    QVERIFY(session.engine.start(0.0));
    source->barrier.close();
    session.runWithoutWaiting(100);
    QVERIFY(source->barrier.waitUntilReached());
    // `stop` asks first and then waits for the read.
    std::thread other([&] {
        waitUntil([&] { return source->wasStoped(); });
        source->barrier.open();
    });
    QVERIFY(session.engine.stop(false, UserStopAction));
    other.join();
    QTRY_COMPARE_WITH_TIMEOUT(session.count("stopped"), 1, longest);
    QCOMPARE(session.lastReason, UserStopAction);
    playsAgain(session);
}

// One that was not told yet would begin another read meanwhile, which is waited for as well.
void tst_FaultySources::seek_tellsEverySource_beforeItWaitsForOne()
{
    const LogCapture quiet;
    Session session;
    FaultySource *const slow = add(session);
    FaultySource *const other = add(session);
    QVERIFY(slow && other);
    QVERIFY(session.engine.start(0.0));
    slow->barrier.close();
    session.runWithoutWaiting(100); // room for the next chunk
    QVERIFY(slow->barrier.waitUntilReached());
    bool told = false;
    std::thread observer([&] {
        told = waitUntil([&] { return SourceAccess::data(*other).updateWaiters > 0; });
        slow->barrier.open();
    });
    session.engine.setTime(10.0);
    observer.join();
    QVERIFY(told);
    QCOMPARE(SourceAccess::data(*slow).updateWaiters.load(), 0);
    QCOMPARE(SourceAccess::data(*other).updateWaiters.load(), 0);
    session.stopAll();
}

void tst_FaultySources::throwing_endsTheMaterial_data()
{
    QTest::addColumn<int>("fault");
    QTest::addColumn<int>("after"); // frames
    QTest::addColumn<QString>("what");
    QTest::newRow("exception at once") << int(FaultySource::ThrowsException) << 0 << "disk gone";
    QTest::newRow("exception later") << int(FaultySource::ThrowsException) << 40960 << "disk gone";
    QTest::newRow("number at once") << int(FaultySource::ThrowsNumber) << 0 << "unknown";
    QTest::newRow("number later") << int(FaultySource::ThrowsNumber) << 40960 << "unknown";
}

void tst_FaultySources::throwing_endsTheMaterial()
{
    QFETCH(int, fault);
    QFETCH(int, after);
    QFETCH(QString, what);
    const LogCapture log;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    source->fault = FaultySource::Fault(fault);
    source->faultAfter = after;
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(after / Session::blockFrames);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    QTRY_COMPARE_WITH_TIMEOUT((session.runWithoutWaiting(2), session.count("stopped")), 1, longest);
    QCOMPARE(session.lastReason, WorkerFailed);
    QCOMPARE(session.count("sourceFinished"), 1);
    QCOMPARE(log.countStarting(
                 QString("QTovelMixer::readSamples: Exception (%1) in source (").arg(what)),
             1);
    playsAgain(session);
}

void tst_FaultySources::answer_thatEndsTheMaterial_data()
{
    QTest::addColumn<int>("answer");
    QTest::newRow("none") << 0;
    QTest::newRow("minus one") << -1;
    QTest::newRow("least") << INT_MIN;
}

void tst_FaultySources::answer_thatEndsTheMaterial()
{
    QFETCH(int, answer);
    const LogCapture quiet;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    source->faultAfter = 8192;
    source->answer = answer;
    source->fault = FaultySource::Answers;
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(8192 / Session::blockFrames);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    QTRY_COMPARE_WITH_TIMEOUT((session.runWithoutWaiting(2), session.count("stopped")), 1, longest);
    QCOMPARE(session.lastReason, AudioFinished);
    playsAgain(session);
}

void tst_FaultySources::answer_beyondWhatWasAsked_countsAsThat_data()
{
    QTest::addColumn<int>("answer");
    QTest::newRow("one more") << 4097;
    QTest::newRow("many") << 1000000;
    QTest::newRow("most") << INT_MAX;
}

void tst_FaultySources::answer_beyondWhatWasAsked_countsAsThat()
{
    QFETCH(int, answer);
    const LogCapture quiet;
    Session session;
    FaultySource *source = add(session);
    QVERIFY(source);
    source->answer = answer;
    source->fault = FaultySource::Answers;
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(1200); // more than the ring holds
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i));
    playsAgain(session);
}

void tst_FaultySources::oneFault_leavesTheOthersAlone()
{
    const LogCapture quiet;
    Session session;
    FaultySource *faulty = add(session);
    QVERIFY(faulty);
    RampSource *good = session.addRamp(48000, 60.0);
    QVERIFY(good);
    faulty->faultAfter = 8192;
    faulty->fault = FaultySource::ThrowsException;
    session.expectEnd(static_cast<RampSource *>(faulty), 8192);
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(200);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i) * (i < 8192 ? 2.0f : 1.0f));
    QTRY_COMPARE_WITH_TIMEOUT(session.engine.numActiveSources(), 1, longest);
    QCOMPARE(session.count("stopped"), 0);
    QCOMPARE(session.engine.activeSources().first(), good);
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_FaultySources)
#include "tst_faulty_sources.moc"
