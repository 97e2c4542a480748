// SPDX-License-Identifier: MIT
#include "rtaudio_fixture.h"

#include <support/callback_watch.h>

#include <mixer/api/rtaudio_device.h>

using QTovelMixer::DeviceKind;
using QTovelMixer::Pulse;

class tst_RtAudioPulse : public QObject
{
    Q_OBJECT

private slots:
    void devices_areListed();
    void stream_opens_inEveryDirection_data();
    void stream_opens_inEveryDirection();
    void ramp_arrivesWhole_fromTheMonitor_data();
    void ramp_arrivesWhole_fromTheMonitor();
    void firstClient_isNotStopped_onASinkThatRests();
    void client_bearsTheNameOfItsHost();
};

void tst_RtAudioPulse::devices_areListed()
{
    PulseServer server({{QStringLiteral("a"), QStringLiteral("A"), 44100, 2},
                        {QStringLiteral("b"), QStringLiteral("B"), 96000, 6}});
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(server.setDefaultSink(QStringLiteral("b")));
    QVERIFY(server.setDefaultSource(QStringLiteral("a.monitor")));
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QVERIFY(session.api->updateDeviceList());

    QStringList found;
    for (QTovelMixer::Device *device : session.engine->devices()) {
        found.append(QStringLiteral("%1 in=%2 out=%3 default=%4%5 rate=%6")
                         .arg(device->name())
                         .arg(device->numInputChannels())
                         .arg(device->numOutputChannels())
                         .arg(int(device->isDefaultInput()))
                         .arg(int(device->isDefaultOutput()))
                         .arg(device->preferedSampleRate()));
        QVERIFY(device->sampleRates().contains(48000u));
        QVERIFY(device->isAvailable());
    }
    found.sort();
    QCOMPARE(found, (QStringList{QStringLiteral("A in=0 out=2 default=00 rate=44100"),
                                 QStringLiteral("B in=0 out=6 default=01 rate=96000"),
                                 QStringLiteral("Monitor of A in=2 out=0 default=10 rate=44100"),
                                 QStringLiteral("Monitor of B in=6 out=0 default=00 rate=96000")}));
}

void tst_RtAudioPulse::stream_opens_inEveryDirection_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<int>("frames");
    for (const auto direction :
         {RtAudioSession::Playback, RtAudioSession::Capture, RtAudioSession::Duplex}) {
        for (const int frames : {64, 1024, 4096})
            QTest::addRow("%d frames, way %d", frames, int(direction)) << int(direction) << frames;
    }
}

void tst_RtAudioPulse::stream_opens_inEveryDirection()
{
    QFETCH(int, direction);
    QFETCH(int, frames);
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Direction(direction), unsigned(frames));
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->bufferFrames(), unsigned(frames));
    QCOMPARE(session.engine->sampleRate(), 48000u);
    QCOMPARE(session.engine->numOutputChannels(), direction == RtAudioSession::Capture ? 0u : 2u);
    QCOMPARE(session.engine->numInputChannels(), direction == RtAudioSession::Playback ? 0u : 2u);
    QVERIFY(session.play());
    QTRY_COMPARE(session.api->streamStatus().schedulingClass,
                 QTovelMixerApiRtAudio::NormalScheduling);
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

void tst_RtAudioPulse::ramp_arrivesWhole_fromTheMonitor_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("channels");
    QTest::newRow("44100 Hz, 256 frames") << 44100 << 256 << 2;
    QTest::newRow("48000 Hz, 64 frames") << 48000 << 64 << 2;
    QTest::newRow("48000 Hz, 4096 frames") << 48000 << 4096 << 2;
    QTest::newRow("48000 Hz, 512 frames, 6 channels") << 48000 << 512 << 6;
}

void tst_RtAudioPulse::ramp_arrivesWhole_fromTheMonitor()
{
    QFETCH(int, rate);
    QFETCH(int, frames);
    QFETCH(int, channels);
    PulseServer server({{QStringLiteral("null1"), QStringLiteral("NULL1"), rate, channels}});
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Duplex, unsigned(frames));
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->sampleRate(), unsigned(rate));
    const CallbackWatch::Counts before = CallbackWatch::counts();
    QVERIFY(session.play(channels));
    const qint64 wanted = 2 * rate;
    QVERIFY(session.wait([&] { return session.take->frames() > wanted; }));
    const auto status = session.api->streamStatus();
    const CallbackWatch::Counts after = CallbackWatch::counts();
    QCOMPARE(after.callbacks > before.callbacks, CallbackWatch::isOn());
    QCOMPARE(after.pageFaults, before.pageFaults);

    const Arrival arrival(session.take->samples(), channels);
    QVERIFY2(arrival.mismatch.isEmpty(), qPrintable(arrival.mismatch));
    QCOMPARE(arrival.first, 0);
    QVERIFY(arrival.frames > rate);
    qInfo(
        "RAMP | Pulse | %d Hz | %d frames | %d channels | %lld frames, none lost or doubled, %lld "
        "frames of silence between | arrives after %lld frames, told %u + %u",
        rate, frames, channels, static_cast<long long>(arrival.frames),
        static_cast<long long>(arrival.gaps), static_cast<long long>(arrival.silence),
        status.outputLatency, status.inputLatency);
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

// It keeps its first client waiting for two seconds, which is no reason to give up.
void tst_RtAudioPulse::firstClient_isNotStopped_onASinkThatRests()
{
    PulseServer server(PulseServer::oneSink(), false);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.goesOn(200));
    QCOMPARE(session.failures, 0);
    QCOMPARE(session.stops, 0);
    QVERIFY(session.rest());
}

void tst_RtAudioPulse::client_bearsTheNameOfItsHost()
{
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    const auto isShown = [&server](const QString &client) {
        QString clients;
        server.run(QStringLiteral("pactl"), {QStringLiteral("list"), QStringLiteral("clients")},
                   &clients);
        return clients.contains(QStringLiteral("application.name = \"%1\"").arg(client));
    };
    QCoreApplication::setApplicationName(QStringLiteral("An Editor"));
    const auto open = [](QTovelMixerApiRtAudio &api) {
        return api.updateDeviceList() &&
               api.open(api.defaultDevice(DeviceKind::Output), nullptr, 48000);
    };
    {
        QTovelMixerApiRtAudio unnamed(Pulse, {}, 512);
        QVERIFY(open(unnamed));
        QVERIFY(isShown(QStringLiteral("An Editor")));
    }
    QTovelMixerApiRtAudio named(Pulse, QStringLiteral("Second Output"), {}, 512);
    QVERIFY(open(named));
    QVERIFY(isShown(QStringLiteral("Second Output")));
    QVERIFY(!isShown(QStringLiteral("An Editor")));
}

RTAUDIO_TEST_MAIN(tst_RtAudioPulse)
#include "tst_rtaudio_pulse.moc"
