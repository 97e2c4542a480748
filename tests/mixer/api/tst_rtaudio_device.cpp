// SPDX-License-Identifier: MIT
#include <mixer/api/rtaudio_device.h>
#include <support/test_api.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

RtAudio::DeviceInfo speakers()
{
    RtAudio::DeviceInfo info;
    info.ID = 73;
    info.name = "Speakers";
    info.outputChannels = 2;
    info.isDefaultOutput = true;
    info.sampleRates = {44100, 48000};
    info.preferredSampleRate = 48000;
    return info;
}

} // namespace

class tst_RtAudioDevice : public QObject
{
    Q_OBJECT

private slots:
    void uniqueId_isExact();
    void uniqueId_fillsPlaceholdersInNames();
    void channels_areCapped_butNotInTheIdentity();
    void manufacture_standsBeforeTheColon();
    void availability_needsAChannel();
    void answers_comeFromTheRecord();
    void matchScore_grades_data();
    void matchScore_grades();
    void matchScore_forgivesTheManufacturer();
    void record_isReplacedInPlace();
};

void tst_RtAudioDevice::uniqueId_isExact()
{
    TestApi api;
    const QTovelMixerRtAudioDevice device(&api, speakers());
    QCOMPARE(device.uniqueId(), "Speakers [ 0 input / 2 output ] deviceId = 73 defaultInput = 0 "
                                "defaultOutput = 1");
}

void tst_RtAudioDevice::uniqueId_fillsPlaceholdersInNames()
{
    TestApi api;
    RtAudio::DeviceInfo info = speakers();
    info.name = "100%3";
    const QTovelMixerRtAudioDevice device(&api, info);
    QCOMPARE(device.uniqueId(),
             "1000 [ 0 input / 2 output ] deviceId = 73 defaultInput = 0 defaultOutput = 1");
}

void tst_RtAudioDevice::channels_areCapped_butNotInTheIdentity()
{
    TestApi api;
    RtAudio::DeviceInfo info = speakers();
    info.inputChannels = 40;
    info.outputChannels = 33;
    const QTovelMixerRtAudioDevice device(&api, info);
    QCOMPARE(device.numInputChannels(), 32u);
    QCOMPARE(device.numOutputChannels(), 32u);
    QVERIFY(device.uniqueId().contains("[ 40 input / 33 output ]"));
}

void tst_RtAudioDevice::manufacture_standsBeforeTheColon()
{
    TestApi api;
    RtAudio::DeviceInfo info = speakers();
    QCOMPARE(QTovelMixerRtAudioDevice(&api, info).manufacture(), "Speakers");
    info.name = " Maker : Model: Two";
    QCOMPARE(QTovelMixerRtAudioDevice(&api, info).manufacture(), "Maker");
    info.name = "Lautsprecher für \xff";
    QCOMPARE(QTovelMixerRtAudioDevice(&api, info).name(),
             QString::fromUtf8("Lautsprecher für \xff"));
}

void tst_RtAudioDevice::availability_needsAChannel()
{
    TestApi api;
    RtAudio::DeviceInfo info = speakers();
    info.outputChannels = 0;
    QVERIFY(!QTovelMixerRtAudioDevice(&api, info).isAvailable());
    info.duplexChannels = 1;
    QVERIFY(QTovelMixerRtAudioDevice(&api, info).isAvailable());
    QVERIFY(QTovelMixerRtAudioDevice(&api, info).isDuplex());
}

void tst_RtAudioDevice::answers_comeFromTheRecord()
{
    TestApi api;
    const QTovelMixerRtAudioDevice device(&api, speakers());
    QVERIFY(device.isValid());
    QVERIFY(device.isDefaultOutput());
    QVERIFY(!device.isDefaultInput());
    QVERIFY(!device.isDuplex());
    QVERIFY(device.canPlayback(false));
    QVERIFY(!device.canCapture(false));
    QCOMPARE(device.preferedSampleRate(), 48000u);
    QCOMPARE(device.sampleRates(), QList<unsigned>({44100, 48000}));
    QCOMPARE(device.minBufferFrames(), 32u);
    QCOMPARE(device.maxBufferFrames(), 16384u);
    QCOMPARE(device.defaultBufferFrames(), 1024u);
    QCOMPARE(device.deviceId(), 73);
}

void tst_RtAudioDevice::matchScore_grades_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<int>("score");
    QTest::newRow("exact") << "Speakers [ 0 input / 2 output ] deviceId = 73 defaultInput = 0 "
                              "defaultOutput = 1"
                           << 128;
    QTest::newRow("number") << "Speakers [ 0 input / 2 output ] deviceId = 12 defaultInput = 0 "
                               "defaultOutput = 1"
                            << 64;
    QTest::newRow("default flag") << "Speakers [ 0 input / 2 output ] deviceId = 73 "
                                     "defaultInput = 0 defaultOutput = 0"
                                  << 64;
    QTest::newRow("channels") << "Speakers [ 0 input / 8 output ] deviceId = 73 defaultInput = 0 "
                                 "defaultOutput = 1"
                              << 32;
    QTest::newRow("bare name") << "Speakers" << 32;
    QTest::newRow("with a maker") << "Maker: Speakers [ 0 input / 2 output ]" << 16;
    QTest::newRow("case") << "speakers" << 0;
    QTest::newRow("another") << "Headphones" << 0;
    QTest::newRow("empty") << "" << 0;
}

void tst_RtAudioDevice::matchScore_grades()
{
    QFETCH(QString, id);
    QFETCH(int, score);
    TestApi api;
    const QTovelMixerRtAudioDevice device(&api, speakers());
    QCOMPARE(int(device.matchScore(id)), score);
}

void tst_RtAudioDevice::matchScore_forgivesTheManufacturer()
{
    TestApi api;
    RtAudio::DeviceInfo info = speakers();
    info.name = "New Maker: Desk";
    const QTovelMixerRtAudioDevice device(&api, info);
    QCOMPARE(int(device.matchScore("Old Maker: Desk [ 0 input / 2 output ] deviceId = 1")), 16);
    QCOMPARE(int(device.matchScore("Desk")), 16);
}

void tst_RtAudioDevice::record_isReplacedInPlace()
{
    TestApi api;
    QTovelMixerRtAudioDevice device(&api, speakers());
    RtAudio::DeviceInfo info = speakers();
    info.ID = 5;
    info.isDefaultOutput = false;
    device.setInfo(info);
    QCOMPARE(device.deviceId(), 5);
    QCOMPARE(device.info().ID, 5u);
    QVERIFY(!device.isDefaultOutput());
}

QTEST_GUILESS_MAIN(tst_RtAudioDevice)
#include "tst_rtaudio_device.moc"
