// SPDX-License-Identifier: MIT
#include "source_fixture.h"

#include <mixer/io/timeline.h>

#include <QtCore/QRandomGenerator>
#include <QtTest/QTest>

#include <cmath>
#include <limits>
#include <optional>

namespace {

constexpr int patience = 20000;  // ms, far beyond what any step takes
constexpr int mixerRate = 48000; // Hz
constexpr int blockFrames = 512;

/// The filter sees silence instead of what lies before a seek or splice: mixer frames until it
/// no longer does, for the rates used here.
constexpr qint64 settleFrames = 200;

/// A started source on a timeline of 100 s, driven block by block.
struct Player
{
    Player(ClockEngine &owner, Timeline &line, int rate)
        : engine(owner), source(&owner, rate, 1, 5.0f)
    {
        source.duration = 1000.0;
        source.setTimeline(&line);
    }

    bool waitForFrames(qint64 frames)
    {
        return QTest::qWaitFor([&] { return readyFrames(source) >= frames; }, patience);
    }

    /// Renders the block that begins at `frame`; false when the source had too little.
    bool render(qint64 frame)
    {
        FrameRing *ring = source.record().ring;
        if (!ring)
            return false;
        const qint64 behind = frame - source.record().frameBase - ring->readSlice().position;
        if (!waitForFrames(std::max<qint64>(behind, 0) + blockFrames))
            return false;
        engine.setFrame(frame);
        source.mixer_callback(block.buses(), 1, frame, nullptr);
        return true;
    }

    /// The material's second that sounds in frame `i` of the block rendered last.
    double heard(int i) const { return block.at(0, i) / 2.0 / source.sampleRate(); }

    void seek(double seconds)
    {
        source.update_lock();
        source.setTime(seconds);
        engine.setFrame(static_cast<qint64>(seconds * mixerRate + 0.5));
        source.update_unlock();
    }

    ClockEngine &engine;
    RampSource source;
    Block block{1, blockFrames};
};

} // namespace

class TestSourceReposition : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void setTime_movesEveryPosition();
    void setTime_impossibleTime_isZero_data();
    void setTime_impossibleTime_isZero();
    void setTime_clearsThePausePosition();
    void setTime_afterStop_keepsThePausePosition();
    void adjustTime_data();
    void adjustTime();
    void adjustTime_clearsThePausePosition();
    void adjustTime_unchanged_keepsThePausePosition();
    void adjustTime_behindTheCut_stillPauses();
    void adjustTime_exemptSources_stayAsTheyAre();
    void adjustTime_withoutRing_movesTheClock();
    void seek_equalRates_isExactToTheSample();
    void seek_backFromThePausePosition_playsAgain();
    void seeks_keepSourcesOfAllRatesAligned();
    void withdrawals_keepAlignment_data();
    void withdrawals_keepAlignment();
    void loopPasses_keepAlignment_data();
    void loopPasses_keepAlignment();
};

void TestSourceReposition::setTime_movesEveryPosition()
{
    ClockEngine engine(mixerRate);
    RampSource source(&engine, 44100, 2, 5.0f);
    FrameRing &ring = giveRing(source, 1000, 2);
    produceRamp(ring, 0, 500);
    source.update_lock();
    source.setTime(1.00001);
    source.update_unlock();
    QVERIFY(ring.isEmpty());
    QCOMPARE(ring.readSlice().position, 0);
    QCOMPARE(source.record().frameBase.load(), 48000); // 48000.48
    QCOMPARE(source.record().readTime, 1.00001);
    QCOMPARE(source.record().rangeCursor.load(), 1.00001);
    QCOMPARE(source.record().playStartTime.load(), 1.00001);
}

void TestSourceReposition::setTime_impossibleTime_isZero_data()
{
    QTest::addColumn<double>("time");
    QTest::newRow("no number") << std::numeric_limits<double>::quiet_NaN();
    QTest::newRow("infinite") << std::numeric_limits<double>::infinity();
    QTest::newRow("minus infinite") << -std::numeric_limits<double>::infinity();
    QTest::newRow("beyond 64 bits") << 1e300;
}

void TestSourceReposition::setTime_impossibleTime_isZero()
{
    QFETCH(double, time);
    ClockEngine engine(mixerRate);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.setTime(3.0);
    source.setTime(time);
    QCOMPARE(source.record().frameBase.load(), 0);
    QCOMPARE(source.record().readTime, 0.0);
    QCOMPARE(source.record().playStartTime.load(), 0.0);
}

void TestSourceReposition::setTime_clearsThePausePosition()
{
    ClockEngine engine(mixerRate);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.record().pausePositionReached = true;
    source.record().pausePositionTime = 4.0;
    source.setTime(1.0);
    QVERIFY(!source.record().pausePositionReached);
    QCOMPARE(source.record().pausePositionTime.load(), -1.0);
}

void TestSourceReposition::setTime_afterStop_keepsThePausePosition()
{
    ClockEngine engine(mixerRate);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.record().pausePositionReached = true;
    source.record().pausePositionTime = 4.0;
    source.stop(UserStopAction);
    source.setTime(1.0);
    QVERIFY(source.record().pausePositionReached);
    QCOMPARE(source.record().pausePositionTime.load(), 4.0);
}

void TestSourceReposition::adjustTime_data()
{
    // 400 frames are ready, the first of them for frame 1100.
    QTest::addColumn<double>("playFrame");
    QTest::addColumn<double>("keepFrames");
    QTest::addColumn<int>("left");
    QTest::addColumn<int>("frameBase");
    QTest::addColumn<int>("readFrame");
    QTest::newRow("nothing to do") << 1100.0 << 48000.0 << 400 << 1000 << 1500;
    QTest::newRow("keeps exactly what is there") << 1100.0 << 400.0 << 400 << 1000 << 1500;
    QTest::newRow("withdraws") << 1100.0 << 100.0 << 100 << 1000 << 1200;
    QTest::newRow("rounds what it keeps") << 1100.0 << 99.6 << 100 << 1000 << 1200;
    QTest::newRow("withdraws everything") << 1100.0 << 0.0 << 0 << 1000 << 1100;
    QTest::newRow("negative keep") << 1100.0 << -9600.0 << 0 << 1000 << 1100;
    QTest::newRow("moves on") << 5000.0 << 48000.0 << 400 << 4900 << 5400;
    QTest::newRow("moves back") << 100.0 << 48000.0 << 400 << 0 << 500;
    QTest::newRow("moves and withdraws") << 5000.0 << 100.0 << 100 << 4900 << 5100;
}

void TestSourceReposition::adjustTime()
{
    QFETCH(double, playFrame);
    QFETCH(double, keepFrames);
    QFETCH(int, left);
    QFETCH(int, frameBase);
    QFETCH(int, readFrame);
    ClockEngine engine(mixerRate);
    Timeline timeline;
    RampSource source(&engine, mixerRate, 2, 5.0f);
    source.setTimeline(&timeline);
    FrameRing &ring = giveRing(source, 1000, 2);
    source.record().frameBase = 1000;
    source.record().readTime = 1500.0 / mixerRate;
    produceRamp(ring, 1000, 500);
    ring.consume(100);
    source.update_lock();
    source.adjustTime(playFrame / mixerRate, keepFrames / mixerRate);
    source.update_unlock();
    QCOMPARE(ring.readSlice().frames, left);
    QCOMPARE(source.record().frameBase.load(), frameBase);
    QCOMPARE(source.record().readTime, readFrame / static_cast<double>(mixerRate));
}

void TestSourceReposition::adjustTime_clearsThePausePosition()
{
    for (const bool withdraw : {true, false}) {
        ClockEngine engine(mixerRate);
        Timeline timeline;
        RampSource source(&engine, mixerRate, 2, 5.0f);
        source.setTimeline(&timeline);
        produceRamp(giveRing(source, 1000, 2), 0, 500);
        source.record().pausePositionReached = true;
        source.record().pausePositionTime = 4.0;
        source.adjustTime(withdraw ? 0.0 : 1.0, withdraw ? 0.0 : 1.0);
        QVERIFY(!source.record().pausePositionReached);
        QCOMPARE(source.record().pausePositionTime.load(), -1.0);
    }
}

void TestSourceReposition::adjustTime_unchanged_keepsThePausePosition()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    RampSource source(&engine, mixerRate, 2, 5.0f);
    source.setTimeline(&timeline);
    produceRamp(giveRing(source, 1000, 2), 0, 500);
    source.record().pausePositionReached = true;
    source.adjustTime(0.0, 1.0);
    QVERIFY(source.record().pausePositionReached);
}

void TestSourceReposition::adjustTime_behindTheCut_stillPauses()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 10.0);
    timeline.setLooping(true);
    RampSource source(&engine, mixerRate, 1, 5.0f);
    source.setTimeline(&timeline);
    source.pauseAt = 48000.72 / mixerRate; // the cut rounds up to 48001 frames
    std::vector<float> buffer(4096);
    const auto fill = [&](qint64 frame) {
        return source.fill_production_buffer(buffer.data(), 4096, mixerRate, 1,
                                             static_cast<double>(frame) / mixerRate);
    };
    QCOMPARE(fill(47001), 1000);
    source.adjustTime(10.0, 100.0); // the clock moves by one pass, the material stays
    QVERIFY(!source.record().pausePositionReached);
    QCOMPARE(fill(480000 + 48001), 0);
    QVERIFY(source.record().pausePositionReached);
    // A seek to the same frame starts behind the position.
    source.setTime(48001.0 / mixerRate);
    QCOMPARE(fill(48001), 4096);
}

void TestSourceReposition::adjustTime_exemptSources_stayAsTheyAre()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    RampSource ranged(&engine, mixerRate, 2, Range{1.0, 2.0}, 5.0f);
    ranged.setTimeline(&timeline);
    RampSource free(&engine, mixerRate, 2, 5.0f);
    RampSource mute(&engine, mixerRate, 0, 5.0f);
    mute.setTimeline(&timeline);
    for (RampSource *source : {&ranged, &free, &mute}) {
        produceRamp(giveRing(*source, 1000, 2), 0, 500);
        source->adjustTime(3.0, 0.0);
        QCOMPARE(readyFrames(*source), 500);
        QCOMPARE(source->record().frameBase.load(), 0);
        QCOMPARE(source->record().readTime, 0.0);
    }
}

void TestSourceReposition::adjustTime_withoutRing_movesTheClock()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    RampSource source(&engine, 44100, 2, 5.0f);
    source.setTimeline(&timeline);
    source.adjustTime(3.0, 0.0);
    QCOMPARE(source.record().frameBase.load(), 3 * mixerRate);
    QCOMPARE(source.record().readTime, 3.0);
}

void TestSourceReposition::seek_equalRates_isExactToTheSample()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 100.0);
    Player player(engine, timeline, mixerRate);
    player.source.start();
    player.source.prime();
    qint64 frame = 0;
    for (const double target : {0.0, 7.0, 2.5, 2.5, 60.25, 0.125, 99.0}) {
        player.seek(target);
        frame = static_cast<qint64>(target * mixerRate + 0.5);
        for (int b = 0; b < 12; ++b, frame += blockFrames) {
            QVERIFY(player.render(frame));
            for (int i = 0; i < blockFrames; ++i)
                QCOMPARE(player.block.at(0, i), rampSample(frame + i, 0));
        }
    }
}

void TestSourceReposition::seek_backFromThePausePosition_playsAgain()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 100.0);
    Player player(engine, timeline, mixerRate);
    player.source.pauseAt = 2.0;
    player.source.start();
    player.source.prime();
    QVERIFY(player.waitForFrames(2 * mixerRate)); // all up to the pause position is read
    QVERIFY(player.source.record().pausePositionReached);
    player.seek(1.0);
    QVERIFY(player.render(mixerRate));
    QCOMPARE(player.block.at(0, 0), rampSample(mixerRate, 0));
    QVERIFY(!player.source.wasStoped());
    takeAll(player.source); // and it ends there once more
    QCOMPARE(player.source.stopReason(), PausePositionReached);
}

void TestSourceReposition::seeks_keepSourcesOfAllRatesAligned()
{
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 100.0);
    std::vector<std::unique_ptr<Player>> players;
    for (const int rate : {44100, 48000, 96000}) {
        players.push_back(std::make_unique<Player>(engine, timeline, rate));
        players.back()->source.start();
        players.back()->source.prime();
    }
    QRandomGenerator random(2024);
    for (int n = 0; n < 100; ++n) {
        const double target = random.bounded(10.0);
        for (const auto &player : players)
            player->seek(target);
        qint64 frame = static_cast<qint64>(target * mixerRate + 0.5);
        for (int b = 0; b < 2; ++b, frame += blockFrames) {
            for (const auto &player : players)
                QVERIFY(player->render(frame));
            for (int i = b == 0 ? settleFrames : 0; i < blockFrames; i += 37) {
                const double expected = static_cast<double>(frame + i) / mixerRate;
                // A seek rounds to a frame of the clock and to a frame of the source.
                for (const auto &player : players)
                    QVERIFY(std::abs(player->heard(i) - expected) <= 1.0 / 44100);
            }
        }
    }
}

void TestSourceReposition::withdrawals_keepAlignment_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("44100") << 44100;
    QTest::newRow("48000") << 48000;
    QTest::newRow("96000") << 96000;
}

void TestSourceReposition::withdrawals_keepAlignment()
{
    QFETCH(int, rate);
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 100.0);
    Player player(engine, timeline, rate);
    player.source.start();
    player.source.prime();
    QRandomGenerator random(7);
    qint64 frame = 0;
    std::vector<qint64> splices = {0};
    for (int n = 0; n < 100; ++n) {
        const qint64 keep = random.bounded(700);
        player.source.update_lock();
        const qint64 ready = readyFrames(player.source);
        player.source.adjustTime(static_cast<double>(frame) / mixerRate,
                                 static_cast<double>(keep) / mixerRate);
        player.source.update_unlock();
        splices.push_back(frame + std::min(ready, keep));
        for (int b = 0; b < 3; ++b, frame += blockFrames) {
            QVERIFY(player.render(frame));
            for (int i = 0; i < blockFrames; ++i) {
                const qint64 now = frame + i;
                const bool settling = std::any_of(splices.begin(), splices.end(), [&](qint64 at) {
                    return rate != mixerRate && now >= at - 1 && now < at + settleFrames;
                });
                if (!settling)
                    QVERIFY(std::abs(player.heard(i) * mixerRate - static_cast<double>(now)) <=
                            1.0);
            }
        }
    }
}

void TestSourceReposition::loopPasses_keepAlignment_data()
{
    withdrawals_keepAlignment_data();
}

void TestSourceReposition::loopPasses_keepAlignment()
{
    // The clock is taken back by whole passes again and again, as when looping is switched.
    QFETCH(int, rate);
    ClockEngine engine(mixerRate);
    Timeline timeline;
    timeline.setLimits(0.0, 0.75);
    timeline.setLooping(true);
    constexpr qint64 pass = 36000; // frames
    Player player(engine, timeline, rate);
    player.source.start();
    player.source.prime();
    qint64 frame = 0;
    double worst = 0.0;
    for (int n = 0; n < 60; ++n) {
        for (qint64 end = frame + pass; frame < end; frame += blockFrames) {
            QVERIFY(player.render(frame));
            for (int i = 0; i < blockFrames; ++i) {
                const qint64 inPass = (frame + i) % pass;
                // Near the wrap the filter mixes both ends of the pass.
                if (inPass >= settleFrames && inPass < pass - settleFrames)
                    worst = std::max(
                        worst, std::abs(player.heard(i) * mixerRate - static_cast<double>(inPass)));
            }
        }
        const qint64 back = frame - frame % pass;
        player.source.update_lock();
        player.source.adjustTime(static_cast<double>(frame - back) / mixerRate, 100.0);
        frame -= back;
        engine.setFrame(frame);
        player.source.update_unlock();
    }
    QVERIFY2(worst <= 1.0, qPrintable(QString::number(worst)));
}

QTEST_GUILESS_MAIN(TestSourceReposition)
#include "tst_source_reposition.moc"
