// SPDX-License-Identifier: MIT
// What a backend does for its stream: opening and blocks.
#include <mixer/api/api_p.h>

#include "plain_api.h"

#include <mixer/engine_p.h>
#include <support/log_capture.h>
#include <support/test_api.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

class RenamedApi : public TestApi
{
public:
    Backend backend() const override { return ASIO; }
};

/// Answers what a test says when it is asked for rates.
class RateEngine : public Engine
{
public:
    RateEngine() : Engine(nullptr) {}

    QList<unsigned> availableSampleRates(Device *output, Device *input,
                                         unsigned &rate) const override
    {
        asked = {output, input};
        askedRate = rate;
        rate = answer;
        return rates;
    }

    QList<unsigned> rates{44100, 48000};
    unsigned answer = 48000;
    mutable QList<Device *> asked;
    mutable unsigned askedRate = 0;
};

/// Remembers the arguments of its questions.
struct AskedDevice : public TestDevice
{
    using TestDevice::TestDevice;
    bool canPlayback(bool argument) const override
    {
        playback.append(argument);
        return argument;
    }
    bool canCapture(bool argument) const override
    {
        capture.append(argument);
        return argument;
    }
    mutable QList<bool> playback;
    mutable QList<bool> capture;
};

} // namespace

class tst_Api : public QObject
{
    Q_OBJECT

private slots:
    void construction_setsWhatItIsGiven();
    void bufferFrames_areLimited_onlyAtConstruction();
    void backendString_namesAnOverriddenBackend();
    void defaults_ofOptionalOperations();
    void openApi_withoutDevices_opensNothing();
    void openApi_fails_withoutEngine();
    void openApi_fails_withoutRate_data();
    void openApi_fails_withoutRate();
    void openApi_fails_whenTheBackendDoes();
    void openApi_opensAtTheEnginesRate();
    void openApi_dropsDevicesThatCannot();
    void openApi_clearsTheChange();
    void capabilities_passTheArgumentOn();
    void closeApi_closesAndForgets();
    void activeDevice_followsTheOpenOne();
    void mixerCallback_aborts_withoutEngine();
    void mixerCallback_runsABlockOfTheEngine();
};

void tst_Api::construction_setsWhatItIsGiven()
{
    const PlainApi api(512);
    QCOMPARE(api.backend(), Jack);
    QCOMPARE(api.backendString(), QStringLiteral("Jack"));
    QCOMPARE(api.name(), QStringLiteral("Plain"));
    QCOMPARE(api.bufferFrames(), 512u);
    QCOMPARE(api.sampleRate(), 48000u);
    QCOMPARE(api.parent(), nullptr);
    QVERIFY(api.devices().isEmpty());
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(api.canUpdateDeviceList());
}

void tst_Api::bufferFrames_areLimited_onlyAtConstruction()
{
    QCOMPARE(PlainApi(4096).bufferFrames(), 4096u);
    QCOMPARE(PlainApi(4097).bufferFrames(), 4096u);
    PlainApi api(0);
    QCOMPARE(api.bufferFrames(), 0u);
    api.setBufferFrames(9999);
    QCOMPARE(api.bufferFrames(), 9999u);
}

void tst_Api::backendString_namesAnOverriddenBackend()
{
    const RenamedApi api;
    QCOMPARE(api.backendString(), QStringLiteral("ASIO"));
}

void tst_Api::defaults_ofOptionalOperations()
{
    PlainApi api(256);
    QVERIFY(!api.mayPauseAgain());
    QVERIFY(!api.showControlPanel(DeviceKind::Output));
    QVERIFY(!api.showControlPanel(DeviceKind::Input));
    QVERIFY(!api.canCapture(true));
    QVERIFY(!api.canPlayback(true));
    QCOMPARE(api.numInputChannels(), 0u);
    QCOMPARE(api.numOutputChannels(), 0u);
    for (const DeviceKind kind : {DeviceKind::Input, DeviceKind::Output}) {
        QCOMPARE(api.currentDevice(kind), nullptr);
        QCOMPARE(api.activeDevice(kind), nullptr);
    }
    api.onPause();
    api.onResume();
    QVERIFY(!api.isRunning());
}

void tst_Api::openApi_withoutDevices_opensNothing()
{
    const LogCapture log;
    TestApi api;
    QVERIFY(api.openApi(nullptr, nullptr, 48000));
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    api.updateDeviceList();
    QVERIFY(api.openApi(desk, desk, 44100));
    api.calls.clear();
    QVERIFY(api.openApi(nullptr, nullptr, 96000));
    QCOMPARE(api.calls, QStringList());
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), nullptr);
    QCOMPARE(api.sampleRate(), 48000u);
}

void tst_Api::openApi_fails_withoutEngine()
{
    const LogCapture log;
    TestApi api;
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    QVERIFY(!api.openApi(desk, desk, 48000));
    QCOMPARE(api.calls, QStringList());
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
}

void tst_Api::openApi_fails_withoutRate_data()
{
    QTest::addColumn<QList<unsigned>>("rates");
    QTest::addColumn<unsigned>("rate");
    QTest::newRow("no rates") << QList<unsigned>() << 48000u;
    QTest::newRow("rate 0") << QList<unsigned>{48000} << 0u;
}

void tst_Api::openApi_fails_withoutRate()
{
    QFETCH(QList<unsigned>, rates);
    QFETCH(unsigned, rate);
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    QVERIFY(api.openApi(desk, desk, 48000));
    engine.rates = rates;
    engine.answer = rate;
    api.calls.clear();
    QVERIFY(!api.openApi(desk, desk, 48000));
    QCOMPARE(api.calls, QStringList());
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), nullptr);
}

void tst_Api::openApi_fails_whenTheBackendDoes()
{
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    engine.answer = 44100;
    api.acceptOpen = [](Device *, Device *, unsigned) { return false; };
    ApiAccess::data(api).changedSinceOpen = true;
    QVERIFY(!api.openApi(desk, desk, 44100));
    QCOMPARE(api.calls, QStringList{"open Desk/Desk 44100"});
    QCOMPARE(api.sampleRate(), 48000u);
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), nullptr);
    QVERIFY(ApiAccess::data(api).changedSinceOpen);
}

void tst_Api::openApi_opensAtTheEnginesRate()
{
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *out = api.addTestDevice("Out", 0, 6);
    TestDevice *in = api.addTestDevice("In", 3, 0);
    engine.answer = 44100;
    QVERIFY(api.openApi(out, in, 12345));
    QCOMPARE(engine.asked, (QList<Device *>{out, in}));
    QCOMPARE(engine.askedRate, 12345u);
    QCOMPARE(api.calls, QStringList{"open Out/In 44100"});
    QCOMPARE(api.sampleRate(), 44100u);
    QCOMPARE(api.currentDevice(DeviceKind::Output), out);
    QCOMPARE(api.currentDevice(DeviceKind::Input), in);
    QCOMPARE(api.numOutputChannels(), 6u);
    QCOMPARE(api.numInputChannels(), 3u);
    QVERIFY(api.canPlayback(false));
    QVERIFY(api.canCapture(false));

    QVERIFY(api.openApi(nullptr, in, 44100));
    QCOMPARE(api.calls.last(), QStringLiteral("open null/In 44100"));
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), in);
    QCOMPARE(api.numOutputChannels(), 0u);
}

void tst_Api::openApi_dropsDevicesThatCannot()
{
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *out = api.addTestDevice("Out", 0, 2);
    TestDevice *in = api.addTestDevice("In", 1, 0);
    // Each on the other's side.
    QVERIFY(api.openApi(in, out, 48000));
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), nullptr);
}

void tst_Api::openApi_clearsTheChange()
{
    const LogCapture log;
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    api.updateDeviceList();
    QVERIFY(ApiAccess::data(api).changedSinceOpen);
    QVERIFY(api.openApi(desk, desk, 48000));
    QVERIFY(!ApiAccess::data(api).changedSinceOpen);
    QVERIFY(api.deviceListWasChanged());
}

void tst_Api::capabilities_passTheArgumentOn()
{
    TestApi api;
    AskedDevice device(&api);
    ApiAccess::data(api).setCurrent(&device, &device);
    QVERIFY(api.canPlayback(true));
    QVERIFY(!api.canPlayback(false));
    QVERIFY(!api.canCapture(false));
    QVERIFY(api.canCapture(true));
    // Who asks without an argument passes false.
    QVERIFY(!api.canPlayback());
    QVERIFY(!api.canCapture());
    const Device &plain = device;
    QVERIFY(!plain.canPlayback());
    QVERIFY(!plain.canCapture());
    QCOMPARE(device.playback, (QList<bool>{true, false, false, false}));
    QCOMPARE(device.capture, (QList<bool>{false, true, false, false}));
    ApiAccess::data(api).setCurrent(nullptr, nullptr);
}

void tst_Api::closeApi_closesAndForgets()
{
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    QVERIFY(api.openApi(desk, desk, 48000));
    QVERIFY(api.closeApi());
    QCOMPARE(api.calls.last(), QStringLiteral("close"));
    QCOMPARE(api.currentDevice(DeviceKind::Output), nullptr);
    QCOMPARE(api.currentDevice(DeviceKind::Input), nullptr);
    QCOMPARE(api.sampleRate(), 48000u);
    // Whatever the backend says, the answer is true.
    QVERIFY(PlainApi(256).closeApi());
}

void tst_Api::activeDevice_followsTheOpenOne()
{
    const LogCapture log;
    TestApi api;
    RateEngine engine;
    api.setEngine(&engine);
    TestDevice *desk = api.addTestDevice("Desk", 2, 2);
    TestDevice *other = api.addTestDevice("Other", 2, 2);
    other->defaultOutput = true;
    api.updateDeviceList();
    QVERIFY(api.openApi(desk, nullptr, 48000));
    QCOMPARE(api.activeDevice(DeviceKind::Output), desk);
    QCOMPARE(api.activeDevice(DeviceKind::Input), nullptr);

    api.hideDevice(desk);
    api.updateDeviceList();
    QCOMPARE(api.activeDevice(DeviceKind::Output), other);
    QCOMPARE(api.currentDevice(DeviceKind::Output), desk);

    TestDevice *again = api.addTestDevice("Desk", 2, 2);
    api.updateDeviceList();
    QCOMPARE(api.activeDevice(DeviceKind::Output), again);

    api.hideDevice(again);
    api.hideDevice(other);
    api.updateDeviceList();
    QCOMPARE(api.activeDevice(DeviceKind::Output), nullptr);
}

void tst_Api::mixerCallback_aborts_withoutEngine()
{
    PlainApi api(256);
    TestApi::Buffer block(512);
    QCOMPARE(api.mixerCallback(block, block, 256, 0.0, 0), 2);
    Engine engine(nullptr);
    api.setEngine(&engine);
    QCOMPARE(api.mixerCallback(block, block, 256, 0.0, 0), 0);
    api.setEngine(nullptr);
    QCOMPARE(api.mixerCallback(block, block, 256, 0.0, 0), 2);
}

void tst_Api::mixerCallback_runsABlockOfTheEngine()
{
    PlainApi api(256);
    Engine engine(nullptr);
    api.setEngine(&engine);
    Engine::Data &data = EngineAccess::shipped(engine);
    TestApi::Buffer none;
    const auto blocks = data.callbackCount.load();
    const qint64 clock = data.mixTime;
    QCOMPARE(api.mixerCallback(none, none, 100, 0.5, 0), 0);
    QCOMPARE(data.callbackCount.load(), blocks + 1);
    QCOMPARE(data.mixTime.load(), clock + 100);
}

QTEST_GUILESS_MAIN(tst_Api)
#include "tst_api.moc"
