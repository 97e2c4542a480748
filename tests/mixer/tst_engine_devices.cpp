// SPDX-License-Identifier: MIT
// Choosing and opening devices, rates and buffer sizes, the device list.
#include <support/log_capture.h>
#include <support/session.h>

#include <mixer/meter/meter.h>
#include <mixer/store/store.h>

#include <QtTest/QTest>

#include <algorithm>
#include <stdexcept>
#include <thread>

using namespace QTovelMixer;

namespace {

/// An engine on a backend with two devices that are not open yet.
struct Desk
{
    Desk()
    {
        speakers = api->addTestDevice("Speakers", 0, 2);
        microphone = api->addTestDevice("Microphone", 1, 0);
        api->updateDeviceList();
        api->calls.clear();
        QObject::connect(&engine, &Engine::mixerChanged, &engine, [this] { ++mixerChanged; });
        QObject::connect(&engine, &Engine::activated, &engine, [this] { ++activated; });
        QObject::connect(&engine, &Engine::deactivated, &engine, [this] { ++deactivated; });
        QObject::connect(&engine, &Engine::updatingDeviceList, &engine, [this] { ++updating; });
        QObject::connect(&engine, &Engine::deviceListChanged, &engine, [this] { ++listChanged; });
        QObject::connect(&engine, &Engine::updateDeviceListFailed, &engine,
                         [this](const QString &name) { failedBackend = name; });
    }

    TestApi *api = new TestApi;
    Engine engine{api};
    TestDevice *speakers;
    TestDevice *microphone;
    int mixerChanged = 0;
    int activated = 0;
    int deactivated = 0;
    int updating = 0;
    int listChanged = 0;
    QString failedBackend;
};

} // namespace

class tst_EngineDevices : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void accessors_tolerateNoBackend();
    void activate_opensTheDefaultDevices();
    void activate_withoutSignal_whenTheStreamRuns();
    void activate_staysActiveWithoutSignal_whenNothingOpens();
    void activate_isMarshalled_fromAnotherThread();
    void deactivate_closesAndSignals();
    void setActive_goesBothWays();
    void select_doesNothing_whenAlreadyOpen();
    void select_fallsBackToOneSide();
    void select_retriesAtThePreferedRate();
    void select_triesSameNamedAlternatives();
    void select_ofNothing_isOpenNothing();
    void select_isFalse_whenNothingOpens();
    void select_opensOnce_fromAnotherThread();
    void open_buildsBusesAndMeters();
    void open_logsAFailure();
    void open_startsTheStream_whenActive();
    void availableSampleRates_correctsTheRate_data();
    void availableSampleRates_correctsTheRate();
    void availableSampleRates_ofTwoDevices_isWhatBothHave();
    void availableBufferSizes_listsAndCorrects_data();
    void availableBufferSizes_listsAndCorrects();
    void preferedSampleRate_fitsBothDevices();
    void defaults_areSharedAndChecked();
    void showControlPanel_knowsTwoKinds();
    void updateDeviceList_waitsAndThenRebuilds();
    void updateDeviceList_deactivatesFirst_whenAsked();
    void doDeviceListUpdate_reportsFailure();
    void doDeviceListUpdate_leavesADisabledBackendAlone();
    void doDeviceListUpdate_activatesAgain_whenNothingHadOpened();
    void doDeviceListUpdate_opensTheFirstDeviceThatComes();
    void doDeviceListUpdate_opensNothing_whenTheHostChoseNone();
    void initialize_registersTheTypes();
};

void tst_EngineDevices::accessors_tolerateNoBackend()
{
    Engine engine(nullptr);
    QVERIFY(engine.devices().isEmpty());
    QCOMPARE(engine.backendString(), QString());
    QCOMPARE(engine.backend(), NoBackend);
    QCOMPARE(engine.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(engine.currentDeviceName(DeviceKind::Output), "null");
    QCOMPARE(engine.defaultDevice(DeviceKind::Input), nullptr);
    QCOMPARE(engine.device(DeviceKind::Input, QString("default")), nullptr);
    QCOMPARE(engine.device(DeviceKind::Input, 0u), nullptr);
    QCOMPARE(engine.sampleRate(), 0u);
    QCOMPARE(engine.bufferFrames(), 0u);
    QCOMPARE(engine.numInputChannels(), 0u);
    QCOMPARE(engine.numOutputChannels(), 0u);
    QVERIFY(!engine.canPlayback());
    QVERIFY(!engine.canCapture());
    QVERIFY(!engine.select(nullptr, nullptr, 48000));
    QVERIFY(!engine.open(nullptr, nullptr, 48000));
    engine.setTime(3.0);
    QCOMPARE(engine.time(), 0.0);
    engine.activate();
    QVERIFY(engine.isActive());
    QVERIFY(engine.start(1.0));
    engine.stop(true);
    engine.deactivate();
}

void tst_EngineDevices::activate_opensTheDefaultDevices()
{
    Desk desk;
    LogCapture log;
    desk.engine.activate();
    QVERIFY(log.contains("Activating Mixer (Auto) !"));
    QCOMPARE(desk.api->calls, QStringList({"open Speakers/Microphone 48000"}));
    QCOMPARE(desk.activated, 1);
    QCOMPARE(desk.mixerChanged, 1);
    QVERIFY(desk.engine.isActive());
    QVERIFY(!desk.api->isRunning());
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Output), desk.speakers);
    QCOMPARE(desk.engine.currentDeviceName(DeviceKind::Input), "Microphone");
    desk.engine.activate();
    QCOMPARE(desk.activated, 1);
    QCOMPARE(desk.api->calls.size(), 1);
}

void tst_EngineDevices::activate_withoutSignal_whenTheStreamRuns()
{
    Desk desk;
    QVERIFY(desk.engine.open(desk.speakers, nullptr, 48000));
    desk.api->start();
    desk.engine.activate();
    QVERIFY(desk.engine.isActive());
    QCOMPARE(desk.activated, 0);
}

void tst_EngineDevices::activate_staysActiveWithoutSignal_whenNothingOpens()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    desk.engine.activate();
    QVERIFY(desk.engine.isActive());
    QCOMPARE(desk.activated, 0);
    QVERIFY(!desk.api->isOpen());
}

void tst_EngineDevices::activate_isMarshalled_fromAnotherThread()
{
    Desk desk;
    std::atomic<bool> done{false};
    std::atomic<bool> activeAfterwards{false};
    std::thread other([&] {
        desk.engine.activate();
        activeAfterwards = desk.engine.isActive();
        desk.engine.stop(true);
        desk.engine.deactivate(UserStopAction);
        done = true;
    });
    QTRY_VERIFY(done);
    other.join();
    QVERIFY(activeAfterwards);
    QCOMPARE(desk.activated, 1);
    QCOMPARE(desk.deactivated, 1);
}

void tst_EngineDevices::deactivate_closesAndSignals()
{
    Desk desk;
    desk.engine.activate();
    LogCapture log;
    desk.engine.deactivate();
    QVERIFY(log.contains("Deactivating Mixer (Auto) !"));
    QVERIFY(!desk.engine.isActive());
    QVERIFY(!desk.api->isOpen());
    QCOMPARE(desk.engine.inputMeter(), nullptr);
    QCOMPARE(desk.engine.outputMeter(), nullptr);
    QCOMPARE(desk.deactivated, 1);
    QCOMPARE(desk.mixerChanged, 2);
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Output), nullptr);
}

void tst_EngineDevices::setActive_goesBothWays()
{
    Desk desk;
    desk.engine.setActive(true);
    QVERIFY(desk.engine.isActive());
    desk.engine.setActive(false);
    QVERIFY(!desk.engine.isActive());
}

void tst_EngineDevices::select_doesNothing_whenAlreadyOpen()
{
    Desk desk;
    QVERIFY(desk.engine.select(desk.speakers, nullptr, 44100));
    desk.api->calls.clear();
    QVERIFY(desk.engine.select(desk.speakers, nullptr, 44100));
    QVERIFY(desk.api->calls.isEmpty());
    QVERIFY(desk.engine.select(desk.speakers, nullptr, 48000));
    QVERIFY(!desk.api->calls.isEmpty());
}

void tst_EngineDevices::select_fallsBackToOneSide()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *out, Device *, unsigned) { return out == nullptr; };
    QVERIFY(desk.engine.select(desk.speakers, desk.microphone, 48000));
    QCOMPARE(desk.api->calls,
             QStringList({"open Speakers/Microphone 48000", "open Speakers/null 48000",
                          "open null/Microphone 48000"}));
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Input), desk.microphone);
    QCOMPARE(desk.mixerChanged, 3);
}

void tst_EngineDevices::select_retriesAtThePreferedRate()
{
    Desk desk;
    desk.speakers->prefered = 96000;
    desk.api->acceptOpen = [](Device *, Device *, unsigned rate) { return rate == 96000; };
    LogCapture log;
    QVERIFY(desk.engine.select(desk.speakers, nullptr, 22050));
    QCOMPARE(log.count("QTovelMixer::Engine::select: rate 22050 Hz not supported by the device -- "
                       "retrying at its preferred rate 96000 Hz"),
             1);
    QCOMPARE(desk.engine.sampleRate(), 96000u);
}

void tst_EngineDevices::select_triesSameNamedAlternatives()
{
    Desk desk;
    TestDevice *twin = desk.api->addTestDevice("Speakers", 0, 2);
    twin->prefered = 0;
    TestDevice *inputTwin = desk.api->addTestDevice("Microphone", 2, 0);
    inputTwin->prefered = 44100;
    desk.api->updateDeviceList();
    Device *accepted = twin;
    desk.api->acceptOpen = [&](Device *out, Device *in, unsigned) {
        return (out == accepted && in == nullptr) || (in == accepted && out == nullptr);
    };
    LogCapture log;
    QVERIFY(desk.engine.select(desk.speakers, desk.microphone, 48000));
    QCOMPARE(log.count("QTovelMixer::Engine::select: output \"Speakers\" did not open -- trying "
                       "same-named alternative device at 48000 Hz"),
             1);
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Output), twin);
    accepted = inputTwin;
    QVERIFY(desk.engine.select(desk.speakers, desk.microphone, 48000));
    QCOMPARE(log.count("QTovelMixer::Engine::select: input \"Microphone\" did not open -- trying "
                       "same-named alternative device at 44100 Hz"),
             1);
    QCOMPARE(desk.engine.currentDevice(DeviceKind::Input), inputTwin);
    QCOMPARE(desk.engine.sampleRate(), 44100u);
}

void tst_EngineDevices::select_ofNothing_isOpenNothing()
{
    Desk desk;
    QVERIFY(desk.engine.select(nullptr, nullptr, 48000));
    QVERIFY(!desk.api->isOpen());
    QVERIFY(desk.api->calls.isEmpty());
}

void tst_EngineDevices::select_isFalse_whenNothingOpens()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    QVERIFY(!desk.engine.select(desk.speakers, nullptr, 48000));
    QVERIFY(!desk.api->isOpen());
    for (const QString &call : std::as_const(desk.api->calls))
        QCOMPARE(call, "open Speakers/null 48000");
}

void tst_EngineDevices::select_opensOnce_fromAnotherThread()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *out, Device *, unsigned) { return out == nullptr; };
    std::atomic<int> answer{-1};
    std::thread other([&] { answer = desk.engine.select(desk.speakers, desk.microphone, 48000); });
    QTRY_VERIFY(answer >= 0);
    other.join();
    QCOMPARE(answer.load(), 0);
    QCOMPARE(desk.api->calls, QStringList({"open Speakers/Microphone 48000"}));
}

void tst_EngineDevices::open_buildsBusesAndMeters()
{
    Desk desk;
    MeterConfig layout(Type::Output, desk.speakers);
    layout.setMeterEnabled(1, false);
    Store::store()->addMeterConfig(layout);
    QVERIFY(desk.engine.open(desk.speakers, desk.microphone, 44100));
    Store::store()->removeMeterConfig(Type::Output, desk.speakers);
    Engine::Data &data = EngineAccess::shipped(desk.engine);
    QCOMPARE(data.inputBuses.size(), 1u);
    QCOMPARE(data.outputBuses.size(), 2u);
    QCOMPARE(data.outputBuses[1].size(), 256u);
    QCOMPARE(data.outputName, "Speakers");
    QCOMPARE(data.inputName, "Microphone");
    QCOMPARE(desk.engine.inputMeter()->numMeterChannels(), 1);
    QCOMPARE(desk.engine.outputMeter()->numMeterChannels(), 1);
    QVERIFY(desk.engine.outputMeter()->channelEnabled(0));
    QVERIFY(!desk.engine.outputMeter()->isRunning());
    QCOMPARE(desk.engine.sampleRate(), 44100u);
}

void tst_EngineDevices::open_logsAFailure()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    LogCapture log;
    QVERIFY(!desk.engine.open(desk.speakers, nullptr, 48000));
    QVERIFY(log.contains("QTovelMixer::Engine::open: Failed to open mixerApi ("));
    QVERIFY(log.contains("48000Hz)"));
    QCOMPARE(desk.mixerChanged, 1);
}

void tst_EngineDevices::open_startsTheStream_whenActive()
{
    Desk desk;
    desk.engine.activate();
    QVERIFY(desk.engine.open(desk.speakers, nullptr, 48000, false));
    QVERIFY(!desk.api->isRunning());
    QVERIFY(desk.engine.open(desk.speakers, nullptr, 48000));
    QVERIFY(desk.api->isRunning());
    QCOMPARE(EngineAccess::shipped(desk.engine).apiRefs, 1);
}

void tst_EngineDevices::availableSampleRates_correctsTheRate_data()
{
    QTest::addColumn<QList<unsigned>>("rates");
    QTest::addColumn<unsigned>("rate");
    QTest::addColumn<unsigned>("corrected");
    const QList<unsigned> two = {44100, 96000};
    QTest::newRow("nearer below") << two << 50000u << 44100u;
    QTest::newRow("tie goes up") << two << 70050u << 96000u;
    QTest::newRow("just below the tie") << two << 70049u << 44100u;
    QTest::newRow("below all") << two << 8000u << 44100u;
    QTest::newRow("above all") << two << 192000u << 96000u;
    QTest::newRow("listed") << two << 96000u << 96000u;
    QTest::newRow("48000 listed") << QList<unsigned>{44100, 48000} << 22050u << 48000u;
    QTest::newRow("unsorted") << QList<unsigned>{96000, 44100} << 50000u << 44100u;
    QTest::newRow("none") << QList<unsigned>{} << 48000u << 0u;
}

void tst_EngineDevices::availableSampleRates_correctsTheRate()
{
    QFETCH(QList<unsigned>, rates);
    QFETCH(unsigned, rate);
    QFETCH(unsigned, corrected);
    Desk desk;
    desk.speakers->rates = rates;
    QList<unsigned> sorted = rates;
    std::sort(sorted.begin(), sorted.end());
    unsigned value = rate;
    QCOMPARE(desk.engine.availableSampleRates(desk.speakers, nullptr, value), sorted);
    QCOMPARE(value, corrected);
}

void tst_EngineDevices::availableSampleRates_ofTwoDevices_isWhatBothHave()
{
    Desk desk;
    desk.speakers->rates = {44100, 48000, 96000};
    desk.microphone->rates = {16000, 44100, 96000};
    unsigned rate = 48000;
    QCOMPARE(desk.engine.availableSampleRates(desk.speakers, desk.microphone, rate),
             QList<unsigned>({44100, 96000}));
    QCOMPARE(rate, 44100u);
    rate = 48000;
    QCOMPARE(desk.engine.availableSampleRates(nullptr, desk.microphone, rate),
             desk.microphone->rates);
    QVERIFY(desk.engine.availableSampleRates(nullptr, nullptr, rate).isEmpty());
    QCOMPARE(rate, 0u);
}

void tst_EngineDevices::availableBufferSizes_listsAndCorrects_data()
{
    QTest::addColumn<unsigned>("least");
    QTest::addColumn<unsigned>("most");
    QTest::addColumn<QList<unsigned>>("sizes");
    QTest::addColumn<unsigned>("size");
    QTest::addColumn<unsigned>("corrected");
    const QList<unsigned> odd = {100, 128, 256, 512, 1024, 2048, 3000};
    QTest::newRow("odd bounds") << 100u << 3000u << odd << 1024u << 1024u;
    QTest::newRow("above all") << 100u << 3000u << odd << 9000u << 3000u;
    QTest::newRow("tie goes up") << 100u << 3000u << odd << 384u << 512u;
    QTest::newRow("wide") << 32u << 16384u << QList<unsigned>{64, 128, 256, 512, 1024, 2048, 4096}
                          << 1u << 64u;
    QTest::newRow("one size") << 300u << 300u << QList<unsigned>{300} << 64u << 300u;
    QTest::newRow("no candidate inside")
        << 300u << 400u << QList<unsigned>{300, 400} << 64u << 300u;
    QTest::newRow("impossible") << 500u << 400u << QList<unsigned>{} << 256u << 0u;
}

void tst_EngineDevices::availableBufferSizes_listsAndCorrects()
{
    QFETCH(unsigned, least);
    QFETCH(unsigned, most);
    QFETCH(QList<unsigned>, sizes);
    QFETCH(unsigned, size);
    QFETCH(unsigned, corrected);
    Desk desk;
    desk.speakers->minFrames = least;
    desk.speakers->maxFrames = most;
    unsigned value = size;
    QCOMPARE(desk.engine.availableBufferSizes(desk.speakers, nullptr, value), sizes);
    QCOMPARE(value, corrected);
}

void tst_EngineDevices::preferedSampleRate_fitsBothDevices()
{
    Desk desk;
    desk.speakers->prefered = 96000;
    desk.microphone->prefered = 44100;
    QCOMPARE(desk.engine.preferedSampleRate(desk.speakers, nullptr), 96000u);
    QCOMPARE(desk.engine.preferedSampleRate(nullptr, desk.microphone), 44100u);
    desk.microphone->rates = {44100, 48000};
    QCOMPARE(desk.engine.preferedSampleRate(desk.speakers, desk.microphone), 48000u);
    QCOMPARE(desk.engine.preferedSampleRate(nullptr, nullptr), 0u);
}

void tst_EngineDevices::defaults_areSharedAndChecked()
{
    QCOMPARE(Engine::getDefault(DeviceKind::Output), "default");
    LogCapture log;
    Engine::setDefault(DeviceKind::Output, "null");
    Engine::setDefault(DeviceKind::Input, "default");
    QVERIFY(log.contains("Setting Default Output Device to null"));
    QVERIFY(log.contains("Setting Default Input Device to default"));
    QCOMPARE(Engine::getDefault(DeviceKind::Output), "null");
    QCOMPARE(Engine::getDefault(DeviceKind::Input), "default");
    Engine::setDefault(DeviceKind::Output, "default");
    try {
        Engine::setDefault(DeviceKind::Output, "Speakers");
        QFAIL("no exception");
    } catch (const std::logic_error &error) {
        QCOMPARE(QString(error.what()), QString("QTovelMixer::Engine::setDefault deviceName must "
                                                "be: \"default\" or \"null\""));
    }
    QCOMPARE(Engine::getDefault(DeviceKind::Output), "default");
    try {
        Engine::getDefault(DeviceKind(2));
        QFAIL("no exception");
    } catch (const std::logic_error &error) {
        QCOMPARE(QString(error.what()),
                 QString("QTovelMixer::Engine::getDefault invalid device kind"));
    }
    QVERIFY_THROWS_EXCEPTION(std::logic_error, Engine::setDefault(DeviceKind(5), "default"));
}

void tst_EngineDevices::showControlPanel_knowsTwoKinds()
{
    Engine engine(new TestApi);
    QVERIFY(engine.hasControlPanel());
    QVERIFY(!engine.showControlPanel(DeviceKind(2)));
    Engine disabled(new TestApi(256, Disabled));
    QVERIFY(!disabled.hasControlPanel());
}

void tst_EngineDevices::updateDeviceList_waitsAndThenRebuilds()
{
    Desk desk;
    desk.engine.activate();
    desk.api->calls.clear();
    TestDevice *late = desk.api->addTestDevice("Late", 0, 8);
    LogCapture log;
    desk.engine.updateDeviceList();
    QCOMPARE(desk.updating, 1);
    QVERIFY(!desk.api->calls.contains("update"));
    QTRY_VERIFY_WITH_TIMEOUT(desk.api->calls.contains("update"), 10000);
    QTRY_COMPARE(desk.listChanged, 1);
    QVERIFY(desk.engine.devices().contains(late));
    QVERIFY(log.contains(" -> Updating audio device list... (Auto)"));
    QVERIFY(log.contains("Update of audio device list SUCCESSFUL (Auto) !"));
    QCOMPARE(desk.activated, 1);
    QCOMPARE(desk.deactivated, 0);
}

void tst_EngineDevices::updateDeviceList_deactivatesFirst_whenAsked()
{
    Desk desk;
    desk.engine.activate();
    desk.api->calls.clear();
    desk.engine.updateDeviceList(true);
    QCOMPARE(desk.deactivated, 1);
    QCOMPARE(desk.updating, 0);
    QTRY_COMPARE(desk.updating, 1);
    QTRY_COMPARE_WITH_TIMEOUT(desk.activated, 2, 10000);
    QCOMPARE(desk.deactivated, 1);
    QCOMPARE(desk.updating, 1);
    QVERIFY(desk.api->isOpen());
}

void tst_EngineDevices::doDeviceListUpdate_reportsFailure()
{
    Desk desk;
    desk.engine.activate();
    desk.api->failUpdate = true;
    LogCapture log;
    desk.engine.doDeviceListUpdate();
    QCOMPARE(desk.failedBackend, "Auto");
    QVERIFY(log.contains("Update of audio device list FAILED (Auto) !"));
}

void tst_EngineDevices::doDeviceListUpdate_leavesADisabledBackendAlone()
{
    auto *api = new TestApi(256, Disabled);
    Engine engine(api);
    int changed = 0;
    connect(&engine, &Engine::deviceListChanged, &engine, [&] { ++changed; });
    engine.doDeviceListUpdate();
    QVERIFY(!api->calls.contains("update"));
    QCOMPARE(changed, 1);
}

void tst_EngineDevices::doDeviceListUpdate_activatesAgain_whenNothingHadOpened()
{
    Desk desk;
    desk.api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    desk.engine.activate();
    QCOMPARE(desk.activated, 0);
    desk.api->acceptOpen = nullptr;
    desk.engine.doDeviceListUpdate();
    QTRY_COMPARE(desk.activated, 1);
    QVERIFY(desk.engine.isActive());
    QVERIFY(desk.api->isOpen());
}

void tst_EngineDevices::doDeviceListUpdate_opensTheFirstDeviceThatComes()
{
    LogCapture log;
    auto *api = new TestApi;
    Engine engine(api);
    int activated = 0;
    QObject::connect(&engine, &Engine::activated, &engine, [&activated] { ++activated; });
    api->updateDeviceList();
    engine.activate();
    QCOMPARE(activated, 1);
    QVERIFY(!api->isOpen());
    engine.doDeviceListUpdate();
    QCoreApplication::processEvents();
    QCOMPARE(activated, 1);
    api->addTestDevice("late", 0, 2);
    engine.doDeviceListUpdate();
    QTRY_COMPARE(activated, 2);
    QVERIFY(api->isOpen());
}

void tst_EngineDevices::doDeviceListUpdate_opensNothing_whenTheHostChoseNone()
{
    LogCapture log;
    auto *api = new TestApi;
    Engine engine(api);
    api->updateDeviceList();
    engine.activate();
    QVERIFY(engine.open(nullptr, nullptr, 48000, false));
    api->addTestDevice("late", 0, 2);
    engine.doDeviceListUpdate();
    QCoreApplication::processEvents();
    QVERIFY(engine.isActive());
    QVERIFY(!api->isOpen());
}

void tst_EngineDevices::initialize_registersTheTypes()
{
    LogCapture log;
    Engine::Initialize();
    Engine::Finalize();
    QCOMPARE(log.count(), 0);
    for (const char *name :
         {"QTovelMixer::Device*", "QTovelMixer::Sink*", "QTovelMixer::Source*",
          "QTovelMixer::SourcePointer", "QTovelMixer::SinkPointer", "QTovelMixer::StopReason",
          "QTovelMixer::Backend", "QTovelMixer::Type"})
        QVERIFY2(QMetaType::fromName(name).isValid(), name);
    QVERIFY((QMetaType::hasRegisteredConverterFunction<SourcePointer, QObject *>()));
    QVERIFY((QMetaType::hasRegisteredConverterFunction<SinkPointer, QObject *>()));
}

QTEST_GUILESS_MAIN(tst_EngineDevices)
#include "tst_engine_devices.moc"
