// SPDX-License-Identifier: MIT
#include <support/sound_server.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtTest/QTest>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// A server that never answers.
class BrokenServer : public SoundServer
{
public:
    BrokenServer(const QString &program, const QStringList &arguments)
        : m_program(program), m_arguments(arguments)
    {}
    ~BrokenServer() override = default;

    bool start() override
    {
        return launch(m_program, m_arguments) && waitFor(QStringLiteral("false"), {});
    }

private:
    QString m_program;
    QStringList m_arguments;
};

} // namespace

class tst_SoundServer : public QObject
{
    Q_OBJECT

private slots:
    void environment_isBack_afterwards();
    void leftovers_areRemoved_unlessMapped();
    void program_ends_withItsObject_alsoFrozen();
    void program_dies_withATestThatCrashes();
    void program_thatCannotStart_isReported();
    void pulse_listsItsSinks_andLoadsMore();
    void pulse_startsAgain_afterAKill();
    void pulse_startsWithoutSinks();
    void alsa_plays_intoTheServer();
    void pipewire_showsItsSink_onBothFaces();
    void jack_connectsPorts_andChangesItsPeriod();
    void jack_startsAgain_afterAKill();
};

void tst_SoundServer::leftovers_areRemoved_unlessMapped()
{
    const QTemporaryDir place;
    const QString folder = place.filePath(QStringLiteral("shared"));
    QVERIFY(removeUnlessMapped(folder)); // there is none
    QVERIFY(QDir().mkdir(folder));
    QFile file(folder + QStringLiteral("/locks"));
    QVERIFY(file.open(QIODevice::ReadWrite) && file.resize(4096));
    uchar *const mapped = file.map(0, 4096);
    QVERIFY(mapped);
    QVERIFY(!removeUnlessMapped(folder));
    QVERIFY(file.exists());
    QVERIFY(file.unmap(mapped));
    QVERIFY(removeUnlessMapped(folder));
    QVERIFY(!QFile::exists(folder));
}

void tst_SoundServer::environment_isBack_afterwards()
{
    qputenv("PULSE_SINK", "mine");
    const QByteArray home = qgetenv("HOME");
    {
        PulseServer server({});
        QVERIFY(!qEnvironmentVariableIsSet("PULSE_SINK"));
        QVERIFY(qgetenv("HOME") != home);
        QVERIFY(qEnvironmentVariableIsSet("PULSE_SERVER"));
    }
    QCOMPARE(qgetenv("PULSE_SINK"), QByteArray("mine"));
    QCOMPARE(qgetenv("HOME"), home);
    QVERIFY(!qEnvironmentVariableIsSet("PULSE_SERVER"));
    qunsetenv("PULSE_SINK");
}

void tst_SoundServer::program_ends_withItsObject_alsoFrozen()
{
    const QTemporaryDir folder;
    qint64 pid = 0;
    {
        ServerProcess process(folder.filePath(QStringLiteral("log")));
        QVERIFY(process.start(QStringLiteral("sleep"), {QStringLiteral("1000")}));
        QVERIFY(process.isRunning());
        pid = process.pid();
        process.freeze();
        process.thaw();
        process.freeze();
    }
    QVERIFY(pid > 0);
    QCOMPARE(::kill(pid_t(pid), 0), -1);
}

void tst_SoundServer::program_dies_withATestThatCrashes()
{
    const QTemporaryDir folder;
    int pipe[2];
    QCOMPARE(::pipe(pipe), 0);
    const pid_t test = ::fork();
    if (test == 0) {
        ServerProcess process(folder.filePath(QStringLiteral("log")));
        process.start(QStringLiteral("sleep"), {QStringLiteral("1000")});
        const qint64 pid = process.pid();
        if (::write(pipe[1], &pid, sizeof(pid)) == sizeof(pid))
            ::kill(::getpid(), SIGKILL);
        ::_exit(1);
    }
    qint64 pid = 0;
    QCOMPARE(::read(pipe[0], &pid, sizeof(pid)), ssize_t(sizeof(pid)));
    ::close(pipe[0]);
    ::close(pipe[1]);
    int status = 0;
    QCOMPARE(::waitpid(test, &status, 0), test);
    QVERIFY(WIFSIGNALED(status));
    QVERIFY(pid > 0);
    const auto isOver = [pid] {
        QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
        return !file.open(QIODevice::ReadOnly) || file.readAll().contains(") Z");
    };
    QTRY_VERIFY(isOver());
}

void tst_SoundServer::program_thatCannotStart_isReported()
{
    BrokenServer missing(QStringLiteral("/nowhere/server"), {});
    QVERIFY(!missing.start());
    QVERIFY(missing.report().contains(QStringLiteral("/nowhere/server cannot be started")));

    BrokenServer complaining(QStringLiteral("sh"),
                             {QStringLiteral("-c"), QStringLiteral("echo no card; exit 1")});
    QVERIFY(!complaining.start());
    QVERIFY2(complaining.report().contains(QStringLiteral("no card")),
             qPrintable(complaining.report()));
}

void tst_SoundServer::pulse_listsItsSinks_andLoadsMore()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(server.sinks(), QStringList{QStringLiteral("null1")});
    const int module = server.loadSink({QStringLiteral("null2"), QStringLiteral("NULL2")});
    QVERIFY2(module >= 0, qPrintable(server.report()));
    QCOMPARE(server.sinks(), (QStringList{QStringLiteral("null1"), QStringLiteral("null2")}));

    QString information;
    QVERIFY(server.setDefaultSink(QStringLiteral("null2")));
    QVERIFY(server.setDefaultSource(QStringLiteral("null1.monitor")));
    QVERIFY(server.run(QStringLiteral("pactl"), {QStringLiteral("info")}, &information));
    QVERIFY(information.contains(QStringLiteral("Default Sink: null2")));
    QVERIFY(information.contains(QStringLiteral("Default Source: null1.monitor")));

    QVERIFY(server.unload(module));
    QCOMPARE(server.sinks(), QStringList{QStringLiteral("null1")});
    QVERIFY(!server.unload(module));
    QVERIFY(server.report().contains(QStringLiteral("unload-module")));
}

void tst_SoundServer::pulse_startsAgain_afterAKill()
{
    PulseServer server(PulseServer::twoSinks());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const qint64 first = server.pid();
    server.kill();
    QVERIFY(!server.isRunning());
    QVERIFY(!server.run(QStringLiteral("pactl"), {QStringLiteral("info")}));
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(server.pid() != first);
    QCOMPARE(server.sinks().size(), 2);
    server.freeze();
    server.thaw();
    QCOMPARE(server.sinks().size(), 2);
    server.terminate();
    QVERIFY(!server.isRunning());
}

void tst_SoundServer::pulse_startsWithoutSinks()
{
    PulseServer server({});
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(server.sinks().isEmpty());
}

void tst_SoundServer::alsa_plays_intoTheServer()
{
    AlsaServer server;
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY2(server.run(QStringLiteral("aplay"),
                        {QStringLiteral("-q"), QStringLiteral("-d"), QStringLiteral("1"),
                         QStringLiteral("-f"), QStringLiteral("dat"), QStringLiteral("/dev/zero")}),
             qPrintable(server.report()));
}

void tst_SoundServer::pipewire_showsItsSink_onBothFaces()
{
    PipeWireServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(server.sinks(), QStringList{QStringLiteral("null1")});
    QString ports;
    QVERIFY2(server.run(QStringLiteral("pw-jack"), {QStringLiteral("jack_lsp")}, &ports),
             qPrintable(server.report()));
    QVERIFY2(ports.contains(QStringLiteral("NULL1")), qPrintable(ports));
    QString settings;
    QVERIFY2(server.forceQuantum(256), qPrintable(server.report()));
    QVERIFY(server.run(QStringLiteral("pw-metadata"),
                       {QStringLiteral("-n"), QStringLiteral("settings")}, &settings));
    QVERIFY2(settings.contains(QStringLiteral("key:'clock.force-quantum' value:'256'")),
             qPrintable(settings));
    server.kill();
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(server.sinks(), QStringList{QStringLiteral("null1")});
}

void tst_SoundServer::jack_connectsPorts_andChangesItsPeriod()
{
    JackServer server(44100, 256);
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(server.ports().size(), 4);
    const QString out = QStringLiteral("system:capture_1");
    const QString in = QStringLiteral("system:playback_1");
    QVERIFY2(server.connectPorts(out, in), qPrintable(server.report()));
    QVERIFY(!server.connectPorts(out, in));
    QVERIFY2(server.disconnectPorts(out, in), qPrintable(server.report()));
    QString period;
    QVERIFY2(server.setPeriod(1024), qPrintable(server.report()));
    QVERIFY(server.run(QStringLiteral("jack_bufsize"), {}, &period));
    QVERIFY2(period.contains(QStringLiteral("1024")), qPrintable(period));
    QVERIFY2(server.setFreewheel(true), qPrintable(server.report()));
    QVERIFY2(server.setFreewheel(false), qPrintable(server.report()));
}

void tst_SoundServer::jack_startsAgain_afterAKill()
{
    JackServer server;
    QVERIFY2(server.start(), qPrintable(server.report()));
    server.kill();
    QVERIFY(!server.isRunning());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(server.ports().size(), 4);
}

QTEST_GUILESS_MAIN(tst_SoundServer)
#include "tst_sound_server.moc"
