// SPDX-License-Identifier: MIT
#include "rtaudio_fixture.h"

#include <mixer/api/rtaudio_device.h>
#include <support/log_capture.h>

using QTovelMixer::Device;
using QTovelMixer::DeviceKind;
using QTovelMixer::Engine;
using QTovelMixer::Pulse;

class tst_RtAudioPulseDevices : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void update_tellsWhatCameAndWent();
    void update_runsLater_andSaysSo();
    void update_leavesTheStreamAlone_whenActive();
    void update_leavesTheStreamAlone_whenPlaying();
    void update_waitsForTheEnd_whenPlaying();
    void update_reopens_whenAskedToDeactivate();
    void recording_goesOn_whenItsSinkIsUnloaded();
    void defaults_followTheServer();
    void storedIdentity_findsItsDevice_afterNumbersChanged();
    void device_thatIsGone_doesNotOpen();
    void device_thatWasReplaced_opensAsItIs();
    void device_tellsWhatItIs();

private:
    int load(const char *name)
    {
        const QString text = QString::fromLatin1(name);
        return m_server->loadSink({text, text.toUpper()});
    }
    /// The sink that the process plays to, by the server's word.
    QString playedSink();

    std::unique_ptr<PulseServer> m_server;
};

void tst_RtAudioPulseDevices::init()
{
    m_server.reset();
    m_server = std::make_unique<PulseServer>(PulseServer::twoSinks());
    QVERIFY2(m_server->start(), qPrintable(m_server->report()));
    QVERIFY(m_server->setDefaultSink(QStringLiteral("null1")));
}

QString tst_RtAudioPulseDevices::playedSink()
{
    QString inputs;
    QString sinks;
    m_server->run(QStringLiteral("pactl"),
                  {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sink-inputs")},
                  &inputs);
    m_server->run(QStringLiteral("pactl"),
                  {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")},
                  &sinks);
    for (const QString &sink : sinks.split(u'\n')) {
        if (sink.section(u'\t', 0, 0) == inputs.section(u'\t', 1, 1))
            return sink.section(u'\t', 1, 1);
    }
    return QString();
}

void tst_RtAudioPulseDevices::update_tellsWhatCameAndWent()
{
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    QVERIFY(session.openDefaults());
    QCOMPARE(session.listChanges, 1);
    QCOMPARE(engine.devices().size(), 4);
    engine.doDeviceListUpdate();
    QCOMPARE(session.listChanges, 1);

    const int module = load("null3");
    QVERIFY(module >= 0);
    LogCapture log;
    engine.doDeviceListUpdate();
    QCOMPARE(session.listChanges, 2);
    QCOMPARE(engine.devices().size(), 6);
    Device *added = session.device(DeviceKind::Output, QStringLiteral("NULL3"));
    QVERIFY(added);
    QCOMPARE(
        log.count(QtInfoMsg, QStringLiteral("New device found: \"NULL3\" [id:%1 out in=0 out=2 "
                                            "pref=48000Hz]")
                                 .arg(added->deviceId())),
        1);
    QCOMPARE(log.countStarting(QStringLiteral("New device found:")), 2);
    QVERIFY(!log.contains(QStringLiteral("Device removed:")));
    QCOMPARE(log.count(QtInfoMsg, QStringLiteral("Update of audio device list SUCCESSFUL "
                                                 "(Pulse) !")),
             1);

    log.clear();
    QVERIFY(m_server->unload(module));
    engine.doDeviceListUpdate();
    QCOMPARE(session.listChanges, 3);
    QCOMPARE(engine.devices().size(), 4);
    QCOMPARE(log.countStarting(QStringLiteral("Device removed: \"NULL3\" [id:")), 1);
    QCOMPARE(log.countStarting(QStringLiteral("Device removed:")), 2);
    QVERIFY(!log.contains(QStringLiteral("New device found:")));
    // Hosts may keep the pointer.
    QCOMPARE(added->name(), QStringLiteral("NULL3"));
    QVERIFY(!session.api->checkDevice(added));
}

void tst_RtAudioPulseDevices::update_runsLater_andSaysSo()
{
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    int announced = 0;
    connect(&engine, &Engine::updatingDeviceList, this, [&] { ++announced; });
    QVERIFY(session.openDefaults());
    QVERIFY(load("null3") >= 0);
    engine.updateDeviceList();
    QCOMPARE(announced, 1);
    QCOMPARE(session.listChanges, 1);
    QVERIFY(session.wait([&] { return session.listChanges == 2; }));
    QVERIFY(session.device(DeviceKind::Output, QStringLiteral("NULL3")));
    QVERIFY(session.api->isOpen());
    QCOMPARE(announced, 1);
}

void tst_RtAudioPulseDevices::update_leavesTheStreamAlone_whenActive()
{
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    Engine &engine = *session.engine;
    QVERIFY(session.openDefaults());
    Device *output = engine.currentDevice(DeviceKind::Output);
    Device *input = engine.currentDevice(DeviceKind::Input);
    QVERIFY(load("null3") >= 0);
    engine.doDeviceListUpdate();
    QVERIFY(session.api->isOpen());
    QCOMPARE(engine.currentDevice(DeviceKind::Output), output);
    QCOMPARE(engine.currentDevice(DeviceKind::Input), input);
    QVERIFY(session.api->checkDevice(output));
    QVERIFY(session.play());
    QVERIFY(session.rest());
}

void tst_RtAudioPulseDevices::update_leavesTheStreamAlone_whenPlaying()
{
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(load("null3") >= 0);
    session.engine->doDeviceListUpdate();
    QVERIFY(session.device(DeviceKind::Output, QStringLiteral("NULL3")));
    QVERIFY(session.goesOn(50));
    QCOMPARE(session.stops, 0);
    QCOMPARE(session.failures, 0);
    const Arrival arrival(session.take->samples(), 2);
    QVERIFY2(arrival.mismatch.isEmpty(), qPrintable(arrival.mismatch));
    QVERIFY(arrival.frames > 0);
    QVERIFY(session.rest());
}

void tst_RtAudioPulseDevices::update_waitsForTheEnd_whenPlaying()
{
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    int announced = 0;
    connect(&engine, &Engine::updatingDeviceList, this, [&] { ++announced; });
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(load("null3") >= 0);
    engine.updateDeviceList();
    QVERIFY(session.goesOn(50));
    QCOMPARE(announced, 0);
    QVERIFY(engine.stop());
    QVERIFY(session.wait([&] { return session.listChanges == 2; }));
    QCOMPARE(announced, 1);
    QCOMPARE(session.stops, 1);
    QVERIFY(session.device(DeviceKind::Output, QStringLiteral("NULL3")));
}

void tst_RtAudioPulseDevices::update_reopens_whenAskedToDeactivate()
{
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    QVERIFY(session.openDefaults());
    QStringList told;
    connect(&engine, &Engine::deactivated, this, [&] { told += QStringLiteral("deactivated"); });
    connect(&engine, &Engine::updatingDeviceList, this,
            [&] { told += QStringLiteral("updating"); });
    connect(&engine, &Engine::deviceListChanged, this, [&] { told += QStringLiteral("changed"); });
    connect(&engine, &Engine::activated, this, [&] { told += QStringLiteral("activated"); });
    QVERIFY(load("null3") >= 0);
    QVERIFY(m_server->setDefaultSink(QStringLiteral("null3")));
    engine.updateDeviceList(true);
    QVERIFY(session.wait([&] { return told.contains(QStringLiteral("activated")); }));
    QCOMPARE(told, (QStringList{QStringLiteral("deactivated"), QStringLiteral("updating"),
                                QStringLiteral("changed"), QStringLiteral("activated")}));
    QCOMPARE(engine.currentDeviceName(DeviceKind::Output), QStringLiteral("NULL3"));
    QVERIFY(session.play());
    QCOMPARE(playedSink(), QStringLiteral("null3"));
    QVERIFY(session.rest());
}

void tst_RtAudioPulseDevices::recording_goesOn_whenItsSinkIsUnloaded()
{
    const int module = load("null3");
    QVERIFY(module >= 0);
    QVERIFY(m_server->setDefaultSink(QStringLiteral("null3")));
    QVERIFY(m_server->setDefaultSource(QStringLiteral("null3.monitor")));
    RtAudioSession session(Pulse, RtAudioSession::Capture);
    QVERIFY(session.openDefaults());
    QCOMPARE(session.engine->currentDeviceName(DeviceKind::Input),
             QStringLiteral("Monitor of NULL3"));
    QVERIFY(session.play());
    QVERIFY(m_server->unload(module));
    QVERIFY(session.goesOn(50));
    session.engine->doDeviceListUpdate();
    QVERIFY(session.goesOn(50));
    QCOMPARE(session.failures, 0);
    QVERIFY(session.rest());
}

void tst_RtAudioPulseDevices::defaults_followTheServer()
{
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    Engine &engine = *session.engine;
    const auto defaults = [&] {
        QStringList names;
        for (const Device *device : engine.devices()) {
            if (device->isDefaultOutput() || device->isDefaultInput())
                names.append(device->name());
        }
        names.sort();
        return names;
    };
    QVERIFY(m_server->setDefaultSource(QStringLiteral("null2.monitor")));
    QVERIFY(session.openDefaults());
    QCOMPARE(defaults(),
             (QStringList{QStringLiteral("Monitor of NULL2"), QStringLiteral("NULL1")}));

    QVERIFY(m_server->setDefaultSink(QStringLiteral("null2")));
    QVERIFY(m_server->setDefaultSource(QStringLiteral("null1.monitor")));
    engine.doDeviceListUpdate();
    QCOMPARE(defaults(),
             (QStringList{QStringLiteral("Monitor of NULL1"), QStringLiteral("NULL2")}));
    QCOMPARE(engine.defaultDevice(DeviceKind::Output)->name(), QStringLiteral("NULL2"));
    // The flags are part of the identity, so that a default that moves is a change.
    QCOMPARE(session.listChanges, 2);
    QCOMPARE(engine.devices().size(), 4);

    const int module = load("null3");
    QVERIFY(m_server->setDefaultSink(QStringLiteral("null3")));
    engine.doDeviceListUpdate();
    QVERIFY(defaults().contains(QStringLiteral("NULL3")));
    QVERIFY(!defaults().contains(QStringLiteral("NULL2")));
    QVERIFY(m_server->unload(module));
    engine.doDeviceListUpdate();
    QCOMPARE(defaults().size(), 2);
    QVERIFY(!defaults().contains(QStringLiteral("NULL3")));
}

void tst_RtAudioPulseDevices::storedIdentity_findsItsDevice_afterNumbersChanged()
{
    QVERIFY(load("null3") >= 0);
    QString stored;
    {
        RtAudioSession session(Pulse, RtAudioSession::Playback);
        QVERIFY(session.api->updateDeviceList());
        stored = session.device(DeviceKind::Output, QStringLiteral("NULL3"))->uniqueId();
    }
    // A server that knows the sinks in another order gives other numbers.
    m_server.reset();
    m_server = std::make_unique<PulseServer>(
        QList<PulseServer::Sink>{{QStringLiteral("null3"), QStringLiteral("NULL3")},
                                 {QStringLiteral("null2"), QStringLiteral("NULL2")}});
    QVERIFY2(m_server->start(), qPrintable(m_server->report()));
    QVERIFY(m_server->setDefaultSink(QStringLiteral("null2")));
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    QVERIFY(session.openDefaults());
    Device *found = engine.device(DeviceKind::Output, stored);
    QVERIFY(found);
    QCOMPARE(found->name(), QStringLiteral("NULL3"));
    QVERIFY(found->uniqueId() != stored);
    QCOMPARE(found->matchScore(stored), 64);

    // Every closing gives a fresh connection, with numbers of its own.
    for (const char *added : {"null4", "null5"}) {
        QVERIFY(load(added) >= 0);
        QVERIFY(session.timed([&] { return engine.select(found, nullptr, 48000); }));
        QVERIFY(session.play());
        QCOMPARE(playedSink(), QStringLiteral("null3"));
        QVERIFY(session.rest());
        QVERIFY(session.openDefaults());
        QCOMPARE(engine.currentDeviceName(DeviceKind::Output), QStringLiteral("NULL2"));
    }
}

void tst_RtAudioPulseDevices::device_thatIsGone_doesNotOpen()
{
    const int module = load("null3");
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    QVERIFY(session.openDefaults());
    Device *gone = session.device(DeviceKind::Output, QStringLiteral("NULL3"));
    QVERIFY(gone);
    QVERIFY(m_server->unload(module));
    LogCapture log;
    QVERIFY(!engine.open(gone, nullptr, 48000));
    QVERIFY(log.contains(QStringLiteral("QTovelMixerApiRtAudio::open: the device is not there any "
                                        "more")));
    QVERIFY(!session.api->isOpen());
    QVERIFY(
        engine.open(session.device(DeviceKind::Output, QStringLiteral("NULL2")), nullptr, 48000));
    QVERIFY(session.play());
    QCOMPARE(playedSink(), QStringLiteral("null2"));
    QVERIFY(session.rest());
}

// A headset that changes its profile keeps its name.
void tst_RtAudioPulseDevices::device_thatWasReplaced_opensAsItIs()
{
    const QString name = QStringLiteral("null3");
    RtAudioSession session(Pulse, RtAudioSession::Playback);
    Engine &engine = *session.engine;
    for (const int channels : {2, 6, 1, 8}) {
        const int module = m_server->loadSink({name, name.toUpper(), 48000, channels});
        QVERIFY(module >= 0);
        QVERIFY(session.timed([&] { return session.api->updateDeviceList(); }));
        Device *device = session.device(DeviceKind::Output, name.toUpper());
        QVERIFY(device);
        QCOMPARE(device->numOutputChannels(), unsigned(channels));
        QVERIFY(engine.open(device, nullptr, 48000));
        QCOMPARE(engine.numOutputChannels(), unsigned(channels));
        QVERIFY(session.api->close());
        QVERIFY(m_server->unload(module));
    }
}

void tst_RtAudioPulseDevices::device_tellsWhatItIs()
{
#if defined(QTOVELMIXER_CARRIED_RTAUDIO)
    using Names = std::vector<std::string>;
    QVERIFY(m_server->loadSink({QStringLiteral("quad"), QStringLiteral("QUAD"), 48000, 4,
                                QStringLiteral("front-left,front-right,rear-left,rear-right")}) >=
            0);
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QVERIFY(session.api->updateDeviceList());
    const auto info = [&session](DeviceKind kind, const char *name) {
        auto *device = dynamic_cast<QTovelMixerRtAudioDevice *>(
            session.device(kind, QString::fromLatin1(name)));
        return device ? device->info() : RtAudio::DeviceInfo();
    };
    const RtAudio::DeviceInfo sink = info(DeviceKind::Output, "QUAD");
    QVERIFY(!sink.isMonitor);
    QCOMPARE(sink.outputChannelNames,
             (Names{"front-left", "front-right", "rear-left", "rear-right"}));
    QVERIFY(sink.inputChannelNames.empty());
    const RtAudio::DeviceInfo monitor = info(DeviceKind::Input, "Monitor of QUAD");
    QVERIFY(monitor.isMonitor);
    QCOMPARE(monitor.inputChannelNames, sink.outputChannelNames);

    const QTovelMixer::Device *device = session.device(DeviceKind::Output, QStringLiteral("QUAD"));
    QVERIFY(device && !device->isMonitor());
    const QStringList names{"front-left", "front-right", "rear-left", "rear-right"};
    QCOMPARE(device->channelNames(DeviceKind::Output), names);
    QVERIFY(device->channelNames(DeviceKind::Input).isEmpty());
    device = session.device(DeviceKind::Input, QStringLiteral("Monitor of QUAD"));
    QVERIFY(device && device->isMonitor());
    QCOMPARE(device->channelNames(DeviceKind::Input), names);
#else
    QSKIP("the system's RtAudio does not tell");
#endif
}

RTAUDIO_TEST_MAIN(tst_RtAudioPulseDevices)
#include "tst_rtaudio_pulse_devices.moc"
