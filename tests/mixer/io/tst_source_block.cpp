// SPDX-License-Identifier: MIT
#include "source_fixture.h"

#include <base/trace_p.h>
#include <mixer/io/effect.h>
#include <mixer/io/timeline.h>
#include <support/rtguard.h>

#include <QtTest/QTest>

#include <bit>
#include <cmath>
#include <limits>

namespace {

/// Negates what passes and counts how often.
class Inverter : public Effect
{
public:
    explicit Inverter(unsigned channels) : Effect(48000, channels) {}
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        ++calls;
        lastFrames = frames;
        for (int i = 0; i < frames * channels; ++i)
            output[i] = -input[i];
        return 1;
    }
    int calls = 0;
    int lastFrames = -1;
};

} // namespace

class TestSourceBlock : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void noChannels_touchesNothing();
    void withoutRing_isSilentAndTraced();
    void notRunning_isSilentAndTraced();
    void pendingUpdate_leavesRingUntouched();
    void pausedEngine_isTraced();
    void negativeTime_dropsWhatIsBuffered();
    void block_takesFramesInOrder();
    void block_withTooFewFrames_endsInSilence();
    void resync_data();
    void resync();
    void resync_afterSetTime_countsFromItsFrame();
    void resync_onlyWithTimelineAndWithoutRange();
    void gain_one_keepsEveryBit();
    void gain_nearlyOne_keepsEveryBit();
    void gain_multiplies();
    void effect_ofEqualChannels_runsInPlace();
    void effect_ofOtherChannels_isSkipped();
    void effect_onEmptyRing_runsWithoutFrames();
    void otherChannelCount_thanTheRing_data();
    void otherChannelCount_thanTheRing();
    void manyChannels_allArrive();
    void block_isRealTimeSafe_data();
    void block_isRealTimeSafe();

private:
    ClockEngine m_engine{48000};
};

void TestSourceBlock::noChannels_touchesNothing()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 0, 50);
    const LogCapture log;
    source.mixer_callback(nullptr, 0, 0, nullptr);
    source.mixer_callback(nullptr, -1, 0, nullptr);
    QCOMPARE(ring.readSlice().frames, 50);
    QVERIFY(linesWith(log, "Source::mixer_callback").isEmpty());
}

void TestSourceBlock::withoutRing_isSilentAndTraced()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    Block block(2, 64);
    const LogCapture log;
    source.mixer_callback(block.buses(), 2, 4711, nullptr);
    QVERIFY(block.isSilent());
    QCOMPARE(linesWith(log, "Source::mixer_callback"),
             QStringList(tracePrefix +
                         "Source::mixer_callback early-return source=" + address(&source) +
                         " buffer=0x0 isRunning=false isPaused=false mixerFrame=4711"));
}

void TestSourceBlock::notRunning_isSilentAndTraced()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 0, 50);
    source.record().running = 0;
    Block block(2, 64);
    const LogCapture log;
    source.mixer_callback(block.buses(), 2, 0, nullptr);
    QVERIFY(block.isSilent());
    QCOMPARE(ring.readSlice().frames, 50);
    QCOMPARE(linesWith(log, "Source::mixer_callback"),
             QStringList(tracePrefix + "Source::mixer_callback early-return source=" +
                         address(&source) + " buffer=" + address(ring.handle()) +
                         " isRunning=false isPaused=false mixerFrame=0"));
}

void TestSourceBlock::pendingUpdate_leavesRingUntouched()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 0, 50);
    source.update_lock();
    Block block(2, 64);
    const LogCapture log;
    source.mixer_callback(block.buses(), 2, 12, nullptr);
    source.update_unlock();
    QVERIFY(block.isSilent());
    QCOMPARE(ring.readSlice().frames, 50);
    QCOMPARE(linesWith(log, "isRunning=true isPaused=false mixerFrame=12").size(), 1);
    source.mixer_callback(block.buses(), 2, 12, nullptr);
    QCOMPARE(block.at(0, 1), rampSample(1, 0));
}

void TestSourceBlock::pausedEngine_isTraced()
{
    ClockEngine engine(48000);
    EngineAccess::shipped(engine).running = true;
    EngineAccess::shipped(engine).holdCount = 1;
    RampSource source(&engine, 48000, 2, 5.0f);
    Block block(2, 8);
    const LogCapture log;
    source.mixer_callback(block.buses(), 2, 0, nullptr);
    QCOMPARE(linesWith(log, "isPaused=true mixerFrame=0").size(), 1);
    EngineAccess::shipped(engine).holdCount = 0;
}

void TestSourceBlock::negativeTime_dropsWhatIsBuffered()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 1.0);
    source.setTimeline(&timeline);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 0, 50);
    engine.setFrame(48001);
    Block block(2, 16);
    const LogCapture log;
    source.mixer_callback(block.buses(), 2, 48001, nullptr);
    QVERIFY(block.isSilent());
    QVERIFY(ring.isEmpty());
    QCOMPARE(source.record().consumedFrames.load(), 0);
    QCOMPARE(linesWith(log, "Source::mixer_callback"),
             QStringList(tracePrefix + "Source::mixer_callback negative mixer_time source=" +
                         address(&source) + " mixer_time=-1 mixerFrame=48001"));
    // What follows in the ring keeps its place on the clock.
    produceRamp(ring, 50, 20);
    engine.setFrame(60);
    source.mixer_callback(block.buses(), 2, 60, nullptr);
    QCOMPARE(block.at(1, 0), rampSample(60, 1));
}

void TestSourceBlock::block_takesFramesInOrder()
{
    RampSource source(&m_engine, 48000, 3, 5.0f);
    FrameRing &ring = giveRing(source, 1000, 3);
    produceRamp(ring, 0, 500);
    Block block(3, 125);
    for (int b = 0; b < 4; ++b) {
        source.mixer_callback(block.buses(), 3, b * 125, nullptr);
        for (int i = 0; i < 125; ++i) {
            for (int c = 0; c < 3; ++c)
                QCOMPARE(block.at(c, i), rampSample(b * 125 + i, c));
        }
    }
    QVERIFY(ring.isEmpty());
    QCOMPARE(source.record().consumedFrames.load(), 500);
}

void TestSourceBlock::block_withTooFewFrames_endsInSilence()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 1000, 2);
    produceRamp(ring, 1, 10);
    Block block(2, 64);
    source.mixer_callback(block.buses(), 2, 0, nullptr);
    QCOMPARE(block.at(0, 9), rampSample(10, 0));
    QVERIFY(block.isSilent(10));
    QCOMPARE(source.record().consumedFrames.load(), 10);
}

void TestSourceBlock::resync_data()
{
    QTest::addColumn<int>("mixerFrame");
    QTest::addColumn<int>("audible"); // frames of the block, from the start
    QTest::addColumn<int>("left");
    QTest::addColumn<int>("consumed");
    QTest::newRow("one frame early") << 999 << 0 << 100 << 0;
    QTest::newRow("far too early") << 0 << 0 << 100 << 0;
    QTest::newRow("on time") << 1000 << 32 << 68 << 32;
    QTest::newRow("some frames late") << 1050 << 32 << 18 << 82;
    QTest::newRow("late, ring ends inside the block") << 1090 << 10 << 0 << 100;
    QTest::newRow("exactly as late as the ring holds") << 1100 << 0 << 0 << 100;
    QTest::newRow("later than the ring holds") << 1101 << 0 << 0 << 100;
    QTest::newRow("much later") << 100000 << 0 << 0 << 100;
}

void TestSourceBlock::resync()
{
    QFETCH(int, mixerFrame);
    QFETCH(int, audible);
    QFETCH(int, left);
    QFETCH(int, consumed);
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    source.setTimeline(&timeline);
    FrameRing &ring = giveRing(source, 1000, 2);
    source.record().frameBase = 1000;
    produceRamp(ring, 1000, 100);
    Block block(2, 32);
    source.mixer_callback(block.buses(), 2, mixerFrame, nullptr);
    for (int i = 0; i < audible; ++i) {
        for (int c = 0; c < 2; ++c)
            QCOMPARE(block.at(c, i), rampSample(mixerFrame + i, c));
    }
    QVERIFY(block.isSilent(audible));
    QCOMPARE(ring.readSlice().frames, left);
    QCOMPARE(source.record().consumedFrames.load(), consumed);
}

void TestSourceBlock::resync_afterSetTime_countsFromItsFrame()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    source.setTimeline(&timeline);
    FrameRing &ring = giveRing(source, 1000, 2);
    produceRamp(ring, 0, 100);
    source.update_lock();
    source.setTime(2.0);
    source.update_unlock();
    QVERIFY(ring.isEmpty());
    produceRamp(ring, 96000, 100);
    Block block(2, 32);
    engine.setFrame(96010);
    source.mixer_callback(block.buses(), 2, 96010, nullptr);
    QCOMPARE(block.at(0, 0), rampSample(96010, 0));
}

void TestSourceBlock::resync_onlyWithTimelineAndWithoutRange()
{
    RampSource free(&m_engine, 48000, 2, 5.0f);
    RampSource ranged(&m_engine, 48000, 2, Range{1.0, 2.0}, 5.0f);
    for (RampSource *source : {&free, &ranged}) {
        produceRamp(giveRing(*source, 100, 2), 5, 50);
        Block block(2, 32);
        source->mixer_callback(block.buses(), 2, 777777, nullptr);
        QCOMPARE(block.at(1, 31), rampSample(36, 1));
    }
}

void TestSourceBlock::gain_one_keepsEveryBit()
{
    const std::array<float, 8> odd = {-0.0f,
                                      std::numeric_limits<float>::denorm_min(),
                                      std::numeric_limits<float>::infinity(),
                                      std::bit_cast<float>(0x7fc12345u),
                                      0.1f,
                                      -1.0f / 3.0f,
                                      std::numeric_limits<float>::max(),
                                      std::bit_cast<float>(0xffc00001u)};
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    std::copy(odd.begin(), odd.end(), ring.writeSlice().data);
    ring.produce(4);
    Block block(2, 4);
    source.mixer_callback(block.buses(), 2, 0, nullptr);
    for (int i = 0; i < 8; ++i)
        QCOMPARE(std::bit_cast<quint32>(block.at(i % 2, i / 2)),
                 std::bit_cast<quint32>(odd[static_cast<size_t>(i)]));
}

void TestSourceBlock::gain_nearlyOne_keepsEveryBit()
{
    // |gain − 1| × 100000 ≤ min(|gain|, 1)
    for (const float gain : {1.000009f, 0.999991f}) {
        RampSource source(&m_engine, 48000, 1, 5.0f);
        produceRamp(giveRing(source, 100, 1), 30001, 4);
        source.setGain(gain);
        Block block(1, 4);
        source.mixer_callback(block.buses(), 1, 0, nullptr);
        QCOMPARE(std::bit_cast<quint32>(block.at(0, 0)),
                 std::bit_cast<quint32>(rampSample(30001, 0)));
    }
}

void TestSourceBlock::gain_multiplies()
{
    for (const float gain : {0.0f, 0.5f, 1.00002f, 0.99998f, -1.0f, 3.0f}) {
        RampSource source(&m_engine, 48000, 2, 5.0f);
        produceRamp(giveRing(source, 1000, 2), 30001, 100);
        source.setGain(gain);
        Block block(2, 100);
        source.mixer_callback(block.buses(), 2, 0, nullptr);
        for (int i = 0; i < 100; ++i) {
            for (int c = 0; c < 2; ++c)
                QCOMPARE(std::bit_cast<quint32>(block.at(c, i)),
                         std::bit_cast<quint32>(rampSample(30001 + i, c) * gain));
        }
    }
}

void TestSourceBlock::effect_ofEqualChannels_runsInPlace()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 0, 60);
    float *memory = ring.readSlice().data;
    Inverter effect(2);
    Block block(2, 50);
    source.setGain(0.5f);
    source.mixer_callback(block.buses(), 2, 0, &effect);
    QCOMPARE(effect.calls, 1);
    QCOMPARE(effect.lastFrames, 50);
    QCOMPARE(memory[99], -rampSample(49, 1));
    QCOMPARE(memory[100], rampSample(50, 0));
    QCOMPARE(block.at(1, 49), -rampSample(49, 1) * 0.5f);
}

void TestSourceBlock::effect_ofOtherChannels_isSkipped()
{
    RampSource source(&m_engine, 48000, 1, 5.0f);
    produceRamp(giveRing(source, 100, 1), 1, 60);
    Inverter effect(2);
    Block block(1, 50);
    source.mixer_callback(block.buses(), 1, 0, &effect);
    QCOMPARE(effect.calls, 0);
    for (int i = 0; i < 50; ++i)
        QCOMPARE(block.at(0, i), rampSample(1 + i, 0));
}

void TestSourceBlock::effect_onEmptyRing_runsWithoutFrames()
{
    RampSource source(&m_engine, 48000, 2, 5.0f);
    giveRing(source, 100, 2);
    Inverter effect(2);
    Block block(2, 50);
    source.mixer_callback(block.buses(), 2, 0, &effect);
    QCOMPARE(effect.calls, 1);
    QCOMPARE(effect.lastFrames, 0);
    QVERIFY(block.isSilent());
}

void TestSourceBlock::otherChannelCount_thanTheRing_data()
{
    QTest::addColumn<int>("channels");
    QTest::newRow("fewer") << 1;
    QTest::newRow("more") << 4;
}

void TestSourceBlock::otherChannelCount_thanTheRing()
{
    QFETCH(int, channels);
    RampSource source(&m_engine, 48000, channels, 5.0f);
    FrameRing &ring = giveRing(source, 100, 2);
    produceRamp(ring, 1, 10);
    Inverter effect(static_cast<unsigned>(channels));
    Block block(channels, 8);
    source.mixer_callback(block.buses(), channels, 0, &effect);
    QCOMPARE(effect.calls, 0);
    for (int c = 0; c < channels; ++c) {
        for (int i = 0; i < 8; ++i)
            QCOMPARE(block.at(c, i), c < 2 ? rampSample(1 + i, c) : 0.0f);
    }
    QCOMPARE(ring.readSlice().frames, 2);
}

void TestSourceBlock::manyChannels_allArrive()
{
    constexpr int channels = 71;
    RampSource source(&m_engine, 48000, channels, 5.0f);
    produceRamp(giveRing(source, 100, channels), 1, 20);
    for (const float gain : {1.0f, 0.25f}) {
        source.setGain(gain);
        Block block(channels, 10);
        source.mixer_callback(block.buses(), channels, 0, nullptr);
        const qint64 first = gain == 1.0f ? 1 : 11;
        for (int c = 0; c < channels; ++c) {
            for (int i = 0; i < 10; ++i)
                QCOMPARE(block.at(c, i), rampSample(first + i, c) * gain);
        }
    }
}

void TestSourceBlock::block_isRealTimeSafe_data()
{
    QTest::addColumn<int>("sourceRate");
    QTest::newRow("equal rates") << 48000;
    QTest::newRow("converting") << 44100;
}

void TestSourceBlock::block_isRealTimeSafe()
{
    QFETCH(int, sourceRate);
    ClockEngine engine(48000);
    Timeline timeline;
    timeline.setLimits(0.0, 0.1);
    RampSource source(&engine, sourceRate, 2, 5.0f);
    source.setTimeline(&timeline);
    Inverter effect(2);
    Block block(2, 256);
    const auto render = [&](qint64 frame) {
        engine.setFrame(frame);
        source.mixer_callback(block.buses(), 2, frame, &effect);
    };
    const LogCapture log;
    RealtimeGuard::resetTotal();
    {
        const AudioThreadMark mark;
        render(0); // before there is a ring
    }
    source.start();
    source.prime();
    {
        const AudioThreadMark mark;
        const RealtimeGuard guard;
        for (qint64 frame = 0; frame < 2048; frame += 256)
            render(frame);
        source.setGain(0.5f);
        render(2100); // later than the ring's next frame
        render(0);    // earlier
        render(4801); // outside the limits
        QCOMPARE(guard.violations(), 0);
    }
    source.pause(PauseSoft);
    {
        const AudioThreadMark mark;
        const RealtimeGuard guard;
        render(2400);
        QCOMPARE(guard.violations(), 0);
    }
    flushTrace();
    QCOMPARE(linesWith(log, "Source::mixer_callback early-return").size(), 2);
    QCOMPARE(linesWith(log, "Source::mixer_callback negative mixer_time").size(), 1);
    QVERIFY2(RealtimeGuard::total() == 0, qPrintable(RealtimeGuard::first()));
}

QTEST_GUILESS_MAIN(TestSourceBlock)
#include "tst_source_block.moc"
