// SPDX-License-Identifier: MIT
// Block sizes that change under an open stream, and devices with more channels than the mix has.
#include "api/virtual_fixture.h"

#include <support/log_capture.h>
#include <support/session.h>

#include <QtTest/QTest>

using namespace QTovelMixer;
using Pacing = QTovelMixerApiVirtual::Pacing;

namespace {

constexpr unsigned streamBlock = 1024; // frames
constexpr qint64 blocks = 18;
constexpr qint64 playedFrames = blocks * streamBlock;

/// Frames of stereo noise that are not where they belong.
qint64 wrongFrames(const std::vector<float> &samples, unsigned seed)
{
    qint64 wrong = 0;
    for (size_t i = 0; i < samples.size(); i += 2) {
        const qint64 frame = qint64(i / 2);
        if (samples[i] != noiseSample(seed, frame, 0) ||
            samples[i + 1] != noiseSample(seed, frame, 1))
            ++wrong;
    }
    return wrong;
}

} // namespace

class tst_EngineBlocks : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void setBufferFrames_leavesTheOpenStreamAlone_data();
    void setBufferFrames_leavesTheOpenStreamAlone();
    void setBufferFrames_takesEffect_whenADeviceIsOpened();
    void wideOutput_isMixedInItsFirst128Channels();
    void wideInput_isMixedInItsFirst128Channels();
    void wideDevice_keepsItsOwnCount_andIsMentionedOnce();

private:
    std::unique_ptr<LogCapture> m_quiet;
};

void tst_EngineBlocks::setBufferFrames_leavesTheOpenStreamAlone_data()
{
    QTest::addColumn<unsigned>("frames");
    QTest::newRow("shorter") << 256u;
    QTest::newRow("one frame") << 1u;
    QTest::newRow("longer") << 4096u;
}

void tst_EngineBlocks::setBufferFrames_leavesTheOpenStreamAlone()
{
    QFETCH(unsigned, frames);
    VirtualSession session(Pacing::FreeWheel, playedFrames, 2, 0, 48000, streamBlock);
    session.api->setBufferFrames(frames);
    NoiseSource *source = session.add(48000, 2, playedFrames, 7);
    QVERIFY(source);
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.addRoute(source, sink));
    QVERIFY(session.engine.start());
    QVERIFY(session.finish());
    QCOMPARE(wrongFrames(session.kept, 7), 0);
    QTRY_VERIFY(sink->keptFrames >= playedFrames);
    std::vector<float> take = sink->samples();
    take.resize(size_t(playedFrames) * 2);
    QCOMPARE(wrongFrames(take, 7), 0);
    session.engine.stop(true, UserStopAction);
    QTRY_COMPARE(session.engine.numActiveSinks(), 0);
}

void tst_EngineBlocks::setBufferFrames_takesEffect_whenADeviceIsOpened()
{
    VirtualSession session(Pacing::RealTime, 1, 2, 0, 48000, streamBlock);
    std::atomic<unsigned> heard{0};
    session.api->setOutputHandler(
        [&heard](const float *, unsigned frames, unsigned, quint64) { heard = frames; });
    Device *device = session.engine.currentDevice(DeviceKind::Output);
    session.api->setBufferFrames(256);
    QVERIFY(session.engine.select(device, nullptr, 48000));
    QVERIFY(session.add(48000, 2, 480000, 1));
    QTRY_COMPARE(heard.load(), streamBlock);
    QVERIFY(session.engine.open(device, nullptr, 48000));
    QTRY_COMPARE(heard.load(), 256u);
    session.engine.deactivate();
}

void tst_EngineBlocks::wideOutput_isMixedInItsFirst128Channels()
{
    constexpr int width = 192;
    Session session(0, width);
    RampSource *source = session.addRamp(48000, 20.0);
    QVERIFY(source);
    QVERIFY(session.engine.setGain(source, 0, 127, 0.5f));
    LogCapture log;
    QVERIFY(!session.engine.setGain(source, 0, 128, 1.0f));
    QVERIFY(!session.engine.setGain(source, 0, 191, 1.0f));
    QCOMPARE(log.count("QTovelMixer::setGain: Invalid input channel (128)!!"), 1);
    QVERIFY(session.engine.start());
    for (int block = 0; block < 4; ++block) {
        session.run(1);
        for (int i = 0; i < Session::blockFrames; ++i) {
            const float *frame = session.api->output.constData() + i * width;
            const float position = float(block * Session::blockFrames + i);
            QCOMPARE(frame[0], position);
            QCOMPARE(frame[1], position + 0.25f);
            QCOMPARE(frame[127], position * 0.5f);
            for (int channel : {2, 126, 128, 191})
                QCOMPARE(frame[channel], 0.0f);
        }
    }
    auto *sink = new TakeSink(&session.engine, 48000, 1);
    QVERIFY(!session.engine.addSink(sink));
    delete sink;
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineBlocks::wideInput_isMixedInItsFirst128Channels()
{
    constexpr int width = 129;
    constexpr qint64 wanted = 4 * Session::blockFrames;
    Session session(width, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.setGain(0, sink, 0, 0.0f));
    QVERIFY(session.engine.setGain(127, sink, 0, 0.5f));
    QVERIFY(!session.engine.setGain(128, sink, 0, 1.0f));
    QVERIFY(session.startRecording());
    session.run(4);
    QTRY_VERIFY(sink->frames() >= wanted);
    const std::vector<float> take = sink->samples();
    for (int i = 0; i < wanted; ++i) {
        QCOMPARE(take[size_t(i) * 2], float(i) * 0.5f);
        QCOMPARE(take[size_t(i) * 2 + 1], float(i));
    }
    // The device's channels take every input of the mix.
    QVERIFY(!session.addRamp(48000, 1.0));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EngineBlocks::wideDevice_keepsItsOwnCount_andIsMentionedOnce()
{
    LogCapture log;
    Session session(130, 192);
    QCOMPARE(session.engine.numInputChannels(), 130u);
    QCOMPARE(session.engine.numOutputChannels(), 192u);
    QVERIFY(session.engine.outputMeter());
    QCOMPARE(log.count(QtWarningMsg, "QTovelMixer::Engine::open: the mix uses the first 128 of 130 "
                                     "input channels"),
             1);
    QCOMPARE(log.count(QtWarningMsg, "QTovelMixer::Engine::open: the mix uses the first 128 of 192 "
                                     "output channels"),
             1);
    session.engine.setMonitoring(true);
    auto *sink = new TakeSink(&session.engine, 48000, 1);
    QVERIFY(!session.engine.addSink(sink));
    delete sink;
    session.engine.setStreaming(true);
    session.run(2);
    const float *last = session.api->output.constData() + (Session::blockFrames - 1) * 192;
    for (int channel : {0, 64, 127})
        QCOMPARE(last[channel], float(2 * Session::blockFrames - 1));
    for (int channel : {128, 129, 191})
        QCOMPARE(last[channel], 0.0f);
}

QTEST_GUILESS_MAIN(tst_EngineBlocks)
#include "tst_engine_blocks.moc"
