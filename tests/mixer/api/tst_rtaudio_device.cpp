// SPDX-License-Identifier: MIT
#include <mixer/api/rtaudio_device.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

using RtAudioDevice = QTovelMixerRtAudioDevice;

RtAudio::DeviceInfo makeInfo(unsigned id, const char *name, unsigned inputs, unsigned outputs)
{
    RtAudio::DeviceInfo info;
    info.ID = id;
    info.name = name;
    info.inputChannels = inputs;
    info.outputChannels = outputs;
    info.sampleRates = {44100, 96000, 48000};
    info.preferredSampleRate = 96000;
    return info;
}

} // namespace

class tst_RtAudioDevice : public QObject
{
    Q_OBJECT

private slots:
    void answers_followTheRecord();
    void channels_areAtMost32();
    void isAvailable_needsAnyChannel();
    void manufacture_isWhatStandsBeforeTheColon_data();
    void manufacture_isWhatStandsBeforeTheColon();
    void name_isUtf8();
    void uniqueId_isThePersistentForm();
    void uniqueId_countsAllChannels();
    void uniqueId_substitutesSequencesInTheName();
    void matchScore_isGraded_data();
    void matchScore_isGraded();
    void setInfo_replacesTheRecord();
    void record_tellsWhatTheDeviceIs();
};

void tst_RtAudioDevice::answers_followTheRecord()
{
    RtAudio::DeviceInfo info = makeInfo(73, "Maker: Desk", 4, 0);
    info.isDefaultInput = true;
    RtAudioDevice device(nullptr, info);
    QVERIFY(device.isValid());
    QVERIFY(device.isAvailable());
    QCOMPARE(device.fullName(), QStringLiteral("Maker: Desk"));
    QCOMPARE(device.name(), QStringLiteral("Maker: Desk"));
    QCOMPARE(device.numInputChannels(), 4u);
    QCOMPARE(device.numOutputChannels(), 0u);
    QVERIFY(device.isDefaultInput());
    QVERIFY(!device.isDefaultOutput());
    QVERIFY(!device.isDuplex());
    QVERIFY(device.canCapture(false));
    QVERIFY(device.canCapture(true));
    QVERIFY(!device.canPlayback(false));
    QCOMPARE(device.preferedSampleRate(), 96000u);
    QCOMPARE(device.sampleRates(), (QList<unsigned>{44100, 96000, 48000}));
    QCOMPARE(device.minBufferFrames(), 32u);
    QCOMPARE(device.maxBufferFrames(), 16384u);
    QCOMPARE(device.defaultBufferFrames(), 1024u);
    QCOMPARE(device.deviceId(), 73);

    info = makeInfo(74, "Desk", 0, 2);
    info.isDefaultOutput = true;
    info.duplexChannels = 2;
    device.setInfo(info);
    QVERIFY(!device.isDefaultInput());
    QVERIFY(device.isDefaultOutput());
    QVERIFY(device.isDuplex());
    QVERIFY(!device.canCapture(true));
    QVERIFY(device.canPlayback(true));
}

void tst_RtAudioDevice::channels_areAtMost32()
{
    const RtAudioDevice device(nullptr, makeInfo(1, "Desk", 40, 33));
    QCOMPARE(device.numInputChannels(), 32u);
    QCOMPARE(device.numOutputChannels(), 32u);
    const RtAudioDevice full(nullptr, makeInfo(1, "Desk", 32, 31));
    QCOMPARE(full.numInputChannels(), 32u);
    QCOMPARE(full.numOutputChannels(), 31u);
}

void tst_RtAudioDevice::isAvailable_needsAnyChannel()
{
    RtAudio::DeviceInfo info = makeInfo(1, "Desk", 0, 0);
    QVERIFY(!RtAudioDevice(nullptr, info).isAvailable());
    info.duplexChannels = 1;
    QVERIFY(RtAudioDevice(nullptr, info).isAvailable());
    QVERIFY(RtAudioDevice(nullptr, makeInfo(1, "Desk", 1, 0)).isAvailable());
    QVERIFY(RtAudioDevice(nullptr, makeInfo(1, "Desk", 0, 1)).isAvailable());
}

void tst_RtAudioDevice::manufacture_isWhatStandsBeforeTheColon_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("maker");
    QTest::newRow("maker and model") << QByteArray("Maker: Model") << "Maker";
    QTest::newRow("two colons") << QByteArray(" Maker : Line: Model") << "Maker";
    QTest::newRow("no colon") << QByteArray(" Just a name ") << " Just a name ";
    QTest::newRow("colon first") << QByteArray(":Model") << "";
}

void tst_RtAudioDevice::manufacture_isWhatStandsBeforeTheColon()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, maker);
    const RtAudioDevice device(nullptr, makeInfo(1, name.constData(), 0, 2));
    QCOMPARE(device.manufacture(), maker);
}

void tst_RtAudioDevice::name_isUtf8()
{
    const RtAudioDevice device(nullptr, makeInfo(1, "H\xc3\xb6rer", 0, 2));
    QCOMPARE(device.name(), QStringLiteral("H%1rer").arg(QChar(0xf6)));
    const RtAudioDevice broken(nullptr, makeInfo(1, "H\xff", 0, 2));
    QCOMPARE(broken.name(), QStringLiteral("H%1").arg(QChar(QChar::ReplacementCharacter)));
}

void tst_RtAudioDevice::uniqueId_isThePersistentForm()
{
    RtAudio::DeviceInfo info = makeInfo(73, "Speakers", 0, 2);
    info.isDefaultOutput = true;
    QCOMPARE(RtAudioDevice(nullptr, info).uniqueId(),
             QStringLiteral("Speakers [ 0 input / 2 output ] deviceId = 73 defaultInput = 0 "
                            "defaultOutput = 1"));
    info = makeInfo(4000000000u, "Mic", 1, 0);
    info.isDefaultInput = true;
    QCOMPARE(RtAudioDevice(nullptr, info).uniqueId(),
             QStringLiteral("Mic [ 1 input / 0 output ] deviceId = 4000000000 defaultInput = 1 "
                            "defaultOutput = 0"));
}

void tst_RtAudioDevice::uniqueId_countsAllChannels()
{
    const RtAudioDevice device(nullptr, makeInfo(2, "Desk", 40, 48));
    QCOMPARE(device.uniqueId(),
             QStringLiteral("Desk [ 40 input / 48 output ] deviceId = 2 defaultInput = 0 "
                            "defaultOutput = 0"));
}

// Remembered identities were written this way, so they have to be built this way.
void tst_RtAudioDevice::uniqueId_substitutesSequencesInTheName()
{
    const RtAudioDevice device(nullptr, makeInfo(2, "Desk %3", 4, 6));
    QCOMPARE(device.uniqueId(),
             QStringLiteral("Desk 4 [ 4 input / 6 output ] deviceId = 2 defaultInput = 0 "
                            "defaultOutput = 0"));
}

void tst_RtAudioDevice::matchScore_isGraded_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("score");
    const QString tail = QStringLiteral("deviceId = 73 defaultInput = 0 defaultOutput = 1");
    QTest::newRow("the same") << "Maker: Desk [ 0 input / 2 output ] " + tail << 128;
    QTest::newRow("another number")
        << "Maker: Desk [ 0 input / 2 output ] deviceId = 9 defaultInput = 0 defaultOutput = 1"
        << 64;
    QTest::newRow("other defaults")
        << "Maker: Desk [ 0 input / 2 output ] deviceId = 73 defaultInput = 0 defaultOutput = 0"
        << 64;
    QTest::newRow("other channels") << "Maker: Desk [ 2 input / 2 output ] " + tail << 32;
    QTest::newRow("only the name") << "Maker: Desk" << 32;
    QTest::newRow("another maker") << "Other: Desk [ 0 input / 2 output ] " + tail << 16;
    QTest::newRow("no maker") << "Desk [ 0 input / 2 output ] " + tail << 16;
    QTest::newRow("another model") << "Maker: Chair [ 0 input / 2 output ] " + tail << 0;
    QTest::newRow("another case") << "maker: desk [ 0 input / 2 output ] " + tail << 0;
    QTest::newRow("nothing") << "" << 0;
}

void tst_RtAudioDevice::matchScore_isGraded()
{
    QFETCH(QString, id);
    QFETCH(int, score);
    RtAudio::DeviceInfo info = makeInfo(73, "Maker: Desk", 0, 2);
    info.isDefaultOutput = true;
    QCOMPARE(int(RtAudioDevice(nullptr, info).matchScore(id)), score);
}

void tst_RtAudioDevice::record_tellsWhatTheDeviceIs()
{
#if defined(QTOVELMIXER_CARRIED_RTAUDIO)
    RtAudio::DeviceInfo info = makeInfo(5, "Headset", 1, 40);
    info.isMonitor = true;
    info.formFactor = "headset";
    info.bus = "usb";
    info.inputChannelNames = {"mono"};
    info.outputChannelNames.assign(40, "aux");
    const RtAudioDevice device(nullptr, info);
    QVERIFY(device.isMonitor());
    QCOMPARE(device.formFactor(), QStringLiteral("headset"));
    QCOMPARE(device.bus(), QStringLiteral("usb"));
    QCOMPARE(device.channelNames(DeviceKind::Input), QStringList{"mono"});
    QCOMPARE(device.channelNames(DeviceKind::Output).size(), 32);
#else
    QSKIP("the system's RtAudio does not tell");
#endif
}

void tst_RtAudioDevice::setInfo_replacesTheRecord()
{
    RtAudioDevice device(nullptr, makeInfo(1, "Desk", 2, 2));
    device.setInfo(makeInfo(2, "Table", 4, 8));
    QCOMPARE(device.info().ID, 2u);
    QCOMPARE(device.name(), QStringLiteral("Table"));
    QCOMPARE(device.numInputChannels(), 4u);
    QCOMPARE(device.numOutputChannels(), 8u);
}

QTEST_GUILESS_MAIN(tst_RtAudioDevice)
#include "tst_rtaudio_device.moc"
