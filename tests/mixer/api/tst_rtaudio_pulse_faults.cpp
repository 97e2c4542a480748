// SPDX-License-Identifier: MIT
#include "rtaudio_faults.h"

using QTovelMixer::Pulse;

class tst_RtAudioPulseFaults : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void fault_isSurvived_data();
    void fault_isSurvived();
    void engine_findsNothing_onAServerWithoutSinks();

private:
    std::unique_ptr<PulseServer> m_server;
    int m_module = -1;
};

void tst_RtAudioPulseFaults::init()
{
    m_server.reset();
    m_server = std::make_unique<PulseServer>(QList<PulseServer::Sink>{});
    QVERIFY2(m_server->start(), qPrintable(m_server->report()));
    m_module = m_server->loadSink(PulseServer::oneSink().first());
    QVERIFY2(m_module >= 0, qPrintable(m_server->report()));
}

void tst_RtAudioPulseFaults::fault_isSurvived_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<QString>("fault");
    for (const auto direction :
         {RtAudioSession::Playback, RtAudioSession::Capture, RtAudioSession::Duplex}) {
        for (const char *fault : {"killed", "frozen and thawed"}) {
            QTest::addRow("%s, %s", fault, qPrintable(directionName(direction)))
                << int(direction) << QString::fromLatin1(fault);
        }
    }
    for (const char *fault :
         {"terminated", "frozen, then killed", "sink unloaded, another exists",
          "sink unloaded, no other", "killed while open", "frozen while open"}) {
        QTest::addRow("%s, playback", fault)
            << int(RtAudioSession::Playback) << QString::fromLatin1(fault);
    }
    QTest::newRow("sink unloaded, no other, duplex")
        << int(RtAudioSession::Duplex) << QStringLiteral("sink unloaded, no other");
}

void tst_RtAudioPulseFaults::fault_isSurvived()
{
    QFETCH(int, direction);
    QFETCH(QString, fault);
    const auto reload = [this] { return m_server->loadSink(PulseServer::oneSink().first()) >= 0; };
    const auto restart = [this, reload] { return m_server->start() && reload(); };
    const auto unload = [this] { m_server->unload(m_module); };

    Fault row = serverFault(fault, direction, *m_server, restart);
    if (fault == QLatin1String("sink unloaded, another exists")) {
        QVERIFY(m_server->loadSink(PulseServer::twoSinks().last()) >= 0);
        row.outcome = Fault::GoesOn;
        row.happen = unload;
    } else if (fault == QLatin1String("sink unloaded, no other")) {
        row.happen = unload;
        row.heal = reload;
    }
    // A connection that is still open tells of its server's end.
    if (fault == QLatin1String("frozen, then killed"))
        row.mayFollow = 1;
    QVERIFY(row.happen);
    runFault(Pulse, row);
}

void tst_RtAudioPulseFaults::engine_findsNothing_onAServerWithoutSinks()
{
    QVERIFY(m_server->unload(m_module));
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    session.timed([&] { session.engine->doDeviceListUpdate(); });
    QVERIFY(session.engine->devices().isEmpty());
    QCoreApplication::processEvents();
    QVERIFY(!session.api->isOpen());

    QVERIFY(m_server->loadSink(PulseServer::oneSink().first()) >= 0);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

RTAUDIO_TEST_MAIN(tst_RtAudioPulseFaults)
#include "tst_rtaudio_pulse_faults.moc"
