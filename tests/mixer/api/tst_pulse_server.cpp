// SPDX-License-Identifier: MIT
// The question to a PulseAudio server, on real ones.
#include <mixer/api/pulse_server_p.h>

#include <support/sound_server.h>

#include <QtCore/QElapsedTimer>
#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_PulseServer : public QObject
{
    Q_OBJECT

private slots:
    void state_isReady_withASink();
    void state_isNoDefaults_withoutSinks();
    void state_isNoServer_whenNobodyListens();
    void state_isNoAnswer_whenTheServerIsFrozen();
};

void tst_PulseServer::state_isReady_withASink()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(pulseServerState(5000), PulseServerState::Ready);
}

void tst_PulseServer::state_isNoDefaults_withoutSinks()
{
    PulseServer server({});
    QVERIFY2(server.start(), qPrintable(server.report()));
    QCOMPARE(pulseServerState(5000), PulseServerState::NoDefaults);
}

void tst_PulseServer::state_isNoServer_whenNobodyListens()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    server.kill();
    QCOMPARE(pulseServerState(5000), PulseServerState::NoServer);
}

void tst_PulseServer::state_isNoAnswer_whenTheServerIsFrozen()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    server.freeze();
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(pulseServerState(300), PulseServerState::NoAnswer);
    QVERIFY(clock.elapsed() >= 300);
    server.thaw();
    QCOMPARE(pulseServerState(5000), PulseServerState::Ready);
}

QTEST_GUILESS_MAIN(tst_PulseServer)
#include "tst_pulse_server.moc"
