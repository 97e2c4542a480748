// SPDX-License-Identifier: MIT
// Finding devices in the list of a backend.
#include <mixer/api/api.h>

#include "scored_device.h"

#include <support/log_capture.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr auto noKind = DeviceKind(7);

} // namespace

class tst_ApiLookup : public QObject
{
    Q_OBJECT

private slots:
    void findDevice_searchesAllDevicesExactly();
    void findActiveDevice_answersAnEqualDevice();
    void defaultDevice_prefersTheMarkedOne();
    void defaultDevice_takesTheFirstThatFits();
    void defaultDevice_isNull_forAnotherKind();
    void deviceByName_knowsNullAndDefault();
    void deviceByName_takesTheBestScore();
    void deviceByName_ignoresDevicesOfTheOtherKind();
    void deviceByName_fallsBackToTheDefault();
    void deviceByNumber_needsChannels();
    void checkDevice_knowsItsOwn();
};

void tst_ApiLookup::findDevice_searchesAllDevicesExactly()
{
    const LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    QCOMPARE(api.findDevice("Speakers0"), nullptr);
    api.updateDeviceList();
    QCOMPARE(api.findDevice("Speakers0"), speakers);
    QCOMPARE(api.findDevice("speakers0"), nullptr);
    QCOMPARE(api.findDevice("Speakers"), nullptr);
    QCOMPARE(api.findDevice(QString()), nullptr);
    api.hideDevice(speakers);
    api.updateDeviceList();
    QCOMPARE(api.findDevice("Speakers0"), speakers);
}

void tst_ApiLookup::findActiveDevice_answersAnEqualDevice()
{
    const LogCapture log;
    TestApi api;
    TestDevice *old = api.addTestDevice("Desk", 2, 2);
    api.updateDeviceList();
    QCOMPARE(api.findActiveDevice(nullptr), nullptr);
    QCOMPARE(api.findActiveDevice(old), old);

    api.hideDevice(old);
    api.addTestDevice("Desk", 4, 2);
    api.addTestDevice("Desk", 2, 4);
    api.addTestDevice("Table", 2, 2);
    api.updateDeviceList();
    QCOMPARE(api.findActiveDevice(old), nullptr);
    TestDevice *equal = api.addTestDevice("Desk", 2, 2);
    equal->deviceName = "another short name";
    api.updateDeviceList();
    QCOMPARE(api.findActiveDevice(old), equal);
}

void tst_ApiLookup::defaultDevice_prefersTheMarkedOne()
{
    const LogCapture log;
    TestApi api;
    QCOMPARE(api.defaultDevice(DeviceKind::Input), nullptr);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), nullptr);
    api.addTestDevice("First", 2, 2);
    TestDevice *input = api.addTestDevice("In", 1, 0);
    TestDevice *output = api.addTestDevice("Out", 0, 2);
    TestDevice *second = api.addTestDevice("Second", 2, 2);
    input->defaultInput = true;
    output->defaultOutput = true;
    second->defaultInput = true;
    second->defaultOutput = true;
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(DeviceKind::Input), input);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), output);
}

void tst_ApiLookup::defaultDevice_takesTheFirstThatFits()
{
    const LogCapture log;
    TestApi api;
    TestDevice *output = api.addTestDevice("Out", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(DeviceKind::Input), nullptr);
    TestDevice *input = api.addTestDevice("In", 1, 0);
    api.addTestDevice("Both", 2, 2);
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(DeviceKind::Input), input);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), output);
}

void tst_ApiLookup::defaultDevice_isNull_forAnotherKind()
{
    const LogCapture log;
    TestApi api;
    TestDevice *both = api.addTestDevice("Both", 2, 2);
    both->defaultInput = true;
    both->defaultOutput = true;
    api.updateDeviceList();
    QCOMPARE(api.defaultDevice(noKind), nullptr);
    QCOMPARE(api.device(noKind, both->uniqueId()), nullptr);
    QCOMPARE(api.device(noKind, 0u), nullptr);
    QCOMPARE(api.currentDevice(noKind), nullptr);
    QCOMPARE(api.activeDevice(noKind), nullptr);
}

void tst_ApiLookup::deviceByName_knowsNullAndDefault()
{
    const LogCapture log;
    TestApi api;
    api.addTestDevice("In", 1, 0);
    TestDevice *output = api.addTestDevice("Out", 0, 2);
    api.addTestDevice("null", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, "null"), nullptr);
    QCOMPARE(api.device(DeviceKind::Output, "default"), output);
    // Both words only as they are written; anything else is an identity.
    QCOMPARE(api.device(DeviceKind::Output, "NULL"), output);
}

void tst_ApiLookup::deviceByName_takesTheBestScore()
{
    const LogCapture log;
    TestApi api;
    auto *system = new ScoredDevice(&api, "System", 2, 0);
    system->defaultOutput = true;
    auto *weak = new ScoredDevice(&api, "Weak", 2, 16);
    auto *good = new ScoredDevice(&api, "Good", 2, 64);
    auto *asGood = new ScoredDevice(&api, "As good", 2, 64);
    listExactly(api, system, weak, good, asGood);
    QCOMPARE(api.device(DeviceKind::Output, "any"), good);
    good->score = 0;
    asGood->score = 1;
    QCOMPARE(api.device(DeviceKind::Output, "any"), weak);
    weak->score = 0;
    QCOMPARE(api.device(DeviceKind::Output, "any"), asGood);
    asGood->score = 0;
    QCOMPARE(api.device(DeviceKind::Output, "any"), system);
}

void tst_ApiLookup::deviceByName_ignoresDevicesOfTheOtherKind()
{
    const LogCapture log;
    TestApi api;
    TestDevice *output = api.addTestDevice("Out", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, output->uniqueId()), output);
    QCOMPARE(api.device(DeviceKind::Input, output->uniqueId()), nullptr);
    TestDevice *input = api.addTestDevice("In", 1, 0);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Input, output->uniqueId()), input);
}

void tst_ApiLookup::deviceByName_fallsBackToTheDefault()
{
    const LogCapture log;
    TestApi api;
    api.addTestDevice("First", 0, 2);
    TestDevice *marked = api.addTestDevice("Second", 0, 2);
    marked->defaultOutput = true;
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, "no such device"), marked);
    QCOMPARE(api.device(DeviceKind::Output, QString()), marked);
    // A device that went away is no longer a candidate.
    TestDevice *third = api.addTestDevice("Third", 0, 2);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, third->uniqueId()), third);
    api.hideDevice(third);
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Output, third->uniqueId()), marked);
}

void tst_ApiLookup::deviceByNumber_needsChannels()
{
    const LogCapture log;
    TestApi api;
    TestDevice *input = api.addTestDevice("In", 1, 0);
    TestDevice *output = api.addTestDevice("Out", 0, 2);
    TestDevice *other = api.addTestDevice("Other", 0, 2);
    input->id = 7;
    output->id = 8;
    other->id = 7;
    api.updateDeviceList();
    QCOMPARE(api.device(DeviceKind::Input, 7u), input);
    QCOMPARE(api.device(DeviceKind::Output, 7u), other);
    QCOMPARE(api.device(DeviceKind::Output, 8u), output);
    QCOMPARE(api.device(DeviceKind::Output, 99u), output);
    QCOMPARE(api.device(DeviceKind::Input, 8u), input);
}

void tst_ApiLookup::checkDevice_knowsItsOwn()
{
    const LogCapture log;
    TestApi api;
    TestApi stranger;
    TestDevice *device = api.addTestDevice("Desk", 2, 2);
    QVERIFY(!api.checkDevice(nullptr));
    QVERIFY(!api.checkDevice(device));
    api.updateDeviceList();
    QVERIFY(api.checkDevice(device));
    QVERIFY(!stranger.checkDevice(device));
    api.hideDevice(device);
    api.updateDeviceList();
    QVERIFY(!api.checkDevice(device));

    auto *foreign = new ScoredDevice(&stranger, "Foreign", 2, 0);
    listExactly(api, foreign);
    QVERIFY(!api.checkDevice(foreign));
}

QTEST_GUILESS_MAIN(tst_ApiLookup)
#include "tst_api_lookup.moc"
