// SPDX-License-Identifier: MIT
#include <mixer/api/api_p.h>
#include <mixer/engine.h>
#include <support/log_capture.h>
#include <support/test_api.h>

#include <QtTest/QTest>

#include <stdexcept>
#include <thread>

using namespace QTovelMixer;

namespace {

const QString found = "New device found: \"A\" [id:0 out in=0 out=2 pref=48000Hz]";
const QString removed = "Device removed: \"A\" [id:0 out in=0 out=2 pref=48000Hz]";

/// A backend that names another system than it was built with.
class RenamedApi : public TestApi
{
public:
    Backend backend() const override { return Jack; }
};

} // namespace

class tst_Api : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }

    void backendNames_convertBothWays();
    void construction_capsTheBuffer();
    void backendString_followsTheOverride();
    void update_findsAndLosesDevices();
    void update_isAChange_theFirstTimeOnly();
    void update_withAnUnavailableDevice_isAlwaysAChange();
    void addDevice_refusesASecondObject();
    void defaultDevice_prefersTheFlag();
    void device_byName();
    void device_byNumber();
    void findActiveDevice_followsNameAndChannels();
    void activeDevice_fallsBackToTheDefault();
    void checkDevice_knowsItsOwn();
    void openApi_ofNothing_opensNothing();
    void openApi_withoutACommonRate_fails();
    void openApi_failing_leavesNothingCurrent();
    void openApi_keepsWhatCanStream();
    void openApi_withoutEngine_fails();
    void canUpdateDeviceList_keepsADistance();
    void mixerCallback_withoutEngine_aborts();
    void mixerCallback_reachesTheEngine();
    void failure_isReportedOnce_untilRearmed();
    void failure_followsTheEngine();
    void hooks_doNothing();
};

void tst_Api::backendNames_convertBothWays()
{
    const QStringList names = {"Auto",      "File",   "Alsa", "Pulse",       "OSS",     "Jack",
                               "CoreAudio", "WASAPI", "ASIO", "DirectSound", "Disabled"};
    for (int value = 0; value < names.size(); ++value) {
        QCOMPARE(convertBackendToString(Backend(value)), names[value]);
        QCOMPARE(int(convertStringToBackend(names[value].toUpper())), value);
    }
    QCOMPARE(int(convertStringToBackend("coreaudio")), 6);
    QCOMPARE(int(convertStringToBackend("")), 0);
    QCOMPARE(int(convertStringToBackend("Foo")), 0);
    QCOMPARE(convertBackendToString(NoBackend), QString());
    for (const int value : {11, -2}) {
        try {
            convertBackendToString(Backend(value));
            QFAIL("no exception");
        } catch (const std::logic_error &error) {
            QCOMPARE(QString(error.what()), QString("Invalid backend"));
        }
    }
}

void tst_Api::construction_capsTheBuffer()
{
    TestApi api(9000, Pulse, "Mine");
    QCOMPARE(api.bufferFrames(), 4096u);
    api.setBufferFrames(9000);
    QCOMPARE(api.bufferFrames(), 9000u);
    QCOMPARE(api.name(), "Mine");
    QCOMPARE(api.backend(), Pulse);
    QCOMPARE(api.sampleRate(), 48000u);
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(api.devices().isEmpty());
    QCOMPARE(api.numInputChannels(), 0u);
    QCOMPARE(api.numOutputChannels(), 0u);
    QVERIFY(!api.canCapture(true));
    QVERIFY(!api.canPlayback(true));
}

void tst_Api::backendString_followsTheOverride()
{
    QCOMPARE(RenamedApi().backendString(), "Jack");
}

void tst_Api::update_findsAndLosesDevices()
{
    TestApi api;
    TestDevice *device = api.addTestDevice("A", 0, 2);
    LogCapture log;
    api.updateDeviceList();
    QVERIFY(device->isListed());
    QCOMPARE(log.count(QtInfoMsg, found), 1);
    api.updateDeviceList();
    QVERIFY(!api.deviceListWasChanged());
    QVERIFY(!ApiAccess::data(api).changedSinceOpen);

    api.hideDevice(device);
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(ApiAccess::data(api).changedSinceOpen);
    QVERIFY(!device->isListed());
    QVERIFY(api.devices().isEmpty());
    QCOMPARE(log.count(QtInfoMsg, removed), 1);
    QCOMPARE(api.findDevice(device->uniqueId()), device);
    api.updateDeviceList();
    QVERIFY(!api.deviceListWasChanged());

    api.showDevice(device);
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QCOMPARE(api.devices(), QList<Device *>({device}));
    QCOMPARE(log.count(QtInfoMsg, found), 2);
    QCOMPARE(log.count(QtInfoMsg, removed), 1);
}

void tst_Api::update_isAChange_theFirstTimeOnly()
{
    TestApi api;
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(!ApiAccess::data(api).changedSinceOpen);
    api.updateDeviceList();
    QVERIFY(!api.deviceListWasChanged());
}

void tst_Api::update_withAnUnavailableDevice_isAlwaysAChange()
{
    TestApi api;
    TestDevice *device = api.addTestDevice("A", 0, 2);
    device->available = false;
    LogCapture log;
    for (int i = 0; i < 3; ++i) {
        api.updateDeviceList();
        QVERIFY(api.deviceListWasChanged());
        QVERIFY(!device->isListed());
        QVERIFY(api.devices().contains(device));
    }
    QCOMPARE(log.count(), 0);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), device);
}

void tst_Api::addDevice_refusesASecondObject()
{
    TestApi api;
    api.addTestDevice("A", 0, 2);
    api.updateDeviceList();
    TestDevice twin(&api);
    twin.fullDeviceName = "A";
    LogCapture log;
    api.beginDeviceUpdate();
    api.addDevice(&twin);
    api.addDevice(nullptr);
    api.endDeviceUpdate();
    QCOMPARE(log.count(QtCriticalMsg,
                       "TovelMixer::Api::addNewDevice: Trying to add existing device. Use "
                       "findDevice(...) to check if the device already exists"),
             1);
    QVERIFY(api.devices().isEmpty());
}

void tst_Api::defaultDevice_prefersTheFlag()
{
    TestApi api;
    QCOMPARE(api.defaultDevice(DeviceKind::Output), nullptr);
    TestDevice *input = api.addTestDevice("In", 2, 0);
    TestDevice *first = api.addTestDevice("Out", 0, 2);
    TestDevice *second = api.addTestDevice("Out 2", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(DeviceKind::Output), first);
    QCOMPARE(api.defaultDevice(DeviceKind::Input), input);
    QCOMPARE(api.defaultDevice(DeviceKind(2)), nullptr);
    second->defaultOutput = true;
    QCOMPARE(api.defaultDevice(DeviceKind::Output), second);
}

void tst_Api::device_byName()
{
    TestApi api;
    TestDevice *input = api.addTestDevice("In", 2, 0);
    TestDevice *first = api.addTestDevice("Out", 0, 2);
    TestDevice *second = api.addTestDevice("Out 2", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, QString("null")), nullptr);
    QCOMPARE(api.device(DeviceKind::Output, QString("default")), first);
    QCOMPARE(api.device(DeviceKind::Output, second->uniqueId()), second);
    QCOMPARE(api.device(DeviceKind::Output, QString("unknown")), first);
    // Even an exact match is no input device without inputs.
    QCOMPARE(api.device(DeviceKind::Input, second->uniqueId()), input);
}

void tst_Api::device_byNumber()
{
    TestApi api;
    TestDevice *input = api.addTestDevice("In", 2, 0);
    TestDevice *first = api.addTestDevice("Out", 0, 2);
    TestDevice *second = api.addTestDevice("Out 2", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, unsigned(second->id)), second);
    QCOMPARE(api.device(DeviceKind::Output, unsigned(input->id)), first);
    QCOMPARE(api.device(DeviceKind::Input, 99u), input);
}

void tst_Api::findActiveDevice_followsNameAndChannels()
{
    TestApi api;
    TestDevice *device = api.addTestDevice("Out", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.findActiveDevice(nullptr), nullptr);
    QCOMPARE(api.findActiveDevice(device), device);
    api.hideDevice(device);
    TestDevice *again = api.addTestDevice("Out", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.findActiveDevice(device), again);
    again->outputs = 4;
    QCOMPARE(api.findActiveDevice(device), nullptr);
}

void tst_Api::activeDevice_fallsBackToTheDefault()
{
    auto *api = new TestApi;
    Engine engine(api);
    TestDevice *device = api->addTestDevice("Out", 0, 2);
    api->updateDeviceList();
    QCOMPARE(api->activeDevice(DeviceKind::Output), nullptr);
    QVERIFY(api->openApi(device, nullptr, 48000));
    QCOMPARE(api->activeDevice(DeviceKind::Output), device);
    QCOMPARE(api->currentDevice(DeviceKind(7)), nullptr);
    api->hideDevice(device);
    TestDevice *other = api->addTestDevice("Other", 0, 2);
    api->updateDeviceList();
    QCOMPARE(api->activeDevice(DeviceKind::Output), other);
    QCOMPARE(api->currentDevice(DeviceKind::Output), device);
}

void tst_Api::checkDevice_knowsItsOwn()
{
    TestApi api;
    TestApi otherApi;
    TestDevice *device = api.addTestDevice("Out", 0, 2);
    QVERIFY(!api.checkDevice(device));
    api.updateDeviceList();
    QVERIFY(api.checkDevice(device));
    QVERIFY(!api.checkDevice(nullptr));
    QVERIFY(!otherApi.checkDevice(device));
}

void tst_Api::openApi_ofNothing_opensNothing()
{
    TestApi api;
    QVERIFY(api.openApi(nullptr, nullptr, 48000));
    QVERIFY(api.calls.isEmpty());
    QVERIFY(!api.isOpen());
}

void tst_Api::openApi_withoutACommonRate_fails()
{
    auto *api = new TestApi;
    Engine engine(api);
    TestDevice *out = api->addTestDevice("Out", 0, 2);
    TestDevice *in = api->addTestDevice("In", 2, 0);
    out->rates = {44100};
    in->rates = {48000};
    api->updateDeviceList();
    api->calls.clear();
    QVERIFY(!api->openApi(out, in, 44100));
    QVERIFY(api->calls.isEmpty());
    QCOMPARE(api->currentDevice(DeviceKind::Output), nullptr);
    // One device's rate is corrected to what it has.
    QVERIFY(api->openApi(out, nullptr, 48000));
    QCOMPARE(api->sampleRate(), 44100u);
}

void tst_Api::openApi_failing_leavesNothingCurrent()
{
    auto *api = new TestApi;
    Engine engine(api);
    TestDevice *out = api->addTestDevice("Out", 0, 2);
    api->updateDeviceList();
    QVERIFY(api->openApi(out, nullptr, 96000));
    api->acceptOpen = [](Device *, Device *, unsigned) { return false; };
    QVERIFY(!api->openApi(out, nullptr, 44100));
    QCOMPARE(api->currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api->sampleRate(), 96000u);
    QCOMPARE(api->numOutputChannels(), 0u);
}

void tst_Api::openApi_keepsWhatCanStream()
{
    auto *api = new TestApi;
    Engine engine(api);
    TestDevice *out = api->addTestDevice("Out", 0, 2);
    TestDevice *mute = api->addTestDevice("Mute", 0, 0);
    api->updateDeviceList();
    ApiAccess::data(*api).changedSinceOpen = true;
    QVERIFY(api->openApi(out, mute, 48000));
    QCOMPARE(api->currentDevice(DeviceKind::Output), out);
    QCOMPARE(api->currentDevice(DeviceKind::Input), nullptr);
    QCOMPARE(api->numOutputChannels(), 2u);
    QVERIFY(api->canPlayback(false));
    QVERIFY(!ApiAccess::data(*api).changedSinceOpen);
    QVERIFY(api->closeApi());
    QCOMPARE(api->currentDevice(DeviceKind::Output), nullptr);
}

void tst_Api::openApi_withoutEngine_fails()
{
    TestApi api;
    TestDevice *out = api.addTestDevice("Out", 0, 2);
    api.updateDeviceList();
    QVERIFY(!api.openApi(out, nullptr, 48000));
}

void tst_Api::canUpdateDeviceList_keepsADistance()
{
    TestApi api;
    QVERIFY(api.canUpdateDeviceList());
    api.updateDeviceList();
    QVERIFY(!api.canUpdateDeviceList());
    QVERIFY(!ApiAccess::data(api).updateAllowed(1499));
    QVERIFY(ApiAccess::data(api).updateAllowed(1500));
    ApiAccess::data(api).clockShift = 1500;
    QVERIFY(api.canUpdateDeviceList());
}

void tst_Api::mixerCallback_withoutEngine_aborts()
{
    TestApi api;
    TestApi::Buffer in;
    TestApi::Buffer out;
    QCOMPARE(api.mixerCallback(in, out, 0, 0.0, 0), 2);
}

void tst_Api::mixerCallback_reachesTheEngine()
{
    auto *api = new TestApi;
    Engine engine(api);
    TestApi::Buffer in;
    TestApi::Buffer out;
    QCOMPARE(api->mixerCallback(in, out, 64, 0.0, 0), 0);
    api->setEngine(nullptr);
    QCOMPARE(api->mixerCallback(in, out, 64, 0.0, 0), 2);
}

void tst_Api::failure_isReportedOnce_untilRearmed()
{
    TestApi api(256, Alsa);
    int failures = 0;
    connect(&api, &Api::deviceFailure, &api, [&] { ++failures; });
    LogCapture log;
    api.reportDeviceFailure();
    api.reportDeviceFailure();
    std::thread other([&] { api.reportDeviceFailure(); });
    other.join();
    const QString text = "QTovelMixer::Api: audio device failure detected (Alsa) -- requesting "
                         "mixer teardown";
    QCOMPARE(failures, 1);
    QCOMPARE(log.count(text), 1);
    api.rearmDeviceFailure();
    api.reportDeviceFailure();
    QCOMPARE(failures, 2);
    QCOMPARE(log.count(text), 2);
}

void tst_Api::failure_followsTheEngine()
{
    Engine first(nullptr);
    Engine second(nullptr);
    int firstFailures = 0;
    int secondFailures = 0;
    connect(&first, &Engine::deviceFailed, &first, [&] { ++firstFailures; });
    connect(&second, &Engine::deviceFailed, &second, [&] { ++secondFailures; });
    TestApi api;
    api.setEngine(&first);
    api.setEngine(&second);
    api.reportDeviceFailure();
    QCOMPARE(secondFailures, 0);
    QTRY_COMPARE(secondFailures, 1);
    QCOMPARE(firstFailures, 0);
    api.setEngine(nullptr);
}

void tst_Api::hooks_doNothing()
{
    TestApi api;
    api.Api::onPause();
    api.Api::onResume();
    QVERIFY(!api.Api::mayPauseAgain());
    QVERIFY(!api.showControlPanel(DeviceKind::Output));
}

QTEST_GUILESS_MAIN(tst_Api)
#include "tst_api.moc"
