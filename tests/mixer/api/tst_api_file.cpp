// SPDX-License-Identifier: MIT
#include <mixer/api/api_file.h>

#include <mixer/api/file_device.h>
#include <mixer/engine_p.h>
#include <mixer/io/effect.h>
#include <support/log_capture.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <cstring>

using namespace QTovelMixer;

namespace {

using FileApi = QTovelMixerApiFile;
using FileDevice = QTovelMixerFileDevice;

constexpr int blockSamples = 1024 * 2;
constexpr int blockBytes = blockSamples * 2;

/// Stands on the device's input: keeps what the backend has read, and may put something else in
/// its place.
class Probe : public Effect
{
public:
    Probe() : Effect(44100, 2) {}

    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        blocks.append(QList<float>(input, input + channels * frames));
        std::copy(replacement.begin(), replacement.end(), output);
        return 1;
    }

    QList<QList<float>> blocks;
    QList<float> replacement;
};

/// An engine with two inputs, heard one to one on as many outputs.
class Desk : public Engine
{
public:
    explicit Desk(unsigned outputs = 0) : Engine(nullptr)
    {
        constexpr unsigned frames = 4096;
        Data &data = EngineAccess::data(*this);
        data.numInputChannels = 2;
        data.numOutputChannels = outputs;
        data.inputBuses = Data::makeBuses(2, frames);
        data.outputBuses = Data::makeBuses(outputs, frames);
        for (unsigned channel = 0; channel < outputs; ++channel)
            data.gainMatrix[channel][channel] = 1.0f;
        data.planMix();
        data.inputEffect = &probe;
    }
    ~Desk() override { EngineAccess::data(*this).inputEffect = nullptr; }

    Probe probe;
};

/// The file backend with an output file that can be played to.
class DuplexApi : public FileApi
{
public:
    DuplexApi(const QString &inputPath, const QString &outputPath)
        : FileApi(inputPath, 2, outputPath, 2, 44100, "Duplex"),
          input(new FileDevice(this, DeviceKind::Input, inputPath, 44100, 2, 0)),
          output(new FileDevice(this, DeviceKind::Output, outputPath, 44100, 2, 0))
    {
        const LogCapture log;
        beginDeviceUpdate();
        addDevice(input);
        addDevice(output);
        endDeviceUpdate();
    }

    FileDevice *input;
    FileDevice *output;
};

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

QByteArray bytesOf(const QList<qint16> &samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.constData()),
                      samples.size() * qsizetype(sizeof(qint16)));
}

QList<qint16> samplesOf(const QByteArray &bytes)
{
    QList<qint16> samples(bytes.size() / qsizetype(sizeof(qint16)));
    std::memcpy(samples.data(), bytes.constData(), size_t(samples.size()) * sizeof(qint16));
    return samples;
}

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), bytes.size());
}

QByteArray read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// 1, 2, 3 …
QList<qint16> counting(int count)
{
    QList<qint16> samples;
    for (int i = 1; i <= count; ++i)
        samples.append(qint16(i));
    return samples;
}

float scaled(qint16 sample)
{
    return float(double(sample) / 32768.0);
}

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
    void mixerTimeout_playsTheInputInALoop();
    void mixerTimeout_readsAgainOnce();
    void mixerTimeout_swapsBytes_afterAnOddEnd();
    void mixerTimeout_isSilent_forAnEmptyFile();
    void mixerTimeout_scalesTheInput();
    void mixerTimeout_scalesAndLimitsTheOutput();
    void mixerTimeout_stopsTheTimer_whenTheEngineSaysSo();
    void mixerTimeout_followsTheBufferSize();
    void start_rewindsBothFiles_withoutEmptyingThem();

private:
    std::unique_ptr<QTemporaryDir> directory;
    QString in;
    QString out;
};

void tst_ApiFile::init()
{
    directory = std::make_unique<QTemporaryDir>();
    in = directory->filePath("in.raw");
    out = directory->filePath("out.raw");
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
    DuplexApi api(in, directory->path());
    QVERIFY(api.output->canPlayback(false));
    QVERIFY(!api.open(api.output, nullptr, 44100));
    QVERIFY(!api.isOpen());
    QVERIFY(api.open(api.output, api.input, 44100));
    QVERIFY(api.isOpen());
    Desk desk;
    api.setEngine(&desk);
    api.mixerTimeout();
    QCOMPARE(desk.probe.blocks.size(), 1);
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
    QTRY_VERIFY(desk.probe.blocks.size() >= 2);
    QVERIFY(watch.intervals.contains(1024 * 1000 / 44100));
    QVERIFY(watch.intervals.contains(23));
    QVERIFY(api.isRunning());
}

void tst_ApiFile::mixerTimeout_playsTheInputInALoop()
{
    const LogCapture log;
    write(in, bytesOf(counting(1500)));
    QCOMPARE(QFileInfo(in).size(), 3000);
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    api.mixerTimeout();
    QCOMPARE(desk.probe.blocks.size(), 2);
    int position = 0;
    for (const QList<float> &block : std::as_const(desk.probe.blocks)) {
        QCOMPARE(block.size(), blockSamples);
        for (const float sample : block)
            QCOMPARE(sample, scaled(qint16(position++ % 1500 + 1)));
    }
}

void tst_ApiFile::mixerTimeout_readsAgainOnce()
{
    const LogCapture log;
    write(in, bytesOf(counting(100)));
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    // Now at the end of the file: what is read again is all there is.
    api.mixerTimeout();
    const int wholes[] = {200, 100};
    for (int block = 0; block < 2; ++block) {
        const QList<float> &samples = desk.probe.blocks.at(block);
        QCOMPARE(samples.size(), blockSamples);
        for (int i = 0; i < blockSamples; ++i)
            QCOMPARE(samples.at(i), i < wholes[block] ? scaled(qint16(i % 100 + 1)) : 0.0f);
    }
}

void tst_ApiFile::mixerTimeout_swapsBytes_afterAnOddEnd()
{
    const LogCapture log;
    write(in, QByteArray("\x01\x02\x03\x04\x05", 5));
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    const QList<qint16> expected =
        samplesOf(QByteArray("\x01\x02\x03\x04\x05\x01\x02\x03\x04\x05\0\0", 12));
    for (int i = 0; i < expected.size(); ++i)
        QCOMPARE(desk.probe.blocks.at(0).at(i), scaled(expected.at(i)));
}

void tst_ApiFile::mixerTimeout_isSilent_forAnEmptyFile()
{
    const LogCapture log;
    write(in, QByteArray());
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    QCOMPARE(desk.probe.blocks, QList<QList<float>>{QList<float>(blockSamples, 0.0f)});
}

void tst_ApiFile::mixerTimeout_scalesTheInput()
{
    const LogCapture log;
    QList<qint16> samples{-32768, 32767, 0, 1, -1, 16384};
    samples.resize(blockSamples);
    write(in, bytesOf(samples));
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    const QList<float> expected{-1.0f,           32767.0f / 32768.0f, 0.0f,
                                1.0f / 32768.0f, -1.0f / 32768.0f,    0.5f};
    QCOMPARE(desk.probe.blocks.at(0).mid(0, expected.size()), expected);
}

void tst_ApiFile::mixerTimeout_scalesAndLimitsTheOutput()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    DuplexApi api(in, out);
    Desk desk(2);
    api.setEngine(&desk);
    const QList<float> played{1.0f,  -1.5f,        0.5f,         -1.0f,         32767.9f / 32768.0f,
                              -2.0f, 1.0e9f,       1.9f / 32768, -1.9f / 32768, 0.9f / 32768,
                              0.0f,  -0.9f / 32768};
    desk.probe.replacement = played;
    QVERIFY(api.open(api.output, api.input, 44100));
    api.mixerTimeout();
    QVERIFY(api.close());
    const QList<qint16> written = samplesOf(read(out));
    QCOMPARE(written.size(), blockSamples);
    const QList<qint16> expected{32767, -32768, 16384, -32768, 32767, -32768,
                                 32767, 1,      -1,    0,      0,     0};
    QCOMPARE(written.mid(0, expected.size()), expected);
    // Behind the replacement the input has passed through unharmed.
    QCOMPARE(written.mid(expected.size()), counting(blockSamples).mid(expected.size()));
}

void tst_ApiFile::mixerTimeout_stopsTheTimer_whenTheEngineSaysSo()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    DuplexApi api(in, out);
    QVERIFY(api.open(api.output, api.input, 44100));
    QVERIFY(api.start());
    // Without an engine every block is answered with "abort".
    api.mixerTimeout();
    QVERIFY(!api.isRunning());
    QVERIFY(api.isOpen());
    QVERIFY(api.close());
    QCOMPARE(QFileInfo(out).size(), 0);
}

void tst_ApiFile::mixerTimeout_followsTheBufferSize()
{
    const LogCapture log;
    write(in, bytesOf(counting(10000)));
    DuplexApi api(in, out);
    Desk desk(2);
    api.setEngine(&desk);
    QVERIFY(api.open(api.output, api.input, 44100));
    for (const unsigned frames : {2048u, 512u}) {
        api.setBufferFrames(frames);
        api.mixerTimeout();
    }
    QVERIFY(api.close());
    QCOMPARE(desk.probe.blocks.at(0).size(), 4096);
    QCOMPARE(desk.probe.blocks.at(1).size(), 1024);
    QCOMPARE(samplesOf(read(out)), counting(4096 + 1024));
}

void tst_ApiFile::start_rewindsBothFiles_withoutEmptyingThem()
{
    const LogCapture log;
    write(in, bytesOf(counting(3 * blockSamples)));
    DuplexApi api(in, out);
    Desk desk(2);
    api.setEngine(&desk);
    QVERIFY(api.open(api.output, api.input, 44100));
    api.mixerTimeout();
    api.mixerTimeout();
    QVERIFY(api.start());
    desk.probe.replacement = QList<float>(blockSamples, 0.5f);
    api.mixerTimeout();
    QVERIFY(api.close());
    QCOMPARE(desk.probe.blocks.at(2), desk.probe.blocks.at(0));
    const QList<qint16> written = samplesOf(read(out));
    QCOMPARE(written.size() * qsizetype(sizeof(qint16)), 2 * blockBytes);
    QCOMPARE(written.mid(0, blockSamples), QList<qint16>(blockSamples, 16384));
    QCOMPARE(written.mid(blockSamples), counting(2 * blockSamples).mid(blockSamples));
}

QTEST_GUILESS_MAIN(tst_ApiFile)
#include "tst_api_file.moc"
