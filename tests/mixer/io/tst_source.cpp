// SPDX-License-Identifier: MIT
#include "source_fixture.h"

#include <mixer/io/timeline.h>

#include <QtTest/QTest>

#include <cstring>
#include <limits>

Q_DECLARE_METATYPE(QTovelMixer::Range)
Q_DECLARE_METATYPE(QTovelMixer::PauseMode)

namespace {

/// The place of a virtual function in its class's table (Itanium C++ ABI).
template <typename Function>
qintptr firstWord(Function function)
{
    qintptr words[2] = {};
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
    return words[0];
}

// Attributes of a function's type are not part of a template's name: here they fall off.
template <typename Result, typename... Arguments>
qintptr slotOf(Result (Source::*function)(Arguments...))
{
    return firstWord(function);
}

template <typename Result, typename... Arguments>
qintptr slotOf(Result (Source::*function)(Arguments...) const)
{
    return firstWord(function);
}

} // namespace

class TestSource : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void construction_startsWithDefaults();
    void construction_raisesBufferLength_data();
    void construction_raisesBufferLength();
    void virtuals_standInTheirOrder();
    void setters_storeTheirFields();
    void isContinuous_asksForAValidRange_data();
    void isContinuous_asksForAValidRange();
    void setRange_withoutTimeline_movesReading();
    void setRange_afterSetTimeline_warnsAndKeeps();
    void setTimeline_withRange_isIgnored();
    void loopTimes_preferRangeThenTimelineThenEngine();
    void currentChunkEnd_prefersRangeThenTimelineThenMaterial();
    void time_withoutTimeline_isTheEnginesUpToThePausePosition();
    void time_withTimeline_isTheTimelines();
    void withoutEngine_everythingAnswers();
    void isFinished_needsStartAndStop();
    void stop_noReason_keepsTheReason();
    void stop_writesItsTrace();
    void pause_asksForBothModes_data();
    void pause_asksForBothModes();
    void pause_keepState_announcesConfig();
    void pause_soft_announcesDefaultConfig();
    void pause_otherMode_onlySilences();
    void resume_takesOneSilenceBack();
    void resume_withoutPause_neverGoesBelowZero();
    void updateLock_countsAndNeverGoesBelowZero();
    void playedTime_dividesByTheOwnRate();
    void stateChange_notifiesBeforeTheSignal();
    void onAdded_doesNothing();
    void destruction_neverStarted();
};

void TestSource::construction_startsWithDefaults()
{
    ClockEngine engine(48000);
    const RampSource source(&engine, 44100, 2, 6.0f);
    QVERIFY(!source.parent());
    QCOMPARE(source.mixerEngine(), &engine);
    QCOMPARE(source.sampleRate(), 44100);
    QCOMPARE(source.numChannels(), 2);
    QCOMPARE(source.gain(), 1.0f);
    QCOMPARE(source.channelMask(), quint64{0xff});
    QCOMPARE(source.stopReason(), UserStopAction);
    QCOMPARE(source.range(), Range());
    QVERIFY(!source.timeline());
    QVERIFY(!source.isRunning() && !source.isFinished() && !source.wasStoped());
    QVERIFY(!source.isPaused() && !source.isLooping() && !source.isContinuous());
    QCOMPARE(source.Source::configScale(), 1.0);
    QCOMPARE(source.Source::configFlags(), 0);
    QCOMPARE(source.Source::pausePosition(), -1.0);
    QCOMPARE(source.playedTime(), 0.0);
}

void TestSource::construction_raisesBufferLength_data()
{
    QTest::addColumn<float>("asked");
    QTest::addColumn<float>("kept");
    QTest::newRow("shorter") << 1.0f << 5.0f;
    QTest::newRow("negative") << -3.0f << 5.0f;
    QTest::newRow("equal") << 5.0f << 5.0f;
    QTest::newRow("longer") << 7.5f << 7.5f;
    QTest::newRow("no number") << std::numeric_limits<float>::quiet_NaN() << 5.0f;
}

void TestSource::construction_raisesBufferLength()
{
    QFETCH(float, asked);
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 1, asked);
    QTEST(source.record().bufferSeconds, "kept");
}

void TestSource::virtuals_standInTheirOrder()
{
    const std::vector<qintptr> order = {
        slotOf(&Source::loopStartTime),
        slotOf(&Source::loopEndTime),
        slotOf(&Source::startTime),
        slotOf(&Source::currentChunkEnd),
        slotOf(&Source::time),
        slotOf(&Source::channelMask),
        slotOf(&Source::contentStart),
        slotOf(&Source::contentDuration),
        slotOf(&Source::configScale),
        slotOf(&Source::gain),
        slotOf(&Source::numChannels),
        slotOf(&Source::sampleRate),
        slotOf(&Source::isRunning),
        slotOf(&Source::isPaused),
        slotOf(&Source::isLooping),
        slotOf(&Source::isFinished),
        slotOf(&Source::isContinuous),
        slotOf(&Source::wasStoped),
        slotOf(&Source::acceptPause),
        slotOf(&Source::stopReason),
        slotOf(&Source::setRange),
        slotOf(static_cast<Range (Source::*)()>(&Source::range)),
        slotOf(static_cast<Range (Source::*)() const>(&Source::range)),
        slotOf(&Source::setTime),
        slotOf(&Source::setGain),
        slotOf(&Source::start),
        slotOf(&Source::stop),
        slotOf(&Source::readSamples),
        slotOf(&Source::update_lock),
        slotOf(&Source::update_unlock),
        slotOf(&Source::notifyState),
        slotOf(&Source::onAdded),
        slotOf(&Source::onFinished),
        slotOf(&Source::onRunStart),
        slotOf(&Source::onStop),
        slotOf(&Source::onPause),
        slotOf(&Source::onResume),
        slotOf(&Source::configFlags),
        slotOf(&Source::setNumChannels),
        slotOf(&Source::setSampleRate),
        slotOf(&Source::pausePosition),
        slotOf(&Source::playedTime),
        slotOf(&Source::adjustTime),
        slotOf(&Source::setChannelsMask),
        slotOf(&Source::pause),
        slotOf(&Source::resume),
        slotOf(&Source::prime),
        slotOf(&Source::state_change),
        slotOf(&Source::setTimeline),
    };
    for (size_t i = 1; i < order.size(); ++i)
        QCOMPARE(order[i], order[i - 1] + static_cast<qintptr>(sizeof(void *)));
}

void TestSource::setters_storeTheirFields()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.setGain(0.25f);
    source.setNumChannels(6);
    source.setSampleRate(96000);
    source.setChannelsMask(0xf0f0f0f0f0f0f0f0ull);
    QCOMPARE(source.gain(), 0.25f);
    QCOMPARE(source.numChannels(), 6);
    QCOMPARE(source.sampleRate(), 96000);
    QCOMPARE(source.channelMask(), quint64{0xf0f0f0f0f0f0f0f0ull});
    Timeline timeline;
    source.setTimeline(&timeline);
    QCOMPARE(source.timeline(), &timeline);
    source.setTimeline(nullptr);
    QVERIFY(!source.timeline());
}

void TestSource::isContinuous_asksForAValidRange_data()
{
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("end");
    QTest::addColumn<bool>("continuous");
    QTest::newRow("none") << -1.0 << -1.0 << false;
    QTest::newRow("from zero") << 0.0 << 1.0 << true;
    QTest::newRow("empty") << 1.0 << 1.0 << false;
    QTest::newRow("backwards") << 2.0 << 1.0 << false;
    QTest::newRow("negative start") << -0.5 << 1.0 << false;
    QTest::newRow("no number") << std::numeric_limits<double>::quiet_NaN() << 1.0 << false;
}

void TestSource::isContinuous_asksForAValidRange()
{
    QFETCH(double, start);
    QFETCH(double, end);
    ClockEngine engine(48000);
    const RampSource source(&engine, 48000, 2, Range{start, end}, 5.0f);
    QTEST(source.isContinuous(), "continuous");
}

void TestSource::setRange_withoutTimeline_movesReading()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    const LogCapture log;
    source.setRange({2.0, 3.0});
    QCOMPARE(source.range(), (Range{2.0, 3.0}));
    QCOMPARE(std::as_const(source).range(), (Range{2.0, 3.0}));
    QCOMPARE(source.record().rangeCursor.load(), 2.0);
    QCOMPARE(source.record().playStartTime.load(), 2.0);
    source.setRange({4.0, 5.0});
    QCOMPARE(source.range(), (Range{4.0, 5.0}));
    QVERIFY(linesWith(log, "playbaack").isEmpty());
}

void TestSource::setRange_afterSetTimeline_warnsAndKeeps()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    source.setTimeline(&timeline);
    QTest::ignoreMessage(
        QtWarningMsg, "You can not assign a playbaack range after adding the object to the mixer.");
    source.setRange({2.0, 3.0});
    QCOMPARE(source.range(), Range());
    QCOMPARE(source.record().rangeCursor.load(), -1.0);
    QCOMPARE(source.record().playStartTime.load(), -1.0);
}

void TestSource::setTimeline_withRange_isIgnored()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, Range{1.0, 2.0}, 5.0f);
    Timeline timeline;
    source.setTimeline(&timeline);
    QVERIFY(!source.timeline());
    source.setTimeline(nullptr);
    QVERIFY(!source.timeline());
}

void TestSource::loopTimes_preferRangeThenTimelineThenEngine()
{
    ClockEngine engine(48000);
    EngineAccess::shipped(engine).startTime = 1.5;
    RampSource free(&engine, 48000, 2, 5.0f);
    QCOMPARE(free.startTime(), 1.5);
    QCOMPARE(free.loopStartTime(), 1.5);
    QCOMPARE(free.loopEndTime(), std::numeric_limits<double>::max());

    Timeline timeline;
    timeline.setLimits(3.0, 9.0);
    free.setTimeline(&timeline);
    QCOMPARE(free.startTime(), 1.5);
    QCOMPARE(free.loopStartTime(), 3.0);
    QCOMPARE(free.loopEndTime(), 9.0);

    const RampSource ranged(&engine, 48000, 2, Range{4.0, 5.0}, 5.0f);
    QCOMPARE(ranged.startTime(), 4.0);
    QCOMPARE(ranged.loopStartTime(), 4.0);
    QCOMPARE(ranged.loopEndTime(), 5.0);
}

void TestSource::currentChunkEnd_prefersRangeThenTimelineThenMaterial()
{
    ClockEngine engine(48000);
    RampSource free(&engine, 48000, 2, 5.0f);
    free.duration = 7.0;
    QCOMPARE(free.currentChunkEnd(1.0), 7.0);

    Timeline timeline;
    timeline.setLimits(0.0, 9.0);
    free.setTimeline(&timeline);
    QCOMPARE(free.currentChunkEnd(1.0), 9.0);
    timeline.addSlice(1.0, 2.0);
    timeline.addSlice(5.0, 6.0);
    QCOMPARE(free.currentChunkEnd(5.5), 6.0);
    QCOMPARE(free.currentChunkEnd(3.0), 0.0);
    free.setTime(0.0);
    engine.setFrame(48000 + 24000); // half a second into the second slice
    QCOMPARE(free.currentChunkEnd(-1.0), 6.0);

    const RampSource ranged(&engine, 48000, 2, Range{4.0, 5.0}, 5.0f);
    QCOMPARE(ranged.currentChunkEnd(1.0), 5.0);
}

void TestSource::time_withoutTimeline_isTheEnginesUpToThePausePosition()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    engine.setFrame(96000);
    QCOMPARE(source.time(false), 2.0);
    source.record().pausePositionTime = 1.25;
    QCOMPARE(source.time(true), 1.25);
    source.record().pausePositionTime = 0.0;
    QCOMPARE(source.time(true), 0.0);
}

void TestSource::time_withTimeline_isTheTimelines()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    Timeline timeline;
    timeline.setLimits(1.0, 4.0);
    source.setTimeline(&timeline);
    engine.setFrame(48000);
    QCOMPARE(source.time(false), 2.0);
    engine.setFrame(5 * 48000);
    QCOMPARE(source.time(false), -1.0);
    QCOMPARE(source.time(true), 4.0);
    source.setTime(0.0);
    source.record().pausePositionTime = 2.5;
    QCOMPARE(source.time(false), 2.5);
}

void TestSource::withoutEngine_everythingAnswers()
{
    RampSource source(nullptr, 48000, 2, 5.0f);
    QVERIFY(!source.mixerEngine());
    QVERIFY(!source.isPaused() && !source.isLooping());
    QCOMPARE(source.time(false), 0.0);
    QCOMPARE(source.startTime(), 0.0);
    QCOMPARE(source.loopStartTime(), 0.0);
    Timeline timeline;
    source.setTimeline(&timeline);
    source.update_lock();
    source.setTime(1.0);
    source.adjustTime(1.0, 1.0);
    source.update_unlock();
    source.stop(UserStopAction);
    QCOMPARE(source.record().frameBase.load(), 0);
}

void TestSource::isFinished_needsStartAndStop()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.stop(UserStopAction);
    QVERIFY(source.wasStoped());
    QVERIFY(!source.isFinished());
    QVERIFY(!SourceAccess::threadStarted(source));
    source.start();
    QVERIFY(source.isFinished());
    QVERIFY(SourceAccess::threadStarted(source));
}

void TestSource::stop_noReason_keepsTheReason()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.stop(NoReason);
    QCOMPARE(source.stopReason(), UserStopAction);
    source.stop(DeviceFailed);
    QCOMPARE(source.stopReason(), DeviceFailed);
    source.stop(NoReason);
    QCOMPARE(source.stopReason(), DeviceFailed);
    QCOMPARE(source.stops.load(), 3);
}

void TestSource::stop_writesItsTrace()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    const LogCapture log;
    source.stop(DeviceFailed);
    QCOMPARE(linesWith(log, "Source::stop"),
             QStringList(tracePrefix + "Source::stop source=" + address(&source) +
                         " stopReason=6 isRunning=false isPaused=false started=false"
                         " finished=false"));
}

void TestSource::pause_asksForBothModes_data()
{
    QTest::addColumn<PauseMode>("mode");
    QTest::addColumn<bool>("soft");
    QTest::addColumn<bool>("keepState");
    QTest::addColumn<QList<int>>("asked");
    QTest::addColumn<int>("announced");
    QTest::addColumn<bool>("stopped");
    QTest::newRow("soft") << PauseSoft << true << false << QList<int>{0} << 1 << false;
    QTest::newRow("keep state") << PauseKeepState << false << true << QList<int>{1} << 1 << true;
    QTest::newRow("soft refused") << PauseSoft << false << true << QList<int>{0, 1} << 1 << true;
    QTest::newRow("keep state refused")
        << PauseKeepState << true << false << QList<int>{1, 0} << 1 << false;
    QTest::newRow("both refused, soft first")
        << PauseSoft << false << false << QList<int>{0, 1} << 0 << false;
    QTest::newRow("both refused, keep state first")
        << PauseKeepState << false << false << QList<int>{1, 0} << 0 << false;
}

void TestSource::pause_asksForBothModes()
{
    QFETCH(PauseMode, mode);
    QFETCH(bool, soft);
    QFETCH(bool, keepState);
    QFETCH(QList<int>, asked);
    QFETCH(int, announced);
    QFETCH(bool, stopped);
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.acceptSoft = soft;
    source.acceptKeepState = keepState;
    source.pause(mode);
    QList<int> modes;
    for (const PauseMode one : source.asked)
        modes.append(one);
    QCOMPARE(modes, asked);
    QCOMPARE(source.record().pendingUpdates.load(), 1);
    QCOMPARE(source.states().size(), static_cast<size_t>(announced));
    QCOMPARE(source.pauses.load(), announced);
    QCOMPARE(source.wasStoped(), stopped);
    QCOMPARE(source.record().keepStateOnStop, stopped);
    QCOMPARE(source.stopReason(), stopped ? UserPauseAction : UserStopAction);
}

void TestSource::pause_keepState_announcesConfig()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, Range{1.0, 2.0}, 5.0f);
    source.scale = 0.5;
    source.flags = 77;
    source.setChannelsMask(3);
    engine.setFrame(24000);
    source.pause(PauseKeepState);
    const std::vector<RampSource::State> states = source.states();
    QCOMPARE(states.size(), size_t{1});
    QCOMPARE(states[0].state, Paused);
    QCOMPARE(states[0].config.position, 0.5);
    QCOMPARE(states[0].config.scale, 0.5);
    QCOMPARE(states[0].config.range, (Range{1.0, 2.0}));
    QCOMPARE(states[0].config.flags, 77);
    QCOMPARE(states[0].config.channelMask, quint64{3});
}

void TestSource::pause_soft_announcesDefaultConfig()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, Range{1.0, 2.0}, 5.0f);
    source.scale = 0.5;
    source.flags = 77;
    engine.setFrame(24000);
    source.pause(PauseSoft);
    const std::vector<RampSource::State> states = source.states();
    QCOMPARE(states.size(), size_t{1});
    QCOMPARE(states[0].state, Paused);
    QCOMPARE(states[0].config.position, 0.0);
    QCOMPARE(states[0].config.scale, 1.0);
    QCOMPARE(states[0].config.range, Range());
    QCOMPARE(states[0].config.flags, 0);
    QCOMPARE(states[0].config.channelMask, quint64{0xff});
}

void TestSource::pause_otherMode_onlySilences()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.acceptKeepState = false;
    source.pause(static_cast<PauseMode>(7));
    QCOMPARE(source.asked.size(), size_t{2}); // refused, and asked again for the same mode
    QCOMPARE(source.asked[1], static_cast<PauseMode>(7));
    source.acceptKeepState = true;
    source.pause(static_cast<PauseMode>(7));
    QCOMPARE(source.record().pendingUpdates.load(), 2);
    QCOMPARE(source.states().size(), size_t{0});
    QCOMPARE(source.pauses.load(), 0);
    QVERIFY(!source.wasStoped());
}

void TestSource::resume_takesOneSilenceBack()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.pause(PauseSoft);
    source.pause(PauseSoft);
    source.resume();
    QCOMPARE(source.record().pendingUpdates.load(), 1);
    source.resume();
    QCOMPARE(source.record().pendingUpdates.load(), 0);
    QCOMPARE(source.resumes.load(), 2);
    QCOMPARE(source.states().back().state, Playing);
    QCOMPARE(source.states().back().config.channelMask, quint64{0xff});
}

void TestSource::resume_withoutPause_neverGoesBelowZero()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.resume();
    QCOMPARE(source.record().pendingUpdates.load(), 0);
    QCOMPARE(source.resumes.load(), 1);
    QCOMPARE(source.states().size(), size_t{1});
    QCOMPARE(source.states()[0].state, Playing);
}

void TestSource::updateLock_countsAndNeverGoesBelowZero()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.update_lock();
    QCOMPARE(source.record().pendingUpdates.load(), 1);
    QCOMPARE(source.record().updateWaiters.load(), 1);
    QVERIFY(!source.record().ringMutex.tryLock());
    source.resume(); // of a pause that began before the source was added
    source.update_unlock();
    QCOMPARE(source.record().pendingUpdates.load(), 0);
    QCOMPARE(source.record().updateWaiters.load(), 0);
    QVERIFY(source.record().ringMutex.tryLock());
    source.record().ringMutex.unlock();
}

void TestSource::playedTime_dividesByTheOwnRate()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 44100, 2, 5.0f);
    source.record().consumedFrames = 88200;
    QCOMPARE(source.playedTime(), 2.0);
}

void TestSource::stateChange_notifiesBeforeTheSignal()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    std::vector<size_t> notified;
    connect(&source, &Source::sourceStateChanged, this, [&](const SourcePointer &from) {
        QCOMPARE(from.data(), &source);
        notified.push_back(source.states().size());
    });
    source.state_change(Paused, Config());
    source.state_change(Playing, Config());
    QCOMPARE(notified, (std::vector<size_t>{1, 2}));
}

void TestSource::onAdded_doesNothing()
{
    ClockEngine engine(48000);
    RampSource source(&engine, 48000, 2, 5.0f);
    source.onAdded(&engine);
    QVERIFY(source.states().empty());
    QVERIFY(!source.timeline());
}

void TestSource::destruction_neverStarted()
{
    ClockEngine engine(48000);
    auto source = std::make_unique<RampSource>(&engine, 48000, 2, 5.0f);
    SourceAccess::endAndWait(*source);
    QVERIFY(source->wasStoped());
    const QPointer<Source> guard(source.get());
    source.reset();
    QVERIFY(!guard);
}

QTEST_GUILESS_MAIN(TestSource)
#include "tst_source.moc"
