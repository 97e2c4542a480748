// SPDX-License-Identifier: MIT
// What the library does to the process around it.
#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <support/ramp_source.h>
#include <support/rtguard.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <map>

#if defined(Q_OS_UNIX)
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

using namespace QTovelMixer;

namespace {

/// An engine with an open device.
struct Desk
{
    Desk() : api(new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime)), engine(api)
    {
        api->plug({.name = "Speaker", .outputChannels = 2, .defaultOutput = true});
        api->updateDeviceList();
        engine.activate();
    }
    ~Desk() { engine.deactivate(); }
    Q_DISABLE_COPY_MOVE(Desk)

    bool play()
    {
        auto *source = new RampSource(&engine, 48000, 2, 1000.0);
        return engine.addSource(source) && engine.start();
    }

    QTovelMixerApiVirtual *api;
    Engine engine;
};

#if defined(Q_OS_UNIX)
/// Runs as a program of its own.
int forkWhilePlaying()
{
    Desk desk;
    if (!desk.play())
        return 1;
    const pid_t child = fork();
    if (child == 0)
        exit(0);
    int status = -1;
    for (int i = 0; i < 1000 && waitpid(child, &status, WNOHANG) == 0; ++i)
        QThread::msleep(10);
    if (status == 0)
        return 0;
    kill(child, SIGKILL);
    return 2;
}
#endif

/// How often each thread but the calling one has gone to sleep, by its number.
std::map<QString, qint64> sleeps()
{
    std::map<QString, qint64> counts;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile status(tasks.filePath(task + QStringLiteral("/status")));
        if (task == QString::number(QCoreApplication::applicationPid()) ||
            !status.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("voluntary_ctxt_switches:"))
                counts[task] = line.mid(24).trimmed().toLongLong();
        }
    }
    return counts;
}

} // namespace

class tst_Process : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void forkedChild_ends_whileAnEnginePlays();
    void idleEngine_lets_theProcessorSleep();
};

void tst_Process::forkedChild_ends_whileAnEnginePlays()
{
#if defined(Q_OS_UNIX)
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--fork")});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
#endif
}

// The contract is 2 wake-ups a second.
void tst_Process::idleEngine_lets_theProcessorSleep()
{
#if defined(QTOVELMIXER_GUARD_LEFT_OUT)
    QSKIP("a sanitizer has a thread of its own");
#endif
#if defined(Q_OS_LINUX)
    Desk desk;
    QVERIFY(desk.engine.isActive());
    qint64 least = 1000000;
    for (int second = 0; second < 20 && least > 10; ++second) {
        const std::map<QString, qint64> before = sleeps();
        QTest::qWait(1000);
        qint64 sum = 0;
        for (const auto &[thread, count] : sleeps()) {
            const auto known = before.find(thread);
            sum += count - (known != before.end() ? known->second : 0);
        }
        least = std::min(least, sum);
    }
    QVERIFY2(least <= 10, qPrintable(QString::number(least)));
#endif
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
#if defined(Q_OS_UNIX)
    if (argc > 1 && qstrcmp(argv[1], "--fork") == 0)
        return forkWhilePlaying();
#endif
    tst_Process test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_process.moc"
