// SPDX-License-Identifier: MIT
#include <mixer/api/file_device.h>
#include <support/test_api.h>

#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_FileDevice : public QObject
{
    Q_OBJECT

private slots:
    void path_isEveryName();
    void input_hasInputChannelsOnly();
    void output_hasOutputChannelsOnly();
    void capture_needsAReadableFile();
    void playback_needsAFileOrItsDirectory();
    void json_ofAnOutput();
};

void tst_FileDevice::path_isEveryName()
{
    TestApi api;
    QTovelMixerFileDevice device(&api, DeviceKind::Input, "/some/file.raw", 44100, 2, 5);
    for (const QString &name :
         {device.uniqueId(), device.fullName(), device.name(), device.manufacture()})
        QCOMPARE(name, "/some/file.raw");
    QCOMPARE(device.deviceId(), 5);
    device.setDeviceId(0);
    QCOMPARE(device.deviceId(), 0);
    QCOMPARE(device.matchScore("/some/file.raw"), 128);
    QCOMPARE(device.matchScore("/some/file"), 0);
    QVERIFY(device.isValid());
    QVERIFY(device.isAvailable());
    QVERIFY(!device.isDuplex());
    QCOMPARE(device.preferedSampleRate(), 44100u);
    QCOMPARE(device.sampleRates(), QList<unsigned>({44100}));
    QCOMPARE(device.minBufferFrames(), 64u);
    QCOMPARE(device.maxBufferFrames(), 4096u);
    QCOMPARE(device.defaultBufferFrames(), 1024u);
}

void tst_FileDevice::input_hasInputChannelsOnly()
{
    TestApi api;
    const QTovelMixerFileDevice device(&api, DeviceKind::Input, "f", 44100, 40, 0);
    QCOMPARE(device.numInputChannels(), 40u);
    QCOMPARE(device.numOutputChannels(), 0u);
    QVERIFY(device.isDefaultInput());
    QVERIFY(!device.isDefaultOutput());
    QVERIFY(!device.canPlayback(true));
}

void tst_FileDevice::output_hasOutputChannelsOnly()
{
    TestApi api;
    const QTovelMixerFileDevice device(&api, DeviceKind::Output, "f", 44100, 2, 0);
    QCOMPARE(device.numInputChannels(), 0u);
    QCOMPARE(device.numOutputChannels(), 2u);
    QVERIFY(!device.isDefaultInput());
    QVERIFY(device.isDefaultOutput());
    QVERIFY(!device.canCapture(true));
}

void tst_FileDevice::capture_needsAReadableFile()
{
    TestApi api;
    QTemporaryDir folder;
    const QString path = folder.filePath("in.raw");
    const QTovelMixerFileDevice device(&api, DeviceKind::Input, path, 44100, 2, 0);
    QVERIFY(!device.canCapture(false));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(device.canCapture(false));
    const QTovelMixerFileDevice silent(&api, DeviceKind::Input, path, 44100, 0, 0);
    QVERIFY(!silent.canCapture(false));
}

void tst_FileDevice::playback_needsAFileOrItsDirectory()
{
    TestApi api;
    QTemporaryDir folder;
    const auto canPlay = [&](const QString &path, unsigned channels) {
        return QTovelMixerFileDevice(&api, DeviceKind::Output, path, 44100, channels, 0)
            .canPlayback(false);
    };
    const QString path = folder.filePath("out.raw");
    QVERIFY(canPlay(path, 2));
    QVERIFY(!canPlay(path, 0));
    QVERIFY(!canPlay(folder.filePath("missing/out.raw"), 2));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(canPlay(path, 2));
}

void tst_FileDevice::json_ofAnOutput()
{
    TestApi api;
    const QTovelMixerFileDevice device(&api, DeviceKind::Output, "/out.raw", 48000, 2, 0);
    const QJsonObject expected{
        {"fullName", "/out.raw"},  {"name", "/out.raw"},     {"manufacture", "/out.raw"},
        {"numInputChannels", 0},   {"numOutputChannels", 2}, {"isDefaultInput", false},
        {"isDefaultOutput", true}, {"deviceId", 0},          {"sampleRates", QJsonArray{48000}}};
    QCOMPARE(device.toJsonObject(), expected);
}

QTEST_GUILESS_MAIN(tst_FileDevice)
#include "tst_file_device.moc"
