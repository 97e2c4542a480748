// SPDX-License-Identifier: MIT
// PipeWire through its PulseAudio face.
#include "rtaudio_faults.h"

using QTovelMixer::DeviceKind;
using QTovelMixer::Pulse;

class tst_RtAudioPipeWire : public QObject
{
    Q_OBJECT

private slots:
    void ramp_arrivesWhole_fromTheMonitor();
    void stream_goesOn_whenTheBlockSizeChanges();
    void fault_isSurvived_data();
    void fault_isSurvived();
};

void tst_RtAudioPipeWire::ramp_arrivesWhole_fromTheMonitor()
{
    PipeWireServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Duplex, 512);
    const auto record = [&session] {
        const bool recorded = session.openDefaults() && session.engine->numOutputChannels() == 2 &&
                              session.play() &&
                              session.wait([&] { return session.take->frames() > 2 * 48000; });
        return Arrival(recorded ? session.take->samples() : std::vector<float>(), 2);
    };
    // On a machine under load the server now and then runs dry, drops what comes too late, and
    // tells so.
    Arrival arrival = record();
    for (int more = 4; more > 0 && session.api->streamStatus().underflows > 0; --more) {
        QVERIFY(session.rest());
        arrival = record();
    }
    QVERIFY2(arrival.mismatch.isEmpty(), qPrintable(arrival.mismatch));
    QVERIFY(arrival.frames > 48000);
    QVERIFY2(arrival.gaps < arrival.frames / 20, qPrintable(QString::number(arrival.gaps)));
    qInfo(
        "RAMP | PipeWire | 48000 Hz | 512 frames | 2 channels | %lld frames, none lost or doubled, "
        "%lld frames of silence between | arrives after %lld frames",
        static_cast<long long>(arrival.frames), static_cast<long long>(arrival.gaps),
        static_cast<long long>(arrival.silence));
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

void tst_RtAudioPipeWire::stream_goesOn_whenTheBlockSizeChanges()
{
    PipeWireServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Duplex, 512);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    for (const int frames : {256, 2048}) {
        QVERIFY2(server.forceQuantum(frames), qPrintable(server.report()));
        QVERIFY(session.goesOn(100));
    }
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

void tst_RtAudioPipeWire::fault_isSurvived_data()
{
    QTest::addColumn<QString>("fault");
    for (const char *fault : {"killed", "terminated", "frozen and thawed"})
        QTest::newRow(fault) << QString::fromLatin1(fault);
}

void tst_RtAudioPipeWire::fault_isSurvived()
{
    QFETCH(QString, fault);
    PipeWireServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    Fault row;
    row.name = fault + QStringLiteral(" (PipeWire)");
    row.lostWithin = 300;
    row.heal = [&] { return server.start(); };
    if (fault == QLatin1String("killed")) {
        row.happen = [&] { server.kill(); };
    } else if (fault == QLatin1String("terminated")) {
        row.happen = [&] { server.terminate(); };
    } else {
        row.outcome = Fault::Stops;
        row.happen = [&] { server.freeze(); };
        row.heal = [&] {
            server.thaw();
            return true;
        };
    }
    runFault(Pulse, row);
}

RTAUDIO_TEST_MAIN(tst_RtAudioPipeWire)
#include "tst_rtaudio_pipewire.moc"
