// SPDX-License-Identifier: MIT
#include "rtaudio_faults.h"

using QTovelMixer::Alsa;
using QTovelMixer::DeviceKind;

class tst_RtAudioAlsa : public QObject
{
    Q_OBJECT

private slots:
    void fault_isSurvived_data();
    void fault_isSurvived();
};

void tst_RtAudioAlsa::fault_isSurvived_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<QString>("fault");
    for (const auto direction :
         {RtAudioSession::Playback, RtAudioSession::Capture, RtAudioSession::Duplex}) {
        QTest::addRow("killed, %s", qPrintable(directionName(direction)))
            << int(direction) << QStringLiteral("killed");
    }
    for (const char *fault :
         {"terminated", "frozen and thawed", "frozen, then killed", "sink unloaded, another exists",
          "sink unloaded, no other", "killed while open", "frozen while open"}) {
        QTest::addRow("%s, playback", fault)
            << int(RtAudioSession::Playback) << QString::fromLatin1(fault);
    }
}

void tst_RtAudioAlsa::fault_isSurvived()
{
    QFETCH(int, direction);
    QFETCH(QString, fault);
    AlsaServer server{QList<PulseServer::Sink>()};
    QVERIFY2(server.start(), qPrintable(server.report()));
    const PulseServer::Sink sink = PulseServer::oneSink().first();
    const int module = server.loadSink(sink);
    QVERIFY2(module >= 0, qPrintable(server.report()));
    const auto reload = [&] { return server.loadSink(sink) >= 0; };
    const auto restart = [&] { return server.start() && reload(); };
    const auto unload = [&] { server.unload(module); };

    Fault row = serverFault(fault, direction, server, restart);
    // libpulse now and then waits for itself, with its lock held, when its connection ends.
    row.mayHang = row.outcome == Fault::Lost;
    if (fault == QLatin1String("sink unloaded, another exists")) {
        QVERIFY(server.loadSink(PulseServer::twoSinks().last()) >= 0);
        row.outcome = Fault::GoesOn;
        row.happen = unload;
    } else if (fault == QLatin1String("sink unloaded, no other")) {
        row.happen = unload;
        row.heal = reload;
    }
    QVERIFY(row.happen);
    runFault(Alsa, row);
}

RTAUDIO_TEST_MAIN(tst_RtAudioAlsa)
#include "tst_rtaudio_alsa.moc"
