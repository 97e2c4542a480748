// SPDX-License-Identifier: MIT
#include <base/lock_rank_p.h>

#include <QtCore/QProcess>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <memory>
#include <vector>

using namespace QTovelMixer;

namespace {

// Runs as a program of its own: an assertion ends it.
int violate(const QByteArray &way)
{
    RankedMutex<LockRank::SourceRing> ring;
    RankedRecursiveMutex<LockRank::Update> update;
    RankedMutex<LockRank::List> list;
    if (way == "order") {
        list.lock();
        update.lock();
    } else if (way == "ring") {
        update.lock();
        ring.lock();
    } else if (way == "release") {
        const std::unique_ptr<QThread> other(QThread::create([&] { update.lock(); }));
        other->start();
        other->wait();
        update.unlock();
    }
    return 0;
}

} // namespace

class tst_LockRank : public QObject
{
    Q_OBJECT

private slots:
    void mayTake_follows_theOrder();
    void mayTake_allowsSeveral_ofTheRingsOnly();
    void mayTake_allowsAgain_whatIsRecursive();
    void released_forgetsTheNewestOfEqual();
    void held_belongsToItsThread();
    void held_endsSomewhere();
    void lock_countsAsHeld_untilItsUnlock();
    void violation_endsTheProgram_data();
    void violation_endsTheProgram();
};

void tst_LockRank::mayTake_follows_theOrder()
{
    const int a = 0;
    const int b = 0;
    HeldLocks::taken(LockRank::Update, &a);
    QVERIFY(HeldLocks::mayTake(LockRank::Freewheel, &b, false));
    QVERIFY(HeldLocks::mayTake(LockRank::Values, &b, false));
    QVERIFY(!HeldLocks::mayTake(LockRank::Update, &b, false));
    QVERIFY(!HeldLocks::mayTake(LockRank::SourceRing, &b, false));
    QVERIFY(!HeldLocks::mayTake(LockRank::SinkRing, &b, false));
    HeldLocks::released(&a);
    QVERIFY(HeldLocks::mayTake(LockRank::SourceRing, &b, false));
}

void tst_LockRank::mayTake_allowsSeveral_ofTheRingsOnly()
{
    const int a = 0;
    const int b = 0;
    HeldLocks::taken(LockRank::SourceRing, &a);
    QVERIFY(HeldLocks::mayTake(LockRank::SourceRing, &b, false));
    QVERIFY(!HeldLocks::mayTake(LockRank::SourceRing, &a, false));
    HeldLocks::released(&a);
    HeldLocks::taken(LockRank::Sleep, &a);
    QVERIFY(!HeldLocks::mayTake(LockRank::Sleep, &b, false));
    HeldLocks::released(&a);
}

void tst_LockRank::mayTake_allowsAgain_whatIsRecursive()
{
    const int a = 0;
    const int b = 0;
    HeldLocks::taken(LockRank::Update, &a);
    HeldLocks::taken(LockRank::List, &b);
    QVERIFY(HeldLocks::mayTake(LockRank::Update, &a, true));
    QVERIFY(!HeldLocks::mayTake(LockRank::Update, &a, false));
    HeldLocks::released(&b);
    HeldLocks::released(&a);
}

void tst_LockRank::released_forgetsTheNewestOfEqual()
{
    const int a = 0;
    HeldLocks::taken(LockRank::Update, &a);
    HeldLocks::taken(LockRank::Update, &a);
    HeldLocks::released(&a);
    QVERIFY(HeldLocks::holds(&a));
    HeldLocks::released(&a);
    QVERIFY(!HeldLocks::holds(&a));
    HeldLocks::released(&a);
    QVERIFY(!HeldLocks::holds(&a));
}

void tst_LockRank::held_belongsToItsThread()
{
    const int a = 0;
    HeldLocks::taken(LockRank::Update, &a);
    bool other = true;
    const std::unique_ptr<QThread> thread(QThread::create([&] { other = HeldLocks::holds(&a); }));
    thread->start();
    QVERIFY(thread->wait(10000));
    HeldLocks::released(&a);
    QVERIFY(!other);
}

void tst_LockRank::held_endsSomewhere()
{
    const std::vector<int> locks(300);
    for (const int &lock : locks)
        HeldLocks::taken(LockRank::SourceRing, &lock);
    QVERIFY(HeldLocks::holds(&locks.back())); // nothing is known of it, and it may be so
    for (const int &lock : locks)
        HeldLocks::released(&lock);
    QVERIFY(!HeldLocks::holds(&locks.front()));
}

void tst_LockRank::lock_countsAsHeld_untilItsUnlock()
{
    RankedRecursiveMutex<LockRank::Update> update;
    RankedMutex<LockRank::List> list;
    {
        const QMutexLocker locker(&update);
        const QMutexLocker again(&update);
        QVERIFY(HeldLocks::holds(&update));
        QVERIFY(list.tryLock());
        list.unlock();
    }
    QVERIFY(!HeldLocks::holds(&update));
    QVERIFY(!HeldLocks::holds(&list));
}

void tst_LockRank::violation_endsTheProgram_data()
{
    QTest::addColumn<QByteArray>("way");
    QTest::addColumn<QByteArray>("words");
    QTest::newRow("none") << QByteArray("none") << QByteArray();
    const QByteArray order("a lock is taken under one that comes after it");
    QTest::newRow("the engine's") << QByteArray("order") << order;
    QTest::newRow("a source's") << QByteArray("ring") << order;
    QTest::newRow("another thread's")
        << QByteArray("release") << QByteArray("a lock is released by another thread");
}

void tst_LockRank::violation_endsTheProgram()
{
    QFETCH(QByteArray, way);
    QFETCH(QByteArray, words);
    const bool ends = !words.isEmpty();
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {"--violate", way});
    QVERIFY(process.waitForFinished(60000));
    const QByteArray said = process.readAllStandardError();
    QCOMPARE(process.exitStatus() == QProcess::CrashExit || process.exitCode() != 0, ends);
    if (ends)
        QVERIFY2(said.contains(words), said.constData());
}

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--violate") == 0)
        return violate(argv[2]);
    QCoreApplication application(argc, argv);
    tst_LockRank test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_lock_rank.moc"
