// SPDX-License-Identifier: MIT
#include "rtaudio_fixture.h"

using QTovelMixer::DeviceKind;
using QTovelMixer::Jack;

class tst_RtAudioJack : public QObject
{
    Q_OBJECT

private slots:
    void device_isListed();
    void update_adoptsNewPorts();
    void stream_takesTheServersRateAndSize_data();
    void stream_takesTheServersRateAndSize();
    void ramp_arrivesWhole_overAConnectionToItself_data();
    void ramp_arrivesWhole_overAConnectionToItself();
};

void tst_RtAudioJack::device_isListed()
{
    JackServer server(44100, 256, 4);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Duplex);
    QVERIFY(session.api->updateDeviceList());
    QCOMPARE(session.engine->devices().size(), 1);
    const QTovelMixer::Device *device = session.engine->devices().first();
    QCOMPARE(device->name(), QStringLiteral("system"));
    QCOMPARE(device->numInputChannels(), 4u);
    QCOMPARE(device->numOutputChannels(), 4u);
    QVERIFY(device->isDefaultInput());
    QVERIFY(device->isDefaultOutput());
    QCOMPARE(device->sampleRates(), QList<unsigned>{44100});
}

// A client that comes back under its name may have other ports.
void tst_RtAudioJack::update_adoptsNewPorts()
{
    JackServer server;
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Playback);
    QTovelMixerApiRtAudio other(Jack, QStringLiteral("other"), {}, 512);
    QVERIFY(other.updateDeviceList());
    QTovelMixer::Device *system = other.defaultDevice(DeviceKind::Output);
    const auto ports = [&session](DeviceKind kind) {
        session.api->updateDeviceList();
        QTovelMixer::Device *device = session.device(kind, QStringLiteral("other"));
        return device ? std::pair(device->numInputChannels(), device->numOutputChannels())
                      : std::pair(0u, 0u);
    };
    QVERIFY(other.open(system, nullptr, 48000));
    QCOMPARE(ports(DeviceKind::Input), std::pair(2u, 0u));
    QVERIFY(other.close());
    QVERIFY(other.open(system, system, 48000));
    QCOMPARE(ports(DeviceKind::Input), std::pair(2u, 2u));
    QVERIFY(other.close());
    QVERIFY(other.open(nullptr, system, 48000));
    QCOMPARE(ports(DeviceKind::Output), std::pair(0u, 2u));
    QVERIFY(other.close());
}

void tst_RtAudioJack::stream_takesTheServersRateAndSize_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("frames");
    QTest::newRow("playback") << int(RtAudioSession::Playback) << 44100 << 64;
    QTest::newRow("capture") << int(RtAudioSession::Capture) << 48000 << 1024;
    QTest::newRow("duplex") << int(RtAudioSession::Duplex) << 48000 << 4096;
}

void tst_RtAudioJack::stream_takesTheServersRateAndSize()
{
    QFETCH(int, direction);
    QFETCH(int, rate);
    QFETCH(int, frames);
    JackServer server(rate, frames);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Direction(direction), 512);
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->bufferFrames(), unsigned(frames));
    QCOMPARE(session.engine->sampleRate(), unsigned(rate));
    QCOMPARE(session.engine->numOutputChannels(), direction == RtAudioSession::Capture ? 0u : 2u);
    QCOMPARE(session.engine->numInputChannels(), direction == RtAudioSession::Playback ? 0u : 2u);
    QVERIFY(session.play());
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

void tst_RtAudioJack::ramp_arrivesWhole_overAConnectionToItself_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("channels");
    QTest::newRow("44100 Hz, 64 frames") << 44100 << 64 << 2;
    QTest::newRow("48000 Hz, 256 frames") << 48000 << 256 << 2;
    QTest::newRow("48000 Hz, 4096 frames") << 48000 << 4096 << 2;
    QTest::newRow("48000 Hz, 512 frames, 8 channels") << 48000 << 512 << 8;
}

void tst_RtAudioJack::ramp_arrivesWhole_overAConnectionToItself()
{
    QFETCH(int, rate);
    QFETCH(int, frames);
    QFETCH(int, channels);
    JackServer server(rate, frames, channels);
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Jack, RtAudioSession::Duplex);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play(channels));
    // The last one first: a frame whose channels do not all arrive would count as wrong.
    for (int channel = channels - 1; channel >= 0; --channel)
        QVERIFY2(server.connectPorts(QStringLiteral("test:outport %1").arg(channel),
                                     QStringLiteral("test:inport %1").arg(channel)),
                 qPrintable(server.report()));
    const qint64 wanted = session.take->frames() + 2 * rate;
    QVERIFY(session.wait([&] { return session.take->frames() > wanted; }));
    const auto status = session.api->streamStatus();

    const std::vector<float> samples = session.take->samples();
    // Channel 0 is the last to be connected.
    size_t begin = 0;
    while (begin < samples.size() && samples[begin] == 0.0f)
        begin += size_t(channels);
    QVERIFY(begin < samples.size());
    const Arrival arrival(std::vector<float>(samples.begin() + qptrdiff(begin), samples.end()),
                          channels);
    QVERIFY2(arrival.mismatch.isEmpty(), qPrintable(arrival.mismatch));
    QVERIFY(arrival.frames > rate);
    QCOMPARE(arrival.gaps, 0);
    // What is played in one block is recorded in the next.
    const qint64 delay = qint64(begin) / channels - arrival.first;
    QCOMPARE((delay % Ramp::frameCycle + Ramp::frameCycle) % Ramp::frameCycle, frames);
    qInfo("RAMP | Jack | %d Hz | %d frames | %d channels | %lld frames, none lost or doubled | "
          "arrives after %d frames, told %u + %u to the server's devices and back",
          rate, frames, channels, static_cast<long long>(arrival.frames), frames,
          status.outputLatency, status.inputLatency);
    QVERIFY(session.rest());
    QCOMPARE(session.failures, 0);
}

RTAUDIO_TEST_MAIN(tst_RtAudioJack)
#include "tst_rtaudio_jack.moc"
