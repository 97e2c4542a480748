// SPDX-License-Identifier: MIT
// What a host does with a mixer, from begin to end, on a device that is driven block by block:
// every frame that comes out is compared with the frame that belongs there.
#include <support/session.h>

#include <QtTest/QTest>

#include <cmath>

using namespace QTovelMixer;

namespace {

constexpr int block = Session::blockFrames;

// Resampled material is off by the filter's ripple, and by its transient next to a cut.
constexpr double resampledTolerance = 0.1; // frames
constexpr int transientFrames = 160;

qint64 frames(double seconds)
{
    return qint64(std::llround(seconds * 48000.0));
}

/// Index of the first sample that is not `first`, `first` + 1, …; −1 when all are.
qint64 mismatch(const std::vector<float> &samples, double first, double scale = 1.0)
{
    for (size_t i = 0; i < samples.size(); ++i) {
        if (samples[i] != float((first + double(i)) * scale))
            return qint64(i);
    }
    return -1;
}

bool allZero(const std::vector<float> &samples)
{
    return std::all_of(samples.begin(), samples.end(), [](float sample) { return sample == 0.0f; });
}

} // namespace

class tst_Scenarios : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void play_givesEveryFrame_toTheEnd_data();
    void play_givesEveryFrame_toTheEnd();
    void pauseSoft_continuesWithTheNextFrame();
    void pauseKeepState_handsOverThePosition_andTheSourceGoes();
    void seek_movesToTheFrame_forwardAndBack();
    void seek_keepsRatesAligned();
    void slices_loopInOrder_throughManyPasses();
    void looping_switchedOffInALaterPass_endsWithThisPass();
    void limits_changedWhilePlaying_keepThePosition();
    void secondSource_joinsAndLeaves_withoutDisturbingTheFirst();
    void pausePosition_endsThere_andPausesTheEngine();
    void removal_ofTheMiddleSource_movesRowsAndColumns();
    void recording_dropsTheLeadIn();
    void recording_survivesAStoppedSource();
    void recording_fillsAGap_andLosesWhatHasNoRoom();
    void recording_convertsTheRate();
    void deviceFailure_whilePlaying();
    void deviceFailure_whileRecording();
    void deviceListUpdate_waitsForTheEndOfPlayback();
    void save_putsTheTimelineAside_andRestoreBringsItBack();
    void reopening_underPlayback_keepsTheMapping();
};

void tst_Scenarios::play_givesEveryFrame_toTheEnd_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("44100 Hz") << 44100;
    QTest::newRow("48000 Hz") << 48000;
    QTest::newRow("96000 Hz") << 96000;
}

void tst_Scenarios::play_givesEveryFrame_toTheEnd()
{
    QFETCH(int, rate);
    Session session;
    RampSource *source = session.addRamp(rate, 1.0);
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> out = session.run(frames(1.0) / block);
    if (rate == 48000) {
        QCOMPARE(mismatch(out, 0), -1);
    } else {
        for (size_t i = transientFrames; i + transientFrames < out.size(); ++i)
            QVERIFY2(std::abs(out[i] - double(i)) < resampledTolerance,
                     qPrintable(QString("frame %1: %2").arg(i).arg(out[i])));
    }
    session.expectEnd(source);
    const std::vector<float> last = session.run(2);
    const auto end = last.begin() + frames(1.0) % block;
    if (rate == 48000)
        QCOMPARE(mismatch(std::vector<float>(last.begin(), end), double(out.size())), -1);
    QVERIFY(allZero(std::vector<float>(end, last.end())));
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::AudioFinished);
    QCOMPARE(session.count("sourceFinished"), 1);
    QCOMPARE(session.engine.numActiveSources(), 0);
    QVERIFY(!session.engine.isRunning());
    QVERIFY(!session.api->isRunning());
    session.checkAtRest();
}

void tst_Scenarios::pauseSoft_continuesWithTheNextFrame()
{
    Session session;
    session.engine.setPauseMode(PauseSoft);
    session.addRamp(48000, 2.0);
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(mismatch(session.run(10), 0), -1);
    QVERIFY(session.engine.pause());
    QVERIFY(!session.engine.pause());
    QVERIFY(session.engine.isPaused());
    const double position = session.engine.time();
    QVERIFY(allZero(session.run(7)));
    QCOMPARE(session.engine.time(), position);
    QVERIFY(session.engine.resume());
    QVERIFY(!session.engine.resume());
    QCOMPARE(mismatch(session.run(10), 10 * block), -1);
    QCOMPARE(session.count("paused"), 1);
    QCOMPARE(session.count("resumed"), 1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::UserStopAction);
    session.checkAtRest();
}

void tst_Scenarios::pauseKeepState_handsOverThePosition_andTheSourceGoes()
{
    Session session;
    session.addRamp(48000, 2.0);
    QVERIFY(session.engine.start(0.0));
    session.run(30);
    const double position = session.engine.time();
    QVERIFY(session.engine.pause());
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::UserPauseAction);
    QCOMPARE(session.engine.numActiveSources(), 0);
    QVERIFY(session.engine.isPaused());
    QVERIFY(!session.engine.isPlaying());

    // The host builds the source again and goes on where it was.
    session.addRamp(48000, 2.0);
    QVERIFY(session.engine.start(position));
    QVERIFY(allZero(session.run(3)));
    QVERIFY(session.engine.resume());
    QCOMPARE(mismatch(session.run(20), 30 * block), -1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 2);
    session.checkAtRest();
}

void tst_Scenarios::seek_movesToTheFrame_forwardAndBack()
{
    Session session;
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(1.0));
    QCOMPARE(mismatch(session.run(5), 48000), -1);
    for (const double target : {7.0, 0.25, 19.5, 3.0 + 1.0 / 48000.0, 3.0}) {
        session.engine.setTime(target);
        QCOMPARE(session.engine.time(), target);
        QCOMPARE(mismatch(session.run(20), std::round(target * 48000.0)), -1);
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::seek_keepsRatesAligned()
{
    Session session;
    session.addRamp(44100, 20.0);
    session.addRamp(96000, 20.0);
    QVERIFY(session.engine.start(0.0));
    session.run(20);
    double target = 0.5;
    for (int i = 0; i < 20; ++i) {
        target = std::fmod(target + 7.3, 18.0);
        session.engine.setTime(target);
        const std::vector<float> out = session.run(6);
        for (size_t frame = transientFrames; frame < out.size(); ++frame) {
            const double expected = 2.0 * (std::round(target * 48000.0) + double(frame));
            QVERIFY2(std::abs(out[frame] - expected) < 2.0,
                     qPrintable(QString("seek %1 to %2, frame %3: %4 instead of %5")
                                    .arg(i)
                                    .arg(target)
                                    .arg(frame)
                                    .arg(out[frame])
                                    .arg(expected)));
        }
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::slices_loopInOrder_throughManyPasses()
{
    Session session;
    session.addRamp(48000, 10.0);
    // Selections that a double holds exactly: others round to the frame at their boundaries.
    session.engine.addSelection(1.0, 1.125);
    session.engine.addSelection(5.0, 5.25);
    session.engine.addSelection(8.5, 8.625);
    session.engine.setLooping(true);
    QVERIFY(session.engine.isLooping());
    QVERIFY(session.engine.start(1.0));
    std::vector<float> expected;
    const qint64 blocks = frames(0.5) * 4 / block;
    while (qint64(expected.size()) < blocks * block) {
        for (const auto &[begin, end] :
             {std::pair(48000, 54000), std::pair(240000, 252000), std::pair(408000, 414000)}) {
            for (int frame = begin; frame < end; ++frame)
                expected.push_back(float(frame));
        }
    }
    expected.resize(size_t(blocks * block));
    const std::vector<float> out = session.run(blocks);
    for (size_t i = 0; i < out.size(); ++i)
        QVERIFY2(
            out[i] == expected[i],
            qPrintable(QString("frame %1: %2 instead of %3").arg(i).arg(out[i]).arg(expected[i])));
    QCOMPARE(session.count("stopped"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::looping_switchedOffInALaterPass_endsWithThisPass()
{
    Session session;
    RampSource *source = session.addRamp(48000, 10.0);
    session.engine.setLimits(2.0, 3.0);
    session.engine.setLooping(true);
    QVERIFY(session.engine.start(2.0));
    // Two passes and a half.
    const qint64 halfway = frames(2.5) / block;
    session.run(halfway);
    session.engine.setLooping(false);
    const qint64 position = (halfway * block) % 48000;
    const qint64 rest = (48000 - position) / block;
    QCOMPARE(mismatch(session.run(rest), double(96000 + position)), -1);
    session.expectEnd(source);
    session.run(3);
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::AudioFinished);
    session.checkAtRest();
}

void tst_Scenarios::limits_changedWhilePlaying_keepThePosition()
{
    Session session;
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(4.0));
    QCOMPARE(mismatch(session.run(8), 192000), -1);
    session.engine.setLimits(3.0, 15.0);
    QCOMPARE(mismatch(session.run(8), 192000 + 8 * block), -1);
    session.engine.collapsLimits(3.5, 10.0);
    QCOMPARE(mismatch(session.run(8), 192000 + 16 * block), -1);
    session.engine.expandLimits(0.0, 12.0);
    QCOMPARE(mismatch(session.run(8), 192000 + 24 * block), -1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::secondSource_joinsAndLeaves_withoutDisturbingTheFirst()
{
    Session session;
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(mismatch(session.run(8), 0), -1);
    auto *second = new RampSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.play(second));
    QCOMPARE(mismatch(session.run(8), 8 * block, 2.0), -1);
    QVERIFY(!session.engine.stop(second, true, StopReason::UserStopAction));
    QTRY_COMPARE(session.engine.numActiveSources(), 1);
    QCOMPARE(mismatch(session.run(8), 16 * block), -1);
    QCOMPARE(session.count("stopped"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::pausePosition_endsThere_andPausesTheEngine()
{
    Session session;
    RampSource *source = session.addRamp(48000, 10.0);
    source->pauseAt = 1.0;
    QVERIFY(session.engine.start(0.5));
    const qint64 before = frames(0.5) / block;
    QCOMPARE(mismatch(session.run(before), 24000), -1);
    session.expectEnd(source, frames(1.0));
    std::vector<float> last = session.run(1);
    const size_t rest = size_t(frames(0.5) - before * block);
    QCOMPARE(mismatch(std::vector<float>(last.begin(), last.begin() + qsizetype(rest)),
                      double(24000 + before * block)),
             -1);
    QVERIFY(allZero(std::vector<float>(last.begin() + qsizetype(rest), last.end())));
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::PausePositionReached);
    QCOMPARE(session.count("paused"), 1);
    QVERIFY(session.engine.isPaused());
    session.stopAll();
    session.checkAtRest();
}

void tst_Scenarios::removal_ofTheMiddleSource_movesRowsAndColumns()
{
    Session session;
    session.addRamp(48000, 20.0, 1.0f);
    auto *middle = new RampSource(&session.engine, 48000, 2, 20.0);
    QVERIFY(session.engine.addSource(middle, 0.5f));
    session.addRamp(48000, 20.0, 0.25f);
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(mismatch(session.run(4), 0, 1.75), -1);
    session.engine.stop(middle, true, StopReason::UserStopAction);
    QTRY_COMPARE(session.engine.numActiveSources(), 2);
    QCOMPARE(mismatch(session.run(4), 4 * block, 1.25), -1);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[2][0], 0.25f);
    QCOMPARE(data.gainMatrix[3][1], 0.25f);
    QCOMPARE(data.gainMatrix[4][0], 0.0f);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::recording_dropsTheLeadIn()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    sink->setSkipTime(0.5);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(frames(1.0) / block + 1);
    QTRY_VERIFY(sink->frames() >= frames(1.0));
    // The lead-in is not handed over: until its end the take is silence, from there on every
    // frame stands where the clock had it.
    const std::vector<float> take = sink->samples();
    for (size_t frame = 0; frame < take.size() / 2; ++frame) {
        const float expected = frame < 24000 ? 0.0f : float(frame);
        if (frame < 24000 - block || frame >= 24000 + block)
            QCOMPARE(take[2 * frame], expected);
    }
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::recording_survivesAStoppedSource()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    RampSource *source = session.addRamp(48000, 20.0, 0.0f);
    QVERIFY(session.startRecording());
    session.run(20);
    QVERIFY(session.engine.stop(source, true, StopReason::UserStopAction));
    QTRY_COMPARE(session.engine.numActiveSources(), 0);
    session.run(20);
    QTRY_COMPARE(sink->frames(), qint64(40 * block));
    const std::vector<float> take = sink->samples();
    for (size_t frame = 0; frame < take.size() / 2; ++frame)
        QCOMPARE(take[2 * frame], float(frame));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::recording_fillsAGap_andLosesWhatHasNoRoom()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(4);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    data.mixTime += 1000;
    session.run(4);
    QTRY_COMPARE(sink->frames(), qint64(8 * block + 1000));
    std::vector<float> take = sink->samples();
    for (int frame = 0; frame < 8 * block + 1000; ++frame) {
        const bool gap = frame >= 4 * block && frame < 4 * block + 1000;
        const int delivered = frame < 4 * block ? frame : frame - 1000;
        QCOMPARE(take[size_t(2 * frame)], gap ? 0.0f : float(delivered));
    }
    // A gap that is longer than the ring fills it with silence; the block itself is lost.
    data.mixTime += 48000 * 6;
    session.run(1);
    QTRY_COMPARE(sink->frames(), qint64(8 * block + 1000 + 48000 * 5));
    take = sink->samples();
    QVERIFY(allZero(std::vector<float>(take.begin() + 2 * (8 * block + 1000), take.end())));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::recording_convertsTheRate()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 44100, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(frames(1.0) / block);
    QTRY_VERIFY(sink->frames() > 43900);
    const std::vector<float> take = sink->samples();
    for (size_t frame = transientFrames; frame < take.size() / 2; ++frame)
        QVERIFY(std::abs(take[2 * frame] - double(frame) * 48000.0 / 44100.0) < resampledTolerance);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::deviceFailure_whilePlaying()
{
    Session session;
    session.addRamp(48000, 20.0);
    session.addRamp(44100, 20.0);
    QVERIFY(session.engine.start(0.0));
    session.run(5);
    session.api->reportDeviceFailure();
    session.api->reportDeviceFailure();
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(session.failure, "playing=1 capturing=0 " + session.engine.backendString());
    QVERIFY(!session.engine.isActive());
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::DeviceFailed);
    QCOMPARE(session.count("deactivated"), 1);
    QVERIFY(!session.api->isOpen());
    session.checkAtRest();

    // The same engine plays again.
    session.api->rearmDeviceFailure();
    session.engine.activate();
    QVERIFY(session.engine.isActive());
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(mismatch(session.run(5), 0), -1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 2);
    session.checkAtRest();
}

void tst_Scenarios::deviceFailure_whileRecording()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    session.run(5);
    session.api->reportDeviceFailure();
    QTRY_COMPARE(session.count("deviceFailed"), 1);
    QCOMPARE(session.failure, "playing=0 capturing=1 " + session.engine.backendString());
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.lastReason, StopReason::DeviceFailed);
    session.checkAtRest();
}

void tst_Scenarios::deviceListUpdate_waitsForTheEndOfPlayback()
{
    Session session;
    session.addRamp(48000, 20.0);
    QVERIFY(session.engine.start(0.0));
    session.run(3);
    session.engine.updateDeviceList(true);
    session.run(3);
    QCOMPARE(session.count("updatingDeviceList"), 0);
    QCOMPARE(session.count("deactivated"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QTRY_COMPARE(session.count("deactivated"), 1);
    QTRY_COMPARE(session.count("updatingDeviceList"), 1);
    QTRY_COMPARE_WITH_TIMEOUT(session.count("activated"), 2, 10000);
    QVERIFY(session.engine.isActive());
    session.checkAtRest();
}

void tst_Scenarios::save_putsTheTimelineAside_andRestoreBringsItBack()
{
    Session session;
    Timeline *first = session.engine.timeline();
    RampSource *source = session.addRamp(48000, 20.0);
    session.engine.setLimits(1.0, 9.0);
    session.engine.setOutputEffectBypass(true);
    QVERIFY(session.engine.save());
    QVERIFY(session.engine.timeline() != first);
    QCOMPARE(source->timeline(), session.engine.timeline());
    QCOMPARE(session.engine.timeline()->start(), -1.0);
    session.engine.setOutputEffectBypass(false);
    QVERIFY(session.engine.restore());
    QCOMPARE(session.engine.timeline(), first);
    QCOMPARE(source->timeline(), first);
    QCOMPARE(first->end(), 9.0);
    QVERIFY(session.engine.outputEffectBypass());
    QVERIFY(session.engine.start(1.0));
    QCOMPARE(mismatch(session.run(5), 48000), -1);
    QVERIFY(!session.engine.save());
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_Scenarios::reopening_underPlayback_keepsTheMapping()
{
    Session session;
    session.addRamp(48000, 20.0, 0.5f);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(mismatch(session.run(5), 0, 0.5), -1);
    Device *output = session.engine.currentDevice(DeviceKind::Output);
    Device *input = session.engine.currentDevice(DeviceKind::Input);
    QVERIFY(session.engine.open(output, input, 48000));
    session.checkMapping();
    QCOMPARE(mismatch(session.run(5), 5 * block, 0.5), -1);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    // Whoever opened the device with its stream still uses it.
    QCOMPARE(EngineAccess::shipped(session.engine).apiRefs, 1);
    QVERIFY(session.api->isRunning());
    session.engine.deactivate();
    session.checkAtRest();
}

QTEST_GUILESS_MAIN(tst_Scenarios)
#include "tst_scenarios.moc"
