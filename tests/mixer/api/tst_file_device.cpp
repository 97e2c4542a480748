// SPDX-License-Identifier: MIT
#include <mixer/api/file_device.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

using FileDevice = QTovelMixerFileDevice;

void touch(const QString &path)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
}

} // namespace

class tst_FileDevice : public QObject
{
    Q_OBJECT

private slots:
    void answers_ofAnInput();
    void answers_ofAnOutput();
    void matchScore_isAllOrNothing();
    void canCapture_needsAReadableFile();
    void canCapture_isFalse_withoutChannels();
    void canPlayback_needsAWritableFileOrDirectory();
    void canPlayback_isFalse_withoutChannels();
    void setDeviceId_changesTheNumber();
    void toJsonObject_describesAnOutput();
};

void tst_FileDevice::answers_ofAnInput()
{
    const FileDevice device(nullptr, DeviceKind::Input, "/a/b.raw", 44100, 3, 9);
    QVERIFY(device.isValid());
    QVERIFY(device.isAvailable());
    QVERIFY(!device.isListed());
    QVERIFY(!device.isDuplex());
    for (const QString &text :
         {device.uniqueId(), device.fullName(), device.name(), device.manufacture()})
        QCOMPARE(text, QStringLiteral("/a/b.raw"));
    QCOMPARE(device.numInputChannels(), 3u);
    QCOMPARE(device.numOutputChannels(), 0u);
    QVERIFY(device.isDefaultInput());
    QVERIFY(!device.isDefaultOutput());
    QCOMPARE(device.preferedSampleRate(), 44100u);
    QCOMPARE(device.sampleRates(), QList<unsigned>{44100});
    QCOMPARE(device.minBufferFrames(), 64u);
    QCOMPARE(device.maxBufferFrames(), 4096u);
    QCOMPARE(device.defaultBufferFrames(), 1024u);
    QCOMPARE(device.deviceId(), 9);
}

void tst_FileDevice::answers_ofAnOutput()
{
    const FileDevice device(nullptr, DeviceKind::Output, "/a/b.raw", 48000, 2, 0);
    QCOMPARE(device.numInputChannels(), 0u);
    QCOMPARE(device.numOutputChannels(), 2u);
    QVERIFY(!device.isDefaultInput());
    QVERIFY(device.isDefaultOutput());
    QVERIFY(!device.canCapture(true));
    QVERIFY(!device.isDuplex());
}

void tst_FileDevice::matchScore_isAllOrNothing()
{
    const FileDevice device(nullptr, DeviceKind::Input, "/a/b.raw", 44100, 2, 0);
    QCOMPARE(int(device.matchScore("/a/b.raw")), 128);
    QCOMPARE(int(device.matchScore("/a/B.raw")), 0);
    QCOMPARE(int(device.matchScore("b.raw")), 0);
}

void tst_FileDevice::canCapture_needsAReadableFile()
{
    QTemporaryDir directory;
    const QString path = directory.filePath("in.raw");
    const FileDevice device(nullptr, DeviceKind::Input, path, 44100, 2, 0);
    QVERIFY(!device.canCapture(false));
    touch(path);
    QVERIFY(device.canCapture(false));
    QVERIFY(device.canCapture(true));
    QVERIFY(!device.canPlayback(false));
}

void tst_FileDevice::canCapture_isFalse_withoutChannels()
{
    QTemporaryDir directory;
    const QString path = directory.filePath("in.raw");
    touch(path);
    const FileDevice device(nullptr, DeviceKind::Input, path, 44100, 0, 0);
    QVERIFY(!device.canCapture(false));
}

void tst_FileDevice::canPlayback_needsAWritableFileOrDirectory()
{
    QTemporaryDir directory;
    const QString path = directory.filePath("out.raw");
    const FileDevice device(nullptr, DeviceKind::Output, path, 44100, 2, 0);
    QVERIFY(device.canPlayback(false));
    touch(path);
    QVERIFY(device.canPlayback(false));
    QVERIFY(device.canPlayback(true));
    QVERIFY(!device.canCapture(false));
    // The file counts, not its directory. Some users may write whatever the permissions say.
    QVERIFY(QFile::setPermissions(path, QFile::ReadOwner));
    QCOMPARE(device.canPlayback(false), QFileInfo(path).isWritable());

    const FileDevice nowhere(nullptr, DeviceKind::Output, directory.filePath("none/out.raw"), 44100,
                             2, 0);
    QVERIFY(!nowhere.canPlayback(false));
}

void tst_FileDevice::canPlayback_isFalse_withoutChannels()
{
    QTemporaryDir directory;
    const FileDevice device(nullptr, DeviceKind::Output, directory.filePath("out.raw"), 44100, 0,
                            0);
    QVERIFY(!device.canPlayback(false));
}

void tst_FileDevice::setDeviceId_changesTheNumber()
{
    FileDevice device(nullptr, DeviceKind::Input, "/a/b.raw", 44100, 2, 4);
    device.setDeviceId(0);
    QCOMPARE(device.deviceId(), 0);
}

void tst_FileDevice::toJsonObject_describesAnOutput()
{
    const FileDevice device(nullptr, DeviceKind::Output, "/a/b.raw", 48000, 2, 0);
    const QJsonObject expected{
        {"fullName", "/a/b.raw"},  {"name", "/a/b.raw"},     {"manufacture", "/a/b.raw"},
        {"numInputChannels", 0},   {"numOutputChannels", 2}, {"isDefaultInput", false},
        {"isDefaultOutput", true}, {"deviceId", 0},          {"sampleRates", QJsonArray{48000}},
    };
    QCOMPARE(device.toJsonObject(), expected);
}

QTEST_GUILESS_MAIN(tst_FileDevice)
#include "tst_file_device.moc"
