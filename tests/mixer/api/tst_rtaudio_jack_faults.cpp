// SPDX-License-Identifier: MIT
#include "rtaudio_faults.h"

using QTovelMixer::Jack;

class tst_RtAudioJackFaults : public QObject
{
    Q_OBJECT

private slots:
    void fault_isSurvived_data();
    void fault_isSurvived();
    void engine_playsAtTheNewSize_afterAChange();
    void engine_findsNothing_withoutServer();
};

void tst_RtAudioJackFaults::fault_isSurvived_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<QString>("fault");
    for (const auto direction :
         {RtAudioSession::Playback, RtAudioSession::Capture, RtAudioSession::Duplex}) {
        for (const char *fault : {"killed", "buffer size changed"}) {
            QTest::addRow("%s, %s", fault, qPrintable(directionName(direction)))
                << int(direction) << QString::fromLatin1(fault);
        }
    }
    for (const char *fault : {"terminated", "frozen and thawed", "frozen, then killed",
                              "killed while open", "frozen while open"}) {
        QTest::addRow("%s, duplex", fault)
            << int(RtAudioSession::Duplex) << QString::fromLatin1(fault);
    }
}

void tst_RtAudioJackFaults::fault_isSurvived()
{
    QFETCH(int, direction);
    QFETCH(QString, fault);
    JackServer server;
    QVERIFY2(server.start(), qPrintable(server.report()));
    Fault row = serverFault(fault, direction, server, [&] { return server.start(); });
    if (fault == QLatin1String("buffer size changed"))
        row.happen = [&] { QVERIFY2(server.setPeriod(1024), qPrintable(server.report())); };
    QVERIFY(row.happen);
    runFault(Jack, row);
}

void tst_RtAudioJackFaults::engine_playsAtTheNewSize_afterAChange()
{
    JackServer server(48000, 512);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Duplex, 256);
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->bufferFrames(), 512u);
    QVERIFY(session.play());
    QVERIFY2(server.setPeriod(128), qPrintable(server.report()));
    QVERIFY(session.wait([&] { return session.failures == 1; }));
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->bufferFrames(), 128u);
    QVERIFY(session.play());
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 1);
}

void tst_RtAudioJackFaults::engine_findsNothing_withoutServer()
{
    JackServer server;
    RtAudioSession session(Jack, RtAudioSession::Duplex);
    session.timed([&] { session.engine->doDeviceListUpdate(); });
    QVERIFY(session.engine->devices().isEmpty());
    QCoreApplication::processEvents();
    QVERIFY(!session.api->isOpen());

    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
}

RTAUDIO_TEST_MAIN(tst_RtAudioJackFaults)
#include "tst_rtaudio_jack_faults.moc"
