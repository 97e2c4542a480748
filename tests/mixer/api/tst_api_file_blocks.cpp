// SPDX-License-Identifier: MIT
// The file backend: what a block reads and writes.
#include <mixer/api/api_file.h>

#include "file_fixture.h"

#include <limits>

using namespace QTovelMixer;

namespace {

using FileApi = QTovelMixerApiFile;

float scaled(qint16 sample)
{
    return float(double(sample) / 32768.0);
}

} // namespace

class tst_ApiFileBlocks : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void mixerTimeout_playsTheInputInALoop();
    void mixerTimeout_readsAgainOnce();
    void mixerTimeout_swapsBytes_afterAnOddEnd();
    void mixerTimeout_isSilent_forAnEmptyFile();
    void mixerTimeout_scalesTheInput();
    void mixerTimeout_scalesAndLimitsTheOutput();
    void mixerTimeout_writesSilence_forWhatIsNoNumber();
    void mixerTimeout_stopsTheTimer_whenTheEngineSaysSo();
    void mixerTimeout_followsTheBufferSize();
    void start_rewindsBothFiles_withoutEmptyingThem();

private:
    std::unique_ptr<FilePair> files;
    QString in;
    QString out;
};

void tst_ApiFileBlocks::init()
{
    files = std::make_unique<FilePair>();
    in = files->in;
    out = files->out;
}

void tst_ApiFileBlocks::mixerTimeout_playsTheInputInALoop()
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
    QCOMPARE(desk.probe.blocks().size(), 2);
    int position = 0;
    const QList<QList<float>> blocks = desk.probe.blocks();
    for (const QList<float> &block : blocks) {
        QCOMPARE(block.size(), blockSamples);
        for (const float sample : block)
            QCOMPARE(sample, scaled(qint16(position++ % 1500 + 1)));
    }
}

void tst_ApiFileBlocks::mixerTimeout_readsAgainOnce()
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
        const QList<float> samples = desk.probe.blocks().at(block);
        QCOMPARE(samples.size(), blockSamples);
        for (int i = 0; i < blockSamples; ++i)
            QCOMPARE(samples.at(i), i < wholes[block] ? scaled(qint16(i % 100 + 1)) : 0.0f);
    }
}

void tst_ApiFileBlocks::mixerTimeout_swapsBytes_afterAnOddEnd()
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
        QCOMPARE(desk.probe.blocks().at(0).at(i), scaled(expected.at(i)));
}

void tst_ApiFileBlocks::mixerTimeout_isSilent_forAnEmptyFile()
{
    const LogCapture log;
    write(in, QByteArray());
    Desk desk;
    FileApi api(in, 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    QVERIFY(api.open(nullptr, api.devices().at(0), 44100));
    api.mixerTimeout();
    QCOMPARE(desk.probe.blocks(), QList<QList<float>>{QList<float>(blockSamples, 0.0f)});
}

void tst_ApiFileBlocks::mixerTimeout_scalesTheInput()
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
    QCOMPARE(desk.probe.blocks().at(0).mid(0, expected.size()), expected);
}

void tst_ApiFileBlocks::mixerTimeout_scalesAndLimitsTheOutput()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    DuplexApi api(in, out);
    Desk desk(2);
    api.setEngine(&desk);
    const QList<float> played{1.0f,  -1.5f,        0.5f,         -1.0f,         32767.9f / 32768.0f,
                              -2.0f, 1.0e9f,       1.9f / 32768, -1.9f / 32768, 0.9f / 32768,
                              0.0f,  -0.9f / 32768};
    desk.probe.setReplacement(played);
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

void tst_ApiFileBlocks::mixerTimeout_writesSilence_forWhatIsNoNumber()
{
    const LogCapture log;
    write(in, bytesOf(counting(blockSamples)));
    DuplexApi api(in, out);
    Desk desk(2);
    api.setEngine(&desk);
    constexpr float infinity = std::numeric_limits<float>::infinity();
    desk.probe.setReplacement({std::numeric_limits<float>::quiet_NaN(), infinity, 0.5f, -infinity});
    QVERIFY(api.open(api.output, api.input, 44100));
    api.mixerTimeout();
    QVERIFY(api.close());
    QCOMPARE(samplesOf(read(out)).mid(0, 4), (QList<qint16>{0, 0, 16384, 0}));
}

void tst_ApiFileBlocks::mixerTimeout_stopsTheTimer_whenTheEngineSaysSo()
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

void tst_ApiFileBlocks::mixerTimeout_followsTheBufferSize()
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
    QCOMPARE(desk.probe.blocks().at(0).size(), 4096);
    QCOMPARE(desk.probe.blocks().at(1).size(), 1024);
    QCOMPARE(samplesOf(read(out)), counting(4096 + 1024));
}

void tst_ApiFileBlocks::start_rewindsBothFiles_withoutEmptyingThem()
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
    desk.probe.setReplacement(QList<float>(blockSamples, 0.5f));
    api.mixerTimeout();
    QVERIFY(api.close());
    QCOMPARE(desk.probe.blocks().at(2), desk.probe.blocks().at(0));
    const QList<qint16> written = samplesOf(read(out));
    QCOMPARE(written.size() * qsizetype(sizeof(qint16)), 2 * blockBytes);
    QCOMPARE(written.mid(0, blockSamples), QList<qint16>(blockSamples, 16384));
    QCOMPARE(written.mid(blockSamples), counting(2 * blockSamples).mid(blockSamples));
}

QTEST_GUILESS_MAIN(tst_ApiFileBlocks)
#include "tst_api_file_blocks.moc"
