// SPDX-License-Identifier: MIT
// The device list of a backend: updates and lookups.
#include <mixer/api/api_p.h>

#include <support/log_capture.h>
#include <support/test_api.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr auto noKind = DeviceKind(7);

/// A device that fits a remembered identity as well as it is told to, and counts its end.
struct ScoredDevice : public TestDevice
{
    ScoredDevice(Api *api, const QString &ownName, unsigned outputChannels, unsigned char ownScore)
        : TestDevice(api), score(ownScore)
    {
        deviceName = ownName;
        fullDeviceName = ownName;
        outputs = outputChannels;
    }
    ~ScoredDevice() override { ++deleted; }

    unsigned char matchScore(const QString &) const override { return score; }

    unsigned char score;
    static inline int deleted = 0;
};

template <typename... Devices>
void listExactly(TestApi &api, Devices... devices)
{
    api.beginDeviceUpdate();
    (api.addDevice(devices), ...);
    api.endDeviceUpdate();
}

} // namespace

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

void tst_ApiDevices::findDevice_searchesAllDevicesExactly()
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

void tst_ApiDevices::findActiveDevice_answersAnEqualDevice()
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

void tst_ApiDevices::defaultDevice_prefersTheMarkedOne()
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

void tst_ApiDevices::defaultDevice_takesTheFirstThatFits()
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

void tst_ApiDevices::defaultDevice_isNull_forAnotherKind()
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

void tst_ApiDevices::deviceByName_knowsNullAndDefault()
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

void tst_ApiDevices::deviceByName_takesTheBestScore()
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

void tst_ApiDevices::deviceByName_ignoresDevicesOfTheOtherKind()
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

void tst_ApiDevices::deviceByName_fallsBackToTheDefault()
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

void tst_ApiDevices::deviceByNumber_needsChannels()
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

void tst_ApiDevices::checkDevice_knowsItsOwn()
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

QTEST_GUILESS_MAIN(tst_ApiDevices)
#include "tst_api_devices.moc"
