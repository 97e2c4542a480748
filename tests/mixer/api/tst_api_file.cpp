// SPDX-License-Identifier: MIT
// The file backend: its devices, opening and closing.
#include <mixer/api/api_file.h>

#include "file_fixture.h"

using namespace QTovelMixer;

namespace {

using FileApi = QTovelMixerApiFile;

/// Sees the interval of the timers that fire.
class TimerWatch : public QObject
{
public:
    TimerWatch() { QCoreApplication::instance()->installEventFilter(this); }
    bool eventFilter(QObject *receiver, QEvent *event) override
    {
        const auto *timer = qobject_cast<QTimer *>(receiver);
        if (timer && event->type() == QEvent::Timer)
            intervals.append(timer->interval());
        return false;
    }
    QList<int> intervals;
};

} // namespace

class tst_ApiFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void construction_fixesRateAndBuffer();
    void updateDeviceList_offersBothFilesAsInputs();
    void updateDeviceList_keepsItsDevices();
    void updateDeviceList_isEmpty_withoutPaths();
    void updateDeviceList_listsOneFileTwice_whenBothPathsAreTheSame();
    void open_fails_withoutPaths();
    void open_fails_forTheOutputFileAlone();
    void open_fails_withoutUsableFile();
    void open_logsWhatItOpens();
    void open_dropsAFileThatCannotBeOpened();
    void open_emptiesTheOutputFile();
    void openApi_recordsOnly();
    void start_doesNothing_whileClosed();
    void lifecycle_goesThereAndBack();
    void start_firesEvery23Milliseconds();

private:
    std::unique_ptr<FilePair> files;
    QString in;
    QString out;
};

void tst_ApiFile::init()
{
    files = std::make_unique<FilePair>();
    in = files->in;
    out = files->out;
}

void tst_ApiFile::construction_fixesRateAndBuffer()
{
    const LogCapture log;
    FileApi api(in, 2, out, 3, 96000, "Files");
    QCOMPARE(api.backend(), QTovelMixer::File);
    QCOMPARE(api.backendString(), QStringLiteral("File"));
    QCOMPARE(api.name(), QStringLiteral("Files"));
    QCOMPARE(api.bufferFrames(), 1024u);
    QVERIFY(!api.isOpen());
    QVERIFY(!api.isRunning());
    QVERIFY(api.updateDeviceList());
    for (const Device *device : api.devices()) {
        QCOMPARE(device->preferedSampleRate(), 44100u);
        QCOMPARE(device->sampleRates(), QList<unsigned>{44100});
    }
}

void tst_ApiFile::updateDeviceList_offersBothFilesAsInputs()
{
    const LogCapture log;
    FileApi api(in, 2, out, 3, 44100, "Files");
    QVERIFY(api.updateDeviceList());
    QCOMPARE(api.devices().size(), 2);
    Device *first = api.devices().at(0);
    Device *second = api.devices().at(1);
    QCOMPARE(first->uniqueId(), in);
    QCOMPARE(second->uniqueId(), out);
    QCOMPARE(first->numInputChannels(), 2u);
    QCOMPARE(second->numInputChannels(), 3u);
    for (Device *device : {first, second}) {
        QCOMPARE(device->owner(), &api);
        QVERIFY(device->isListed());
        QCOMPARE(device->deviceId(), 0);
        QCOMPARE(device->numOutputChannels(), 0u);
        QVERIFY(device->isDefaultInput());
        QVERIFY(!device->isDefaultOutput());
        QVERIFY(!device->canPlayback(false));
    }
    QCOMPARE(api.defaultDevice(DeviceKind::Input), first);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.device(DeviceKind::Input, out), second);
}

void tst_ApiFile::updateDeviceList_keepsItsDevices()
{
    LogCapture log;
    FileApi api(in, 2, out, 2, 44100, "Files");
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.deviceListWasChanged());
    const QList<Device *> devices = api.devices();
    QCOMPARE(log.countStarting("New device found:"), 2);
    log.clear();
    QVERIFY(api.updateDeviceList());
    QVERIFY(!api.deviceListWasChanged());
    QCOMPARE(api.devices(), devices);
    QCOMPARE(log.count(), 0);
}

void tst_ApiFile::updateDeviceList_isEmpty_withoutPaths()
{
    FileApi api(QString(), 2, QString(), 2, 44100, "Files");
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.devices().isEmpty());
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(api.updateDeviceList());
    QVERIFY(!api.deviceListWasChanged());
}

void tst_ApiFile::updateDeviceList_listsOneFileTwice_whenBothPathsAreTheSame()
{
    const LogCapture log;
    FileApi api(in, 2, in, 2, 44100, "Files");
    QVERIFY(api.updateDeviceList());
    QCOMPARE(api.devices().size(), 2);
    QCOMPARE(api.devices().at(0), api.devices().at(1));
    QCOMPARE(log.countStarting("New device found:"), 1);
    QCOMPARE(log.texts(QtCriticalMsg), QStringList());
}

void tst_ApiFile::open_fails_withoutPaths()
{
    const LogCapture log;
    FileApi api(QString(), 2, QString(), 2, 44100, "Files");
    api.updateDeviceList();
    QVERIFY(!api.open(nullptr, nullptr, 44100));
    QVERIFY(!api.isOpen());
    QCOMPARE(log.count(), 0);
}

void tst_ApiFile::open_fails_forTheOutputFileAlone()
{
    LogCapture log;
    FileApi api(in, 2, out, 2, 44100, "Files");
    api.updateDeviceList();
    log.clear();
    QVERIFY(!api.open(api.devices().at(1), nullptr, 44100));
    QVERIFY(!api.isOpen());
    QVERIFY(!QFileInfo::exists(out));
    QCOMPARE(log.count(), 0);
}

void tst_ApiFile::open_fails_withoutUsableFile()
{
    LogCapture log;
    FileApi api(in, 2, out, 2, 44100, "Files");
    api.updateDeviceList();
    Device *input = api.devices().at(0);
    // Not there yet.
    QVERIFY(!api.open(nullptr, input, 44100));
    write(in, bytesOf(counting(10)));
    QVERIFY(!api.open(nullptr, nullptr, 44100));
    QVERIFY(!api.open(nullptr, input, 0));
    // Another backend's device.
    FileApi stranger(in, 2, out, 2, 44100, "Stranger");
    stranger.updateDeviceList();
    QVERIFY(!api.open(nullptr, stranger.devices().at(0), 44100));
    QCOMPARE(log.countStarting("QTovelMixer::open:"), 0);
    QVERIFY(api.open(nullptr, input, 44100));
}

void tst_ApiFile::open_logsWhatItOpens()
{
    write(in, bytesOf(counting(10)));
    DuplexApi api(in, out);
    {
        const LogCapture log;
        QVERIFY(api.open(nullptr, api.input, 44100));
        QCOMPARE(log.texts(QtInfoMsg), QStringList{"QTovelMixer::open: Output: undef / Input: " +
                                                   in + " / Sample Rate: 44100 Hz"});
        QCOMPARE(log.count(), 1);
    }
    const LogCapture log;
    QVERIFY(api.open(api.output, nullptr, 48000));
    QCOMPARE(log.texts(QtInfoMsg), QStringList{"QTovelMixer::open: Output: " + out +
                                               " / Input: undef / Sample Rate: 48000 Hz"});
}

void tst_ApiFile::open_dropsAFileThatCannotBeOpened()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    // A directory may be written, but not opened.
    DuplexApi api(in, files->directory.path());
    QVERIFY(api.output->canPlayback(false));
    QVERIFY(!api.open(api.output, nullptr, 44100));
    QVERIFY(!api.isOpen());
    QVERIFY(api.open(api.output, api.input, 44100));
    QVERIFY(api.isOpen());
    Desk desk;
    api.setEngine(&desk);
    api.mixerTimeout();
    QCOMPARE(desk.probe.blocks().size(), 1);
    api.setEngine(nullptr);
}

void tst_ApiFile::open_emptiesTheOutputFile()
{
    const LogCapture log;
    write(in, bytesOf(counting(10)));
    write(out, QByteArray(100, 'x'));
    DuplexApi api(in, out);
    QVERIFY(api.open(api.output, api.input, 44100));
    QCOMPARE(QFileInfo(out).size(), 0);
    QVERIFY(api.close());
    QCOMPARE(read(in), bytesOf(counting(10)));
}

void tst_ApiFile::openApi_recordsOnly()
{
    const LogCapture log;
    write(in, bytesOf(counting(10)));
    Engine engine(nullptr);
    FileApi api(in, 2, out, 2, 44100, "Files");
    api.setEngine(&engine);
    api.updateDeviceList();
    Device *input = api.devices().at(0);
    QVERIFY(api.openApi(api.devices().at(1), input, 48000));
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), input);
    QCOMPARE(api.sampleRate(), 44100u);
    QCOMPARE(api.numInputChannels(), 2u);
    QCOMPARE(api.numOutputChannels(), 0u);
    QVERIFY(api.canCapture(false));
    QVERIFY(!api.canPlayback(false));
    QVERIFY(!QFileInfo::exists(out));
    QVERIFY(api.closeApi());
    QVERIFY(!api.isOpen());
}

void tst_ApiFile::start_doesNothing_whileClosed()
{
    FileApi api(in, 2, out, 2, 44100, "Files");
    QVERIFY(!api.start());
    QVERIFY(!api.isRunning());
    QVERIFY(api.stop());
    QVERIFY(api.close());
}

void tst_ApiFile::lifecycle_goesThereAndBack()
{
    const LogCapture log;
    write(in, bytesOf(counting(10)));
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.updateDeviceList();
    for (int round = 0; round < 2; ++round) {
        QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
        QVERIFY(api.isOpen());
        QVERIFY(!api.isRunning());
        QVERIFY(api.start());
        QVERIFY(api.isRunning());
        QVERIFY(api.stop());
        QVERIFY(!api.isRunning());
        QVERIFY(api.isOpen());
        QVERIFY(api.start());
        QVERIFY(api.close());
        QVERIFY(!api.isRunning());
        QVERIFY(!api.isOpen());
        QVERIFY(!api.start());
    }
}

void tst_ApiFile::start_firesEvery23Milliseconds()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    const TimerWatch watch;
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    QVERIFY(api.start());
    QTRY_VERIFY(desk.probe.blocks().size() >= 2);
    QVERIFY(watch.intervals.contains(1024 * 1000 / 44100));
    QVERIFY(watch.intervals.contains(23));
    QVERIFY(api.isRunning());
}

QTEST_GUILESS_MAIN(tst_ApiFile)
#include "tst_api_file.moc"
