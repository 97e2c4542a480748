// SPDX-License-Identifier: MIT
// Adding, removing and deleting sources and sinks; gains, routes, masks; meters; timeline edits.
#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/meter/meter.h>
#include <mixer/store/store.h>

#include <QtCore/QJsonArray>
#include <QtTest/QTest>

#include <thread>

using namespace QTovelMixer;

namespace {

class HookedSource : public RampSource
{
public:
    using RampSource::RampSource;
    void onAdded(Engine *engine) override { addedTo = engine; }
    Engine *addedTo = nullptr;
};

QString pointerText(const char *format, const void *pointer)
{
    return QString::asprintf(format, pointer);
}

} // namespace

class tst_EngineRouting : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void addSource_refuses_data();
    void addSource_refuses();
    void addSource_attachesEverything();
    void addSource_honoursItsOptions();
    void addSource_setsTheLimits_unlessTheyCover();
    void addSource_refuses_beyond128Channels();
    void addSource_refuses_theSameAgain();
    void addSource_takesTheStoredRoute();
    void addSource_fitsARouteOfAnotherShape();
    void addSink_attachesEverything();
    void addSink_refuses_beyond128Channels();
    void addSink_withoutOutputs_takesTheInputDefaults();
    void addSink_takesTheStoredRoute();
    void play_startsAtOnce();
    void play_keepsOrDeletesARefusedSource();
    void removeSource_refuses();
    void removeSource_ofAnUnstartedSource_deletesItLater();
    void removeSink_refuses();
    void deleteSource_takesItOutFirst();
    void setGain_ofSource_checksAndWrites();
    void setGain_ofSink_checksAndWrites();
    void setGain_betweenSourceAndSink_checksAndWrites();
    void addRoute_spreadsByTheInputDefaults();
    void setChannelsMask_masksDeviceOutputsOnly();
    void rowsAndColumns_followRemovals();
    void effectBypass_isIgnored_whileInactive();
    void channelMeters_switch();
    void timelineEdits_waitForTheStreamsUsers();
    void selection_withoutLength_changesNothing();
    void expandAndCollapse_followThePredicates();
    void setLooping_needsAnActiveMixer();
    void rangedSource_holdsTheStream();
    void timeline_isReset();
};

void tst_EngineRouting::addSource_refuses_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("outputs");
    QTest::addColumn<bool>("active");
    QTest::newRow("no channels") << 0 << 2 << true;
    QTest::newRow("less than none") << -3 << 2 << true;
    QTest::newRow("no output") << 2 << 0 << true;
    QTest::newRow("inactive") << 2 << 2 << false;
}

void tst_EngineRouting::addSource_refuses()
{
    QFETCH(int, channels);
    QFETCH(int, outputs);
    QFETCH(bool, active);
    Session session(2, outputs);
    if (!active)
        session.engine.deactivate();
    RampSource source(&session.engine, 48000, channels, 1.0);
    QVERIFY(!session.engine.addSource(&source));
    QVERIFY(!session.engine.addSource(nullptr));
    QCOMPARE(session.engine.numActiveSources(), 0);
    QCOMPARE(session.count("sourceAdded"), 0);
    session.checkAtRest();
}

void tst_EngineRouting::addSource_attachesEverything()
{
    Session session(1, 2);
    auto *source = new HookedSource(&session.engine, 48000, 1, 5.0);
    QVERIFY(session.engine.addSource(source, 0.5f));
    QCOMPARE(source->addedTo, &session.engine);
    QCOMPARE(source->timeline(), session.engine.timeline());
    QCOMPARE(session.count("sourceAdded"), 1);
    QVERIFY(session.engine.isValid(source));
    QCOMPARE(session.engine.activeSources(), QList<Source *>({source}));
    QVERIFY(session.api->isRunning());
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[1][0], 0.5f);
    QCOMPARE(data.gainMatrix[1][1], 0.5f);
    QCOMPARE(data.apiRefs, 1);
    session.checkMapping();
    QVERIFY(!session.engine.isPlaying());
}

void tst_EngineRouting::addSource_honoursItsOptions()
{
    Session session;
    auto *source = new RampSource(&session.engine, 48000, 2, 5.0);
    QVERIFY(session.engine.addSource(source, 1.0f, NoAddedSignal | NoTimeline));
    QCOMPARE(session.count("sourceAdded"), 0);
    QCOMPARE(source->timeline(), nullptr);
    QCOMPARE(session.engine.timeline()->end(), -1.0);
}

void tst_EngineRouting::addSource_setsTheLimits_unlessTheyCover()
{
    Session session;
    session.addRamp(48000, 10.0);
    QCOMPARE(session.engine.timeline()->start(), 0.0);
    QCOMPARE(session.engine.timeline()->end(), 10.0);
    session.addRamp(48000, 5.0);
    QCOMPARE(session.engine.timeline()->end(), 10.0);
    session.addRamp(48000, 12.0);
    QCOMPARE(session.engine.timeline()->end(), 12.0);
}

void tst_EngineRouting::addSource_refuses_beyond128Channels()
{
    Session session(63, 2);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QVERIFY(session.engine.addSource(new RampSource(&session.engine, 48000, 64, 1.0)));
    QCOMPARE(data.inputBuses.size(), 127u);
    auto *late = new RampSource(&session.engine, 48000, 2, 1.0);
    LogCapture log;
    QVERIFY(!session.engine.addSource(late));
    QCOMPARE(
        log.count(QtCriticalMsg, pointerText("QTovelMixer::addSource: Unable to add source (%p)!!",
                                             static_cast<Source *>(late))),
        1);
    QCOMPARE(data.apiRefs, 1);
    QVERIFY(session.api->isRunning());
    QCOMPARE(session.engine.numActiveSources(), 1);
    delete late;
    QVERIFY(session.engine.addSource(new RampSource(&session.engine, 48000, 1, 1.0)));
    QCOMPARE(data.inputBuses.size(), 128u);

    // Refused as the first user, the stream is stopped again.
    Session other(127, 2);
    RampSource wide(&other.engine, 48000, 2, 1.0);
    QVERIFY(!other.engine.addSource(&wide));
    QCOMPARE(EngineAccess::shipped(other.engine).apiRefs, 0);
    QVERIFY(!other.api->isRunning());
}

void tst_EngineRouting::addSource_refuses_theSameAgain()
{
    Session session;
    RampSource *source = session.addRamp(48000, 1.0);
    QVERIFY(!session.engine.addSource(source));
    QCOMPARE(session.engine.numActiveSources(), 1);
    session.checkMapping();
}

void tst_EngineRouting::addSource_takesTheStoredRoute()
{
    Session session;
    Device *output = session.engine.currentDevice(DeviceKind::Output);
    Route route(2, output);
    route.setGain(0, 0, 0.0f);
    route.setGain(0, 1, 0.75f);
    Store::store()->addRoute(route);
    session.addRamp(48000, 1.0, 2.0f);
    Store::store()->removeRoute(nullptr, 2, output);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[0][0], 0.0f);
    QCOMPARE(data.gainMatrix[0][1], 1.5f);
    QCOMPARE(data.gainMatrix[1][1], 2.0f);
}

void tst_EngineRouting::addSource_fitsARouteOfAnotherShape()
{
    Session session(0, 4);
    Device *output = session.engine.currentDevice(DeviceKind::Output);
    Route route(QJsonObject{{"kind", "output"},
                            {"id", Route::makeRouteId(nullptr, 2, output)},
                            {"numInputChannels", 0},
                            {"numOutputChannels", 3},
                            {"numAudioChannels", 1},
                            {"gains", QJsonArray{0.25, 0.5, 0.75}}});
    QVERIFY(route.isValid());
    Store::store()->addRoute(route);
    session.addRamp(48000, 1.0);
    Store::store()->removeRoute(nullptr, 2, output);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    const float expected[2][4] = {{0.25f, 0.5f, 0.75f, 0.0f}, {0.0f, 0.0f, 0.0f, 0.0f}};
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 4; ++column)
            QCOMPARE(data.gainMatrix[row][column], expected[row][column]);
    }
}

void tst_EngineRouting::addSink_attachesEverything()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink, 0.5f));
    QVERIFY(!session.engine.addSink(sink));
    QVERIFY(!session.engine.addSink(nullptr));
    QCOMPARE(session.count("sinkAdded"), 1);
    QVERIFY(session.engine.isValid(sink));
    QCOMPARE(session.engine.activeSinks(), QList<Sink *>({sink}));
    QCOMPARE(session.engine.numActiveSinks(), 1);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[0][2], 0.5f);
    QCOMPARE(data.gainMatrix[1][3], 0.5f);
    QCOMPARE(data.gainMatrix[0][3], 0.0f);
    QCOMPARE(data.streamUsers.load(), 1);
    session.checkMapping();
    QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 1), 1.0f, NoAddedSignal));
    QCOMPARE(session.count("sinkAdded"), 1);
}

void tst_EngineRouting::addSink_refuses_beyond128Channels()
{
    Session session(2, 126);
    QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 1)));
    auto *wide = new TakeSink(&session.engine, 48000, 2);
    LogCapture log;
    QVERIFY(!session.engine.addSink(wide));
    QCOMPARE(log.count(QtCriticalMsg, pointerText("QTovelMixer::addSink: Unable to add sink (%p)!!",
                                                  static_cast<Sink *>(wide))),
             1);
    QCOMPARE(EngineAccess::shipped(session.engine).streamUsers.load(), 1);
    QCOMPARE(EngineAccess::shipped(session.engine).apiRefs, 1);
    delete wide;
}

void tst_EngineRouting::addSink_withoutOutputs_takesTheInputDefaults()
{
    Session session(2, 0);
    QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 1)));
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[0][0], 1.0f);
    QCOMPARE(data.gainMatrix[1][0], 0.0f);
    Session mono(1, 0);
    QVERIFY(mono.engine.addSink(new TakeSink(&mono.engine, 48000, 6)));
    QCOMPARE(EngineAccess::shipped(mono.engine).gainMatrix[0][3], 0.0f);
    QCOMPARE(EngineAccess::shipped(mono.engine).gainMatrix[0][4], 1.0f);
}

void tst_EngineRouting::addSink_takesTheStoredRoute()
{
    Session session(2, 2);
    Device *input = session.engine.currentDevice(DeviceKind::Input);
    Route route(input, 1);
    route.setGain(0, 0, 0.0f);
    route.setGain(1, 0, 0.5f);
    Store::store()->addRoute(route);
    QVERIFY(session.engine.addSink(new TakeSink(&session.engine, 48000, 1)));
    Store::store()->removeRoute(input, 1, nullptr);
    QCOMPARE(EngineAccess::shipped(session.engine).gainMatrix[0][2], 0.0f);
    QCOMPARE(EngineAccess::shipped(session.engine).gainMatrix[1][2], 0.5f);
}

void tst_EngineRouting::play_startsAtOnce()
{
    Session session;
    QVERIFY(session.engine.play(new RampSource(&session.engine, 48000, 2, 5.0), 0.5f));
    QVERIFY(!session.engine.isRunning());
    QCOMPARE(session.run(2)[1], 0.5f);
    // A preview is stopped by force alone.
    QVERIFY(!session.engine.stop(false, UserStopAction));
    QVERIFY(session.engine.stop(true, UserStopAction));
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
    QCOMPARE(session.count("started"), 0);
}

void tst_EngineRouting::play_keepsOrDeletesARefusedSource()
{
    Session session;
    QPointer<Source> refused = new RampSource(&session.engine, 48000, 0, 5.0);
    QVERIFY(!session.engine.play(refused));
    QVERIFY(!refused);
    QVERIFY(!session.engine.play(nullptr));
    session.engine.deactivate();
    RampSource kept(&session.engine, 48000, 2, 5.0);
    QVERIFY(!session.engine.play(&kept));
}

void tst_EngineRouting::removeSource_refuses()
{
    Session session;
    RampSource *source = session.addRamp(48000, 20.0);
    session.engine.start();
    LogCapture log;
    session.engine.removeSource(source);
    QCOMPARE(log.count(pointerText("QTovelMixer::removeSource: cannot remove source in running "
                                   "state!!",
                                   source)),
             1);
    std::thread other([&] { session.engine.removeSource(source); });
    other.join();
    QCOMPARE(log.count("QTovelMixer::removeSource: cannot remove source outside main thread!!"), 1);
    QVERIFY(session.engine.isValid(source));
    session.engine.removeSource(nullptr);
    QCOMPARE(log.countStarting("QTovelMixer::removeSource: invalid source pointer ("), 1);
    QCOMPARE(log.countStarting("[TOVEL_DEBUG_MIXER_CRASH_TRACE] Engine::removeSource source="), 3);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    // It has gone by itself: a second removal knows it no more.
    session.engine.removeSource(source);
    QCOMPARE(log.countStarting("QTovelMixer::removeSource: invalid source pointer ("), 2);
}

void tst_EngineRouting::removeSource_ofAnUnstartedSource_deletesItLater()
{
    Session session;
    QPointer<Source> source = session.addRamp(48000, 20.0);
    session.engine.removeSource(source);
    QVERIFY(source);
    QCOMPARE(source->timeline(), nullptr);
    QCOMPARE(session.count("stopped"), 1);
    QVERIFY(!session.api->isRunning());
    LogCapture log;
    session.engine.removeSource(source);
    QCOMPARE(log.countStarting("QTovelMixer::removeSource: invalid source pointer ("), 1);
    QTRY_VERIFY(!source);
    session.checkAtRest();
}

void tst_EngineRouting::removeSink_refuses()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.startRecording());
    LogCapture log;
    session.engine.removeSink(sink);
    QCOMPARE(log.count("QTovelMixer::removeSink: cannot remove sink in running state!!"), 1);
    std::thread other([&] { session.engine.removeSink(sink); });
    other.join();
    QCOMPARE(log.count("QTovelMixer::removeSink: cannot remove sink outside main thread!!"), 1);
    session.engine.removeSink(nullptr);
    QCOMPARE(log.countStarting("QTovelMixer::removeSink: invalid sink pointer ("), 1);
    QCOMPARE(log.countStarting("[TOVEL_DEBUG_MIXER_CRASH_TRACE] Engine::removeSink sink="), 3);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    QCOMPARE(session.count("sinkFinished"), 1);
    session.checkAtRest();
}

void tst_EngineRouting::deleteSource_takesItOutFirst()
{
    Session session(2, 2);
    RampSource *source = session.addRamp(48000, 20.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    session.engine.start();
    session.run(2);
    session.engine.deleteSource(source);
    session.engine.deleteSink(sink);
    session.engine.deleteSource(nullptr);
    session.engine.deleteSink(nullptr);
    QCOMPARE(session.engine.numActiveSources(), 0);
    QCOMPARE(session.count("stopped"), 0);
    session.run(2);
    session.checkMapping();
    session.engine.deactivate();
    session.checkAtRest();
}

void tst_EngineRouting::setGain_ofSource_checksAndWrites()
{
    Session session(1, 2);
    session.addRamp(48000, 1.0);
    RampSource *source = session.addRamp(48000, 1.0);
    RampSource stranger(&session.engine, 48000, 2, 1.0);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QVERIFY(session.engine.setGain(source, 1, 0, 0.125f));
    QCOMPARE(data.gainMatrix[4][0], 0.125f);
    LogCapture log;
    QVERIFY(!session.engine.setGain(&stranger, 0, 0, 1.0f));
    QCOMPARE(log.count(pointerText("QTovelMixer::setGain: Invalid source (%p)!!",
                                   static_cast<Source *>(&stranger))),
             1);
    for (const int channel : {-1, 2}) {
        QVERIFY(!session.engine.setGain(source, channel, 0, 1.0f));
        QCOMPARE(log.count(QString::asprintf(
                     "QTovelMixer::setGain: Invalid channel (%d) for source (%p)!!", channel,
                     static_cast<void *>(static_cast<Source *>(source)))),
                 1);
    }
    for (const int output : {-1, 2}) {
        QVERIFY(!session.engine.setGain(source, 0, output, 1.0f));
        QCOMPARE(log.count(QString::asprintf("QTovelMixer::setGain: Invalid input channel (%d)!!",
                                             output)),
                 1);
    }
}

void tst_EngineRouting::setGain_ofSink_checksAndWrites()
{
    Session session(2, 2);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    TakeSink stranger(&session.engine, 48000, 2);
    QVERIFY(session.engine.setGain(1, sink, 0, 0.125f));
    QCOMPARE(EngineAccess::shipped(session.engine).gainMatrix[1][2], 0.125f);
    LogCapture log;
    QVERIFY(!session.engine.setGain(0, &stranger, 0, 1.0f));
    QVERIFY(!session.engine.setGain(0, sink, 2, 1.0f));
    QVERIFY(!session.engine.setGain(2, sink, 0, 1.0f));
    QCOMPARE(log.countStarting("QTovelMixer::setGain: Invalid sink ("), 1);
    QCOMPARE(log.countStarting("QTovelMixer::setGain: Invalid channel (2) for sink ("), 1);
    QCOMPARE(log.count("QTovelMixer::setGain: Invalid input channel (2)!!"), 1);
}

void tst_EngineRouting::setGain_betweenSourceAndSink_checksAndWrites()
{
    Session session(2, 2);
    RampSource *source = session.addRamp(48000, 1.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    QVERIFY(session.engine.setGain(source, 1, sink, 0, 0.125f));
    QCOMPARE(EngineAccess::shipped(session.engine).gainMatrix[3][2], 0.125f);
    LogCapture log;
    QVERIFY(!session.engine.setGain(source, 2, sink, 0, 1.0f));
    QVERIFY(!session.engine.setGain(source, 0, sink, -1, 1.0f));
    QCOMPARE(log.countStarting("QTovelMixer::setGain: Invalid channel (2) for source ("), 1);
    QCOMPARE(log.countStarting("QTovelMixer::setGain: Invalid channel (-1) for sink ("), 1);
}

void tst_EngineRouting::addRoute_spreadsByTheInputDefaults()
{
    Session session(0, 2);
    auto *source = new RampSource(&session.engine, 48000, 1, 1.0);
    session.engine.addSource(source);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    QVERIFY(session.engine.addRoute(source, sink, 0.5f));
    Engine::Data &data = EngineAccess::shipped(session.engine);
    QCOMPARE(data.gainMatrix[0][2], 0.5f);
    QCOMPARE(data.gainMatrix[0][3], 0.5f);
    LogCapture log;
    QVERIFY(!session.engine.addRoute(nullptr, sink));
    QVERIFY(!session.engine.addRoute(source, nullptr));
    QCOMPARE(log.count(), 0);
    RampSource strangeSource(&session.engine, 48000, 2, 1.0);
    TakeSink strangeSink(&session.engine, 48000, 2);
    QVERIFY(!session.engine.addRoute(source, &strangeSink));
    QVERIFY(!session.engine.addRoute(&strangeSource, sink));
    QCOMPARE(log.countStarting("QTovelMixer::addRoute: Invalid sink ("), 1);
    QCOMPARE(log.countStarting("QTovelMixer::addRoute: Invalid source ("), 1);
}

void tst_EngineRouting::setChannelsMask_masksDeviceOutputsOnly()
{
    Session session(0, 2);
    RampSource *source = session.addRamp(48000, 1.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    session.engine.addRoute(source, sink);
    QVERIFY(session.engine.setChannelsMask(source, 0xfffffffffffffffeull));
    Engine::Data &data = EngineAccess::shipped(session.engine);
    for (int column = 0; column < 4; ++column) {
        QCOMPARE(data.enableMatrix[0][column], column < 2 ? 0.0f : 1.0f);
        QCOMPARE(data.enableMatrix[1][column], 1.0f);
    }
    QCOMPARE(source->channelMask(), quint64(0xfffffffffffffffeull));
    auto *wide = new RampSource(&session.engine, 48000, 33, 1.0);
    session.engine.addSource(wide);
    QVERIFY(session.engine.setChannelsMask(wide, 0));
    QCOMPARE(data.enableMatrix[2][0], 1.0f);
    QCOMPARE(wide->channelMask(), quint64(0));
    RampSource stranger(&session.engine, 48000, 2, 1.0);
    LogCapture log;
    QVERIFY(!session.engine.setChannelsMask(&stranger, 1));
    QCOMPARE(log.countStarting("QTovelMixer::setChannelsMask: Invalid source ("), 1);
}

void tst_EngineRouting::rowsAndColumns_followRemovals()
{
    Session session(1, 2);
    Engine::Data &data = EngineAccess::shipped(session.engine);
    RampSource *first = session.addRamp(48000, 1.0, 0.25f);
    auto *second = new RampSource(&session.engine, 48000, 3, 1.0);
    session.engine.addSource(second);
    RampSource *third = session.addRamp(48000, 1.0, 0.75f);
    auto *sinkA = new TakeSink(&session.engine, 48000, 1);
    auto *sinkB = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sinkA);
    session.engine.addSink(sinkB);
    session.engine.setGain(third, 1, sinkB, 1, 0.5f);
    QCOMPARE(data.gainMatrix[7][4], 0.5f);
    session.engine.removeSource(second);
    QCOMPARE(data.rowOf(third), 3u);
    QCOMPARE(data.gainMatrix[4][4], 0.5f);
    QCOMPARE(data.gainMatrix[3][0], 0.75f);
    session.engine.removeSink(sinkA);
    QCOMPARE(data.columnOf(sinkB), 2u);
    QCOMPARE(data.gainMatrix[4][3], 0.5f);
    QCOMPARE(data.rowOf(first), 1u);
    session.checkMapping();
    QCOMPARE(session.count("stopped"), 0);
    session.engine.removeSource(first);
    session.engine.removeSource(third);
    session.engine.removeSink(sinkB);
    QCOMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EngineRouting::effectBypass_isIgnored_whileInactive()
{
    Session session;
    const int changes = session.count("mixerChanged");
    session.engine.setOutputEffectBypass(true);
    session.engine.setInputEffectBypass(true);
    QVERIFY(session.engine.outputEffectBypass());
    QVERIFY(session.engine.inputEffectBypass());
    QCOMPARE(session.count("mixerChanged"), changes + 2);
    session.engine.deactivate();
    session.engine.setOutputEffectBypass(false);
    session.engine.setInputEffectBypass(false);
    QVERIFY(session.engine.outputEffectBypass());
    QVERIFY(session.engine.inputEffectBypass());
    QCOMPARE(session.count("mixerChanged"), changes + 3);
}

void tst_EngineRouting::channelMeters_switch()
{
    Session session(2, 2);
    session.engine.setChannelMeterEnabled(Type::Input, 1, false);
    QCOMPARE(session.count("meterLayoutChanged"), 1);
    QVERIFY(!session.engine.inputMeter()->channelEnabled(1));
    session.engine.setChannelMeterEnabled(Type::Input, 1, false);
    session.engine.setChannelMeterEnabled(Type::Input, 2, false);
    session.engine.setChannelMeterEnabled(Type::Output, 128, false);
    session.engine.setChannelMeterEnabled(Type::Output, -1, false);
    session.engine.setChannelMeterEnabled(Type::Loop, 0, false);
    QCOMPARE(session.count("meterLayoutChanged"), 1);
    session.engine.setChannelMeterEnabled(Type::Output, 0, false);
    QCOMPARE(session.count("meterLayoutChanged"), 2);
    session.engine.deactivate();
    session.engine.setChannelMeterEnabled(Type::Output, 0, true);
    QCOMPARE(session.count("meterLayoutChanged"), 2);
}

void tst_EngineRouting::timelineEdits_waitForTheStreamsUsers()
{
    Session session(2, 2);
    session.engine.setLimits(0.0, 10.0);
    session.engine.addSelection(1.0, 2.0);
    auto *sink = new TakeSink(&session.engine, 48000, 2);
    session.engine.addSink(sink);
    session.engine.setLimits(5.0, 6.0);
    session.engine.expandLimits(0.0, 60.0);
    session.engine.collapsLimits(5.0, 6.0);
    session.engine.clearSelections();
    session.engine.removeSelection(1.0, 2.0);
    session.engine.addSelection(3.0, 4.0);
    const Timeline *timeline = session.engine.timeline();
    QCOMPARE(timeline->end(), 10.0);
    QVERIFY(timeline->hasSlices());
    QCOMPARE(timeline->mixer_time(3.5), 0.0);
    session.engine.removeSink(sink);
    session.engine.removeSelection(0.0, 5.0);
    QVERIFY(!timeline->hasSlices());
    session.engine.addSelection(4.0, 3.0);
    QVERIFY(timeline->hasSlices());
    session.engine.clearSelections();
    QVERIFY(!timeline->hasSlices());
}

void tst_EngineRouting::selection_withoutLength_changesNothing()
{
    Session session;
    session.engine.setLimits(0.0, 10.0);
    session.engine.addSelection(3.0, 3.0);
    QVERIFY(!session.engine.timeline()->hasSlices());
}

void tst_EngineRouting::expandAndCollapse_followThePredicates()
{
    Session session;
    session.engine.expandLimits(2.0, 8.0);
    const Timeline *timeline = session.engine.timeline();
    QCOMPARE(timeline->end(), 8.0);
    session.engine.expandLimits(3.0, 7.0);
    QCOMPARE(timeline->end(), 8.0);
    session.engine.collapsLimits(2.0, 8.0);
    QCOMPARE(timeline->start(), 2.0);
    session.engine.collapsLimits(3.0, 9.0);
    QCOMPARE(timeline->start(), 3.0);
    QCOMPARE(timeline->end(), 9.0);
    session.engine.expandLimits(4.0, 12.0);
    QCOMPARE(timeline->start(), 4.0);
}

void tst_EngineRouting::setLooping_needsAnActiveMixer()
{
    Session session;
    const int changes = session.count("mixerChanged");
    session.engine.setLooping(true);
    QVERIFY(session.engine.isLooping());
    QCOMPARE(session.count("mixerChanged"), changes + 1);
    session.engine.deactivate();
    session.engine.setLooping(false);
    QVERIFY(session.engine.isLooping());
    QCOMPARE(session.count("mixerChanged"), changes + 2);
}

void tst_EngineRouting::rangedSource_holdsTheStream()
{
    Session session;
    auto *source = new RampSource(&session.engine, 48000, 2, 10.0, Range{1.0, 2.0});
    QVERIFY(session.engine.addSource(source));
    QCOMPARE(EngineAccess::shipped(session.engine).streamUsers.load(), 1);
    QCOMPARE(source->timeline(), nullptr);
    session.engine.setLimits(3.0, 4.0);
    QVERIFY(session.engine.timeline()->start() != 3.0);
    session.engine.removeSource(source);
    QCOMPARE(EngineAccess::shipped(session.engine).streamUsers.load(), 0);
}

void tst_EngineRouting::timeline_isReset()
{
    Session session;
    session.addRamp(48000, 10.0);
    session.engine.start(1.0);
    session.run(2);
    session.engine.reset();
    QCOMPARE(session.engine.timeline()->start(), -1.0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

QTEST_GUILESS_MAIN(tst_EngineRouting)
#include "tst_engine_routing.moc"
