// SPDX-License-Identifier: MIT
#include <base/trace_p.h>
#include <mixer/engine/block_lock_p.h>
#include <support/callback_watch.h>
#include <support/rtguard.h>

#include <QtCore/QProcess>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <cstdlib>

#include <unistd.h>

using namespace QTovelMixer;

namespace {

// Runs as a program of its own, whose end is looked at.
int misbehave(const QByteArray &way)
{
    UpdateLock lock;
    if (way == "contended")
        lock.lock();
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        if (way == "outside")
            getppid();
        const AudioThreadMark outer;
        const AudioThreadMark mark;
        if (way == "call")
            getppid();
        if (way == "contended")
            const BlockLock block(lock, true, nullptr);
    }));
    thread->start();
    if (way == "contended") {
        thread->wait(50);
        lock.unlock();
    }
    thread->wait();
    return CallbackWatch::counts().callbacks == 1 || !CallbackWatch::isOn() ? 0 : 2;
}

} // namespace

class tst_CallbackWatch : public QObject
{
    Q_OBJECT

private slots:
    void program_ends_byWhatItsCallbacksDid_data();
    void program_ends_byWhatItsCallbacksDid();
};

void tst_CallbackWatch::program_ends_byWhatItsCallbacksDid_data()
{
    QTest::addColumn<QByteArray>("way");
    QTest::addColumn<bool>("fails");
    QTest::newRow("clean") << QByteArray("clean") << false;
    QTest::newRow("a call before the mark") << QByteArray("outside") << false;
    QTest::newRow("a call under the mark") << QByteArray("call") << true;
    QTest::newRow("a wait for the update lock") << QByteArray("contended") << false;
}

void tst_CallbackWatch::program_ends_byWhatItsCallbacksDid()
{
    QFETCH(QByteArray, way);
    QFETCH(bool, fails);
    const bool seen = fails && CallbackWatch::isOn() && RealtimeGuard::seesSystemCalls;
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {"--misbehave", way});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), seen ? 1 : 0);
    const QByteArray said = process.readAllStandardError();
    QCOMPARE(said.contains("FAIL!  : 1 forbidden calls inside audio callbacks, the first:\n"
                           "system call (110)"),
             seen);
}

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--misbehave") == 0)
        return misbehave(argv[2]);
    QCoreApplication application(argc, argv);
    tst_CallbackWatch test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_callback_watch.moc"
