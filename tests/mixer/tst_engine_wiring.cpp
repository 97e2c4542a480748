// SPDX-License-Identifier: MIT
// What a host wired by hand, on one device after the other.
#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/store/route.h>
#include <mixer/store/store.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

/// A session with a device of 8 inputs and 8 outputs open, and one of 2 and 2 to change to.
struct Desk : Session
{
    Desk() : Session(8, 8)
    {
        large = engine.currentDevice(DeviceKind::Output);
        small = api->addTestDevice("Small", 2, 2);
        api->updateDeviceList();
    }

    bool use(Device *device) { return engine.select(device, device, 48000); }

    /// The gain from a ramp's first channel to this output, heard in one block more. The second
    /// channel has to be silent there.
    float heard(int output)
    {
        const float position = run(1).empty() ? 0.0f : float((++block) * blockFrames - 1);
        const int width = int(engine.numOutputChannels());
        return api->output[(blockFrames - 1) * width + output] / position;
    }

    Device *large;
    TestDevice *small;
    int block = 0;
};

/// Silence but for what the device input and other sources bring: the last sample taken.
float lastTaken(const TakeSink *sink, int channel)
{
    const std::vector<float> samples = sink->samples();
    return samples.empty()
               ? -1.0f
               : samples[samples.size() - size_t(sink->numChannels()) + size_t(channel)];
}

} // namespace

class tst_EngineWiring : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void setGain_plansWhatItSets_beforeTheNextBlock();
    void init() { m_quiet = std::make_unique<LogCapture>(); }
    void cleanup() { m_quiet.reset(); }

    void gainsOfASource_areBackOnTheNextDevice();
    void gainsBeyondTheNextDevice_areBackOnAWiderOne();
    void gainAtAdding_staysWhereNothingElseWasSet();
    void storedRoute_countsWhereTheHostSetNothing();
    void mask_isBackOnTheNextDevice();
    void routes_areBackOnTheNextDevice();
    void laterWiring_replacesEarlierWiring();
    void gainsOfASink_areBackOnTheNextDevice();
    void wiring_goesWithItsSource();
    void open_asSelect();

private:
    std::unique_ptr<LogCapture> m_quiet;
};

void tst_EngineWiring::gainsOfASource_areBackOnTheNextDevice()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.25f));
    QVERIFY(desk.engine.setGain(source, 1, 1, 0.0f));
    QVERIFY(desk.engine.setGain(source, 0, 1, 0.5f));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.heard(0), 0.25f);
    QCOMPARE(desk.heard(1), 0.5f);
    for (Device *device : {static_cast<Device *>(desk.small), desk.large}) {
        QVERIFY(desk.use(device));
        QCOMPARE(desk.heard(0), 0.25f);
        QCOMPARE(desk.heard(1), 0.5f);
    }
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::gainsBeyondTheNextDevice_areBackOnAWiderOne()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setGain(source, 0, 6, 0.125f));
    QVERIFY(desk.engine.setGain(source, 1, 6, 0.0f));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.heard(6), 0.125f);
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 1.0f);
    QVERIFY(desk.use(desk.large));
    QCOMPARE(desk.heard(6), 0.125f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::gainAtAdding_staysWhereNothingElseWasSet()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0, 0.5f);
    QVERIFY(desk.engine.setGain(source, 1, 1, 0.0f));
    QVERIFY(desk.engine.setGain(source, 0, 1, 0.75f));
    QVERIFY(desk.engine.start());
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 0.5f);
    QCOMPARE(desk.heard(1), 0.75f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::storedRoute_countsWhereTheHostSetNothing()
{
    Desk desk;
    Route route(2, desk.small);
    QVERIFY(route.setGain(0, 0, 0.25f));
    QVERIFY(route.setGain(0, 1, 0.25f));
    QVERIFY(route.setGain(1, 1, 0.0f));
    Store::store()->addRoute(route);
    RampSource *source = desk.addRamp(48000, 20.0, 0.5f);
    QVERIFY(desk.engine.setGain(source, 0, 1, 0.75f));
    QVERIFY(desk.engine.start());
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 0.125f);
    QCOMPARE(desk.heard(1), 0.75f);
    Store::store()->removeRoute(nullptr, 2, desk.small);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::mask_isBackOnTheNextDevice()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setChannelsMask(source, 0x1));
    QVERIFY(desk.engine.start());
    QCOMPARE(desk.heard(0), 1.0f);
    QCOMPARE(desk.heard(1), 0.0f);
    for (Device *device : {static_cast<Device *>(desk.small), desk.large}) {
        QVERIFY(desk.use(device));
        QCOMPARE(desk.heard(0), 1.0f);
        QCOMPARE(desk.heard(1), 0.0f);
    }
    QVERIFY(desk.engine.setChannelsMask(source, 0x2));
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 0.0f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::routes_areBackOnTheNextDevice()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    auto *sink = new TakeSink(&desk.engine, 48000, 2);
    QVERIFY(desk.engine.addSink(sink));
    for (int channel : {0, 1})
        QVERIFY(desk.engine.setGain(channel, sink, channel, 0.0f));
    QVERIFY(desk.engine.addRoute(source, sink, 0.5f));
    QVERIFY(desk.engine.setGain(source, 1, sink, 1, 0.0f));
    QVERIFY(desk.engine.setGain(source, 0, sink, 1, 0.25f));
    QVERIFY(desk.startRecording());
    int block = 0;
    for (Device *device : {desk.large, static_cast<Device *>(desk.small), desk.large}) {
        QVERIFY(desk.use(device));
        desk.run(2);
        block += 2;
        QTRY_COMPARE(sink->frames(), qint64(block) * Session::blockFrames);
        const auto position = float(block * Session::blockFrames - 1);
        QCOMPARE(lastTaken(sink, 0), position * 0.5f);
        QCOMPARE(lastTaken(sink, 1), position * 0.25f);
    }
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::laterWiring_replacesEarlierWiring()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    auto *sink = new TakeSink(&desk.engine, 48000, 1);
    QVERIFY(desk.engine.addSink(sink));
    for (int channel = 0; channel < 8; ++channel)
        QVERIFY(desk.engine.setGain(channel, sink, 0, 0.0f));
    QVERIFY(desk.engine.setGain(source, 0, sink, 0, 0.125f));
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.75f));
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.5f));
    QVERIFY(desk.engine.addRoute(source, sink, 0.25f));
    QVERIFY(desk.startRecording());
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 0.5f);
    QTRY_COMPARE(sink->frames(), qint64(Session::blockFrames));
    QCOMPARE(lastTaken(sink, 0), float(Session::blockFrames - 1) * 0.25f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::gainsOfASink_areBackOnTheNextDevice()
{
    Desk desk;
    auto *sink = new TakeSink(&desk.engine, 48000, 2);
    QVERIFY(desk.engine.addSink(sink));
    QVERIFY(desk.engine.setGain(0, sink, 0, 0.0f));
    QVERIFY(desk.engine.setGain(1, sink, 0, 0.5f));
    QVERIFY(desk.engine.setGain(1, sink, 1, 0.0f));
    QVERIFY(desk.engine.setGain(7, sink, 1, 0.25f));
    QVERIFY(desk.startRecording());
    int block = 0;
    const float second[] = {0.25f, 0.0f, 0.25f};
    const float *expected = second;
    for (Device *device : {desk.large, static_cast<Device *>(desk.small), desk.large}) {
        QVERIFY(desk.use(device));
        desk.run(2);
        block += 2;
        QTRY_COMPARE(sink->frames(), qint64(block) * Session::blockFrames);
        const auto position = float(block * Session::blockFrames - 1);
        QCOMPARE(lastTaken(sink, 0), position * 0.5f);
        QCOMPARE(lastTaken(sink, 1), position * *expected++);
    }
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

// The row of a source that has gone belongs to the next one.
void tst_EngineWiring::wiring_goesWithItsSource()
{
    Desk desk;
    RampSource *first = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setGain(first, 0, 0, 0.25f));
    QVERIFY(desk.engine.setChannelsMask(first, 0x2));
    RampSource *second = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setGain(second, 0, 0, 0.5f));
    desk.engine.deleteSource(first);
    auto *third = new RampSource(&desk.engine, 48000, 2, 20.0);
    QVERIFY(desk.engine.addSource(third));
    QVERIFY(desk.engine.setChannelsMask(third, 0x0));
    QVERIFY(desk.engine.start());
    QVERIFY(desk.use(desk.small));
    QCOMPARE(desk.heard(0), 0.5f);
    QVERIFY(desk.engine.setChannelsMask(third, 0x3));
    QCOMPARE(desk.heard(0), 1.5f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

void tst_EngineWiring::open_asSelect()
{
    Desk desk;
    RampSource *source = desk.addRamp(48000, 20.0);
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.25f));
    QVERIFY(desk.engine.start());
    QVERIFY(desk.engine.open(desk.large, desk.large, 48000));
    QCOMPARE(desk.heard(0), 0.25f);
    desk.stopAll();
    QTRY_COMPARE(desk.count("stopped"), 1);
}

// A gain that stays above 0 is written into the plan; another plan takes over for one that comes or
// goes, so that no block waits until it is made.
void tst_EngineWiring::setGain_plansWhatItSets_beforeTheNextBlock()
{
    Desk desk;
    Source *const source = desk.addRamp(48000, 60.0);
    QVERIFY(source);
    QVERIFY(desk.engine.start(0.0));
    desk.heard(0);
    const Engine::Data &data = EngineAccess::shipped(desk.engine);
    const auto isPlanned = [&] {
        return data.plan->isFor(data.matrix, int(data.inputBuses.size()),
                                int(data.outputBuses.size()));
    };
    QVERIFY(isPlanned());
    const MixPlan *const first = data.plan;
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.25f));
    for (const int silent : {0, 3})
        QVERIFY(desk.engine.setGain(source, 1, silent, 0.0f));
    QVERIFY(desk.engine.setGain(source, 0, 3, 0.0f));
    const MixPlan *const second = data.plan;
    QVERIFY(desk.engine.setGain(source, 0, 0, 0.5f));
    QVERIFY(isPlanned());
    QVERIFY(data.plan == second);
    QCOMPARE(desk.heard(0), 0.5f);
    QVERIFY(desk.engine.setGain(source, 0, 3, 0.125f));
    QVERIFY(isPlanned());
    QVERIFY(data.plan != second);
    QCOMPARE(desk.heard(3), 0.125f);
    QCOMPARE(desk.heard(0), 0.5f);
    QVERIFY(desk.engine.setGain(source, 0, 3, 0.0f));
    QVERIFY(isPlanned());
    QVERIFY(data.plan == second);
    QCOMPARE(desk.heard(3), 0.0f);
    QVERIFY(first == &data.plans[0] || first == &data.plans[1]);
    desk.stopAll();
}

QTEST_GUILESS_MAIN(tst_EngineWiring)
#include "tst_engine_wiring.moc"
