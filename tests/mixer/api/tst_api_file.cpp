// SPDX-License-Identifier: MIT
#include <mixer/api/api_file.h>
#include <mixer/api/file_device.h>
#include <mixer/engine_p.h>
#include <mixer/io/effect.h>
#include <support/log_capture.h>
#include <support/take_sink.h>

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

#include <cstring>

using namespace QTovelMixer;

namespace {

constexpr int blockFrames = 1024;

QByteArray samples(int count, int first = 0)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        const qint16 sample = qint16(first + i);
        bytes.append(reinterpret_cast<const char *>(&sample), sizeof sample);
    }
    return bytes;
}

/// The file backend with an output device, which its own list never has.
class OpenApiFile : public QTovelMixerApiFile
{
public:
    using QTovelMixerApiFile::QTovelMixerApiFile;

    Device *addBothDevices(const QString &inputPath, const QString &outputPath)
    {
        auto *output = new QTovelMixerFileDevice(this, DeviceKind::Output, outputPath, 44100, 1, 1);
        beginDeviceUpdate();
        addDevice(new QTovelMixerFileDevice(this, DeviceKind::Input, inputPath, 44100, 1, 0));
        addDevice(output);
        endDeviceUpdate();
        return output;
    }
};

} // namespace

class tst_ApiFile : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void construction_ignoresTheRate();
    void updateDeviceList_makesInputDevicesOnly();
    void updateDeviceList_withoutPaths_isEmpty();
    void updateDeviceList_reusesItsDevices();
    void open_fails_withoutAFile();
    void open_fails_withTheOutputFileAlone();
    void open_logsWhatItOpened();
    void open_setsTheInterval();
    void start_isIgnored_whileClosed();
    void blocks_playTheInputInALoop();
    void blocks_fillAnUnreadableRestWithSilence();
    void blocks_convertTheExtremes();
    void blocks_followAChangedBufferSize();
    void blocks_writeTheOutput();
    void blocks_stop_whenTheEngineIsGone();
    void timer_recordsThroughTheEngine();

private:
    QString write(const QString &name, const QByteArray &bytes);

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_ApiFile::init()
{
    Engine::Initialize();
    m_folder = std::make_unique<QTemporaryDir>();
}

QString tst_ApiFile::write(const QString &name, const QByteArray &bytes)
{
    const QString path = m_folder->filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

void tst_ApiFile::construction_ignoresTheRate()
{
    QTovelMixerApiFile api("in", 1, "out", 2, 96000, "Files");
    QCOMPARE(api.backend(), File);
    QCOMPARE(api.backendString(), "File");
    QCOMPARE(api.name(), "Files");
    QCOMPARE(api.bufferFrames(), 1024u);
    api.updateDeviceList();
    for (const Device *device : api.devices())
        QCOMPARE(device->sampleRates(), QList<unsigned>({44100}));
}

void tst_ApiFile::updateDeviceList_makesInputDevicesOnly()
{
    QTovelMixerApiFile api(write("in", samples(4)), 1, write("out", {}), 2, 44100, "f");
    QVERIFY(api.updateDeviceList());
    QCOMPARE(api.devices().size(), 2);
    for (const Device *device : api.devices()) {
        QVERIFY(device->isDefaultInput());
        QCOMPARE(device->numOutputChannels(), 0u);
        QVERIFY(!device->canPlayback(true));
        QCOMPARE(device->deviceId(), 0);
    }
    QCOMPARE(api.devices()[0]->numInputChannels(), 1u);
    QCOMPARE(api.devices()[1]->numInputChannels(), 2u);
    QCOMPARE(api.defaultDevice(DeviceKind::Input), api.devices()[0]);
}

void tst_ApiFile::updateDeviceList_withoutPaths_isEmpty()
{
    QTovelMixerApiFile api("", 1, "", 2, 44100, "f");
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.devices().isEmpty());
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(!api.open(nullptr, nullptr, 44100));
}

void tst_ApiFile::updateDeviceList_reusesItsDevices()
{
    QTovelMixerApiFile api("in", 1, "", 2, 44100, "f");
    api.updateDeviceList();
    const QList<Device *> first = api.devices();
    api.updateDeviceList();
    QCOMPARE(api.devices(), first);
    QVERIFY(!api.deviceListWasChanged());
}

void tst_ApiFile::open_fails_withoutAFile()
{
    QTovelMixerApiFile api(m_folder->filePath("missing"), 1, "", 2, 44100, "f");
    api.updateDeviceList();
    QVERIFY(!api.open(nullptr, api.devices()[0], 44100));
    QVERIFY(!api.isOpen());
    QVERIFY(!api.open(nullptr, nullptr, 44100));
}

void tst_ApiFile::open_fails_withTheOutputFileAlone()
{
    QTovelMixerApiFile api("", 1, write("out", "kept"), 2, 44100, "f");
    api.updateDeviceList();
    QVERIFY(!api.open(api.devices()[0], nullptr, 44100));
    QFile file(m_folder->filePath("out"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), "kept");
}

void tst_ApiFile::open_logsWhatItOpened()
{
    const QString path = write("in", samples(4));
    QTovelMixerApiFile api(path, 1, "", 2, 44100, "f");
    api.updateDeviceList();
    LogCapture log;
    QVERIFY(api.open(nullptr, api.devices()[0], 44100));
    QCOMPARE(
        log.count("QTovelMixer::open: Output: undef / Input: " + path + " / Sample Rate: 44100 Hz"),
        1);
    QVERIFY(api.isOpen());
    QVERIFY(!api.isRunning());
    api.close();
    QVERIFY(!api.isOpen());
}

void tst_ApiFile::open_setsTheInterval()
{
    QTovelMixerApiFile api(write("in", samples(4)), 1, "", 2, 44100, "f");
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices()[0], 44100));
    QVERIFY(api.start());
    QVERIFY(api.isRunning());
    QVERIFY(api.stop());
    QVERIFY(!api.isRunning());
    QVERIFY(api.isOpen());
}

void tst_ApiFile::start_isIgnored_whileClosed()
{
    QTovelMixerApiFile api("in", 1, "", 2, 44100, "f");
    QVERIFY(!api.start());
    QVERIFY(!api.isRunning());
}

namespace {

/// Runs blocks of the backend by hand and gathers what the input meter's place gets: the samples
/// that an input effect sees.
class Tap : public Effect
{
public:
    Tap() : Effect(44100, 2) {}
    int processBuffers(const float *input, float *, int channels, int frames) override
    {
        seen.insert(seen.end(), input, input + channels * frames);
        return 1;
    }
    std::vector<float> seen;
};

struct Player
{
    Player(const QString &path, int channels)
        : api(new OpenApiFile(path, channels, "", 2, 44100, "f")), engine(api)
    {
        api->updateDeviceList();
        engine.replaceInputEffect(&tap);
        opened = engine.open(nullptr, api->devices().constFirst(), 44100);
    }
    ~Player() { engine.replaceInputEffect(nullptr); }

    OpenApiFile *api;
    Tap tap;
    Engine engine;
    bool opened = false;
};

} // namespace

void tst_ApiFile::blocks_playTheInputInALoop()
{
    // 3000 bytes: a block of 4096 takes them all and 1096 from the beginning.
    Player player(write("in", samples(1500)), 2);
    QVERIFY(player.opened);
    player.api->mixerTimeout();
    player.api->mixerTimeout();
    QCOMPARE(player.tap.seen.size(), size_t(4 * blockFrames));
    for (int i = 0; i < 2 * blockFrames; ++i)
        QCOMPARE(player.tap.seen[size_t(i)], float(i % 1500) / 32768.0f);
    // The second block goes on where the first one ended.
    QCOMPARE(player.tap.seen[2 * blockFrames], 548.0f / 32768.0f);
}

void tst_ApiFile::blocks_fillAnUnreadableRestWithSilence()
{
    Player player(write("in", samples(500, 1)), 2);
    player.api->mixerTimeout();
    for (int i = 0; i < 2 * blockFrames; ++i) {
        const float expected = i < 1000 ? float(i % 500 + 1) / 32768.0f : 0.0f;
        QCOMPARE(player.tap.seen[size_t(i)], expected);
    }
}

void tst_ApiFile::blocks_convertTheExtremes()
{
    QByteArray bytes;
    for (const qint16 sample : {qint16(-32768), qint16(32767), qint16(1), qint16(-1)})
        bytes.append(reinterpret_cast<const char *>(&sample), sizeof sample);
    Player player(write("in", bytes), 1);
    player.api->mixerTimeout();
    QCOMPARE(player.tap.seen[0], -1.0f);
    QCOMPARE(player.tap.seen[1], 32767.0f / 32768.0f);
    QCOMPARE(player.tap.seen[2], 1.0f / 32768.0f);
    QCOMPARE(player.tap.seen[3], -1.0f / 32768.0f);
}

void tst_ApiFile::blocks_followAChangedBufferSize()
{
    Player player(write("in", samples(20000)), 1);
    player.api->setBufferFrames(4096);
    player.api->mixerTimeout();
    QCOMPARE(player.tap.seen.size(), size_t(4096));
    QCOMPARE(player.tap.seen[4095], 4095.0f / 32768.0f);
}

void tst_ApiFile::blocks_writeTheOutput()
{
    // What the input file plays, times the master gain, is what the output file gets.
    struct Case
    {
        float gain;
        qint16 input;
        qint16 written;
    };
    const Case cases[] = {{1.0f, 32767, 32767},   {2.0f, 16384, 32767},   {3.0f, 16384, 32767},
                          {1.5f, -32768, -32768}, {1.0f, -32768, -32768}, {0.5f, 3, 1},
                          {0.5f, -3, -1},         {0.5f, -32768, -16384}, {1.0f, 0, 0}};
    for (const Case &entry : cases) {
        const QByteArray sample(reinterpret_cast<const char *>(&entry.input), sizeof entry.input);
        const QString inputPath = write("in", sample.repeated(blockFrames));
        const QString outputPath = m_folder->filePath("out");
        auto *api = new OpenApiFile(inputPath, 1, outputPath, 1, 44100, "f");
        Engine engine(api);
        Device *output = api->addBothDevices(inputPath, outputPath);
        QVERIFY(engine.open(output, api->defaultDevice(DeviceKind::Input), 44100));
        QCOMPARE(engine.numOutputChannels(), 1u);
        EngineAccess::data(engine).gainMatrix[0][0] = 1.0f;
        engine.setMasterOutputGain(entry.gain);
        api->mixerTimeout(); // the gain ramps in this one
        QVERIFY(api->start());
        api->stop();
        api->mixerTimeout();
        engine.deactivate();
        QFile file(outputPath);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        QCOMPARE(bytes.size(), qsizetype(blockFrames * sizeof(qint16)));
        qint16 written = 0;
        std::memcpy(&written, bytes.constData(), sizeof written);
        QCOMPARE(written, entry.written);
    }
}

void tst_ApiFile::blocks_stop_whenTheEngineIsGone()
{
    QTovelMixerApiFile api(write("in", samples(4)), 1, "", 2, 44100, "f");
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices()[0], 44100));
    api.start();
    api.mixerTimeout();
    QVERIFY(!api.isRunning());
    QVERIFY(api.isOpen());
}

void tst_ApiFile::timer_recordsThroughTheEngine()
{
    const QString path = write("in", samples(3 * blockFrames));
    auto *api = new QTovelMixerApiFile(path, 1, "", 2, 44100, "f");
    Engine engine(api);
    api->updateDeviceList();
    engine.activate();
    QVERIFY(engine.isActive());
    QCOMPARE(engine.sampleRate(), 44100u);
    auto *sink = new TakeSink(&engine, 44100, 1);
    QVERIFY(engine.addSink(sink));
    QVERIFY(api->isRunning());
    QVERIFY(engine.start());
    QTRY_VERIFY(sink->frames() > 8 * blockFrames);
    const std::vector<float> take = sink->samples();
    // From the first recorded sample on every one follows the one before, round the loop.
    size_t first = 0;
    while (first + 1 < take.size() && take[first + 1] == 0.0f)
        ++first;
    for (size_t i = first + 1; i < take.size(); ++i) {
        const int previous = int(take[i - 1] * 32768.0f);
        QCOMPARE(int(take[i] * 32768.0f), (previous + 1) % (3 * blockFrames));
    }
    int stopped = 0;
    connect(&engine, &Engine::stopped, &engine, [&] { ++stopped; });
    QVERIFY(engine.stop(true, UserStopAction));
    QTRY_COMPARE(stopped, 1);
    QVERIFY(!api->isRunning());
}

QTEST_GUILESS_MAIN(tst_ApiFile)
#include "tst_api_file.moc"
