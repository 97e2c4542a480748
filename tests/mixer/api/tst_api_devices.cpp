// SPDX-License-Identifier: MIT
// How updates change the device list of a backend.
#include <mixer/api/api_p.h>

#include "scored_device.h"

#include <support/log_capture.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_ApiDevices : public QObject
{
    Q_OBJECT

private slots:
    void update_reportsAChange_theFirstTimeOnly();
    void update_listsWhatItFinds_inOrder();
    void update_logsEveryDevice_once();
    void update_keepsTheObject_ofADeviceThatComesBack();
    void update_reportsAChange_asLongAsADeviceIsUnavailable();
    void update_clearsTheFlag_ofADeviceThatBecomesUnavailable();
    void update_logsNoRemoval_ofADeviceThatWasUnavailable();
    void update_forgetsEarlierChanges();
    void beginDeviceUpdate_emptiesTheList();
    void addDevice_refusesASecondObject();
    void addDevice_ignoresNull();
    void addDevice_listsTwice_whatIsAddedTwice();
    void destructor_deletesEveryDeviceOnce();
    void canUpdateDeviceList_isTrue_atFirst();
    void canUpdateDeviceList_isTrueAgain_after1500ms();
};

void tst_ApiDevices::update_reportsAChange_theFirstTimeOnly()
{
    TestApi api;
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(api.updateDeviceList());
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(!ApiAccess::data(api).changedSinceOpen);
    QVERIFY(api.updateDeviceList());
    QVERIFY(!api.deviceListWasChanged());
}

void tst_ApiDevices::update_listsWhatItFinds_inOrder()
{
    const LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    TestDevice *mic = api.addTestDevice("Mic", 1, 0);
    QVERIFY(api.devices().isEmpty());
    QVERIFY(!speakers->isListed());
    api.updateDeviceList();
    QCOMPARE(api.devices(), (QList<Device *>{speakers, mic}));
    QVERIFY(speakers->isListed());
    QVERIFY(mic->isListed());
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(ApiAccess::data(api).changedSinceOpen);
}

void tst_ApiDevices::update_logsEveryDevice_once()
{
    LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    speakers->id = 73;
    TestDevice *mic = api.addTestDevice("Mic", 1, 0);
    mic->id = 4;
    api.updateDeviceList();
    const QString speakersText = "\"Speakers\" [id:73 out in=0 out=2 pref=48000Hz]";
    const QString micText = "\"Mic\" [id:4 in in=1 out=0 pref=48000Hz]";
    QCOMPARE(log.texts(QtInfoMsg),
             (QStringList{"New device found: " + speakersText, "New device found: " + micText}));
    QCOMPARE(log.count(), 2);

    log.clear();
    api.updateDeviceList();
    QCOMPARE(log.count(), 0);
    QVERIFY(!api.deviceListWasChanged());

    api.hideDevice(speakers);
    api.updateDeviceList();
    QCOMPARE(log.texts(QtInfoMsg), QStringList{"Device removed: " + speakersText});
    QCOMPARE(log.count(), 1);

    log.clear();
    api.updateDeviceList();
    QCOMPARE(log.count(), 0);
}

void tst_ApiDevices::update_keepsTheObject_ofADeviceThatComesBack()
{
    LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    api.updateDeviceList();
    log.clear();

    api.hideDevice(speakers);
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QVERIFY(api.devices().isEmpty());
    QVERIFY(!speakers->isListed());
    QCOMPARE(api.findDevice(speakers->uniqueId()), speakers);

    api.showDevice(speakers);
    api.updateDeviceList();
    QVERIFY(api.deviceListWasChanged());
    QCOMPARE(api.devices(), QList<Device *>{speakers});
    QVERIFY(speakers->isListed());
    QCOMPARE(log.countStarting("Device removed:"), 1);
    QCOMPARE(log.countStarting("New device found:"), 1);
}

void tst_ApiDevices::update_reportsAChange_asLongAsADeviceIsUnavailable()
{
    const LogCapture log;
    TestApi api;
    TestDevice *broken = api.addTestDevice("Broken", 0, 2);
    broken->available = false;
    for (int update = 0; update < 3; ++update) {
        api.updateDeviceList();
        QVERIFY(api.deviceListWasChanged());
        QVERIFY(ApiAccess::data(api).changedSinceOpen);
    }
    QCOMPARE(log.count(), 0);
    // It stays in the list, unlisted, and lookups find it.
    QVERIFY(!broken->isListed());
    QCOMPARE(api.devices(), QList<Device *>{broken});
    QCOMPARE(api.device(DeviceKind::Output, broken->uniqueId()), broken);
    QCOMPARE(api.defaultDevice(DeviceKind::Output), broken);
}

void tst_ApiDevices::update_clearsTheFlag_ofADeviceThatBecomesUnavailable()
{
    LogCapture log;
    TestApi api;
    TestDevice *device = api.addTestDevice("Speakers", 0, 2);
    api.updateDeviceList();
    log.clear();
    device->available = false;
    api.updateDeviceList();
    QVERIFY(!device->isListed());
    QCOMPARE(log.count(), 0);
    device->available = true;
    api.updateDeviceList();
    QVERIFY(device->isListed());
    QCOMPARE(log.countStarting("New device found:"), 1);
}

void tst_ApiDevices::update_logsNoRemoval_ofADeviceThatWasUnavailable()
{
    const LogCapture log;
    TestApi api;
    TestDevice *broken = api.addTestDevice("Broken", 0, 2);
    broken->available = false;
    api.updateDeviceList();
    api.hideDevice(broken);
    api.updateDeviceList();
    QVERIFY(!api.deviceListWasChanged());
    QCOMPARE(log.count(), 0);
}

void tst_ApiDevices::update_forgetsEarlierChanges()
{
    const LogCapture log;
    TestApi api;
    api.addTestDevice("Speakers", 0, 2);
    api.updateDeviceList();
    QVERIFY(ApiAccess::data(api).changedSinceOpen);
    api.updateDeviceList();
    QVERIFY(!ApiAccess::data(api).changedSinceOpen);
}

void tst_ApiDevices::beginDeviceUpdate_emptiesTheList()
{
    const LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    api.updateDeviceList();
    api.beginDeviceUpdate();
    QVERIFY(api.devices().isEmpty());
    QVERIFY(!api.deviceListWasChanged());
    QVERIFY(speakers->isListed());
    api.addDevice(speakers);
    QCOMPARE(api.devices(), QList<Device *>{speakers});
    api.endDeviceUpdate();
}

void tst_ApiDevices::addDevice_refusesASecondObject()
{
    LogCapture log;
    TestApi api;
    TestDevice *speakers = api.addTestDevice("Speakers", 0, 2);
    api.updateDeviceList();
    log.clear();

    ScoredDevice::deleted = 0;
    {
        // The refused object stays the caller's: here it ends before the backend.
        ScoredDevice twin(&api, "Speakers", 2, 0);
        QCOMPARE(twin.uniqueId(), speakers->uniqueId());
        listExactly(api, speakers, &twin);
        QCOMPARE(api.devices(), QList<Device *>{speakers});
        QVERIFY(!twin.isListed());
        QCOMPARE(log.texts(QtCriticalMsg),
                 QStringList{"TovelMixer::Api::addNewDevice: Trying to add existing device. Use "
                             "findDevice(...) to check if the device already exists"});
        QCOMPARE(log.count(), 1);
    }
    QCOMPARE(ScoredDevice::deleted, 1);
    QCOMPARE(api.findDevice(speakers->uniqueId()), speakers);
}

void tst_ApiDevices::addDevice_ignoresNull()
{
    TestApi api;
    listExactly(api, nullptr);
    QVERIFY(api.devices().isEmpty());
}

void tst_ApiDevices::addDevice_listsTwice_whatIsAddedTwice()
{
    const LogCapture log;
    ScoredDevice::deleted = 0;
    {
        TestApi api;
        auto *device = new ScoredDevice(&api, "Desk", 2, 0);
        listExactly(api, device, device);
        QCOMPARE(api.devices(), (QList<Device *>{device, device}));
        QCOMPARE(log.countStarting("New device found:"), 1);
    }
    QCOMPARE(ScoredDevice::deleted, 1);
}

void tst_ApiDevices::destructor_deletesEveryDeviceOnce()
{
    const LogCapture log;
    ScoredDevice::deleted = 0;
    {
        TestApi api;
        auto *gone = new ScoredDevice(&api, "Gone", 2, 0);
        auto *here = new ScoredDevice(&api, "Here", 2, 0);
        listExactly(api, gone, here);
        listExactly(api, here);
        listExactly(api, here);
        QCOMPARE(ScoredDevice::deleted, 0);
        QVERIFY(!gone->isListed());
    }
    QCOMPARE(ScoredDevice::deleted, 2);
}

void tst_ApiDevices::canUpdateDeviceList_isTrue_atFirst()
{
    TestApi api;
    QVERIFY(api.canUpdateDeviceList());
    api.failUpdate = true;
    QVERIFY(!api.updateDeviceList());
    QVERIFY(api.canUpdateDeviceList());
}

void tst_ApiDevices::canUpdateDeviceList_isTrueAgain_after1500ms()
{
    TestApi api;
    api.updateDeviceList();
    auto &data = ApiAccess::data(api);
    QVERIFY(!data.updateAllowed(0));
    QVERIFY(!data.updateAllowed(1499));
    QVERIFY(data.updateAllowed(1500));
    // The real clock runs, too: far from the limit the answer is certain.
    data.clockShift = -3600000;
    QVERIFY(!api.canUpdateDeviceList());
    data.clockShift = 1500;
    QVERIFY(api.canUpdateDeviceList());
    // Every update starts the wait again.
    api.updateDeviceList();
    QCOMPARE(data.clockShift, 0);
    QVERIFY(!data.updateAllowed(1499));
}

QTEST_GUILESS_MAIN(tst_ApiDevices)
#include "tst_api_devices.moc"
