// SPDX-License-Identifier: MIT
#include <mixer/api/device.h>

#include <support/log_capture.h>
#include <support/test_api.h>

#include <QtCore/QJsonArray>
#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr auto noKind = DeviceKind(7);

// The device of the examples: an output-only one with number 73.
void makeSpeakers(TestDevice &device)
{
    device.deviceName = QStringLiteral("Speakers");
    device.fullDeviceName = QStringLiteral("Maker: Speakers");
    device.maker = QStringLiteral("Maker");
    device.outputs = 2;
    device.id = 73;
}

QString printed(const Device *device)
{
    QString text;
    QTextStream stream(&text);
    stream << device;
    stream.flush();
    return text;
}

QString debugged(const Device *device)
{
    QString text;
    QDebug(&text) << device;
    return text.trimmed();
}

} // namespace

class tst_Device : public QObject
{
    Q_OBJECT

private slots:
    void keys_haveTheirTexts();
    void device_isNotListed_atFirst();
    void isSameDevice_comparesBackendNameAndMaker();
    void hasChannels_asksForTheKind();
    void isDefault_asksForTheKind();
    void bufferFrames_haveTheirDefaults();
    void matchScore_isAllOrNothing();
    void device_saysNothing_ofWhatIsUnknown();
    void write_setsItsKeys_andLeavesOthers();
    void toJsonObject_keepsTheOrderOfRates();
    void statics_answerForNullAndInvalid();
    void textStream_getsTheName();
    void debug_describesTheDevice_data();
    void debug_describesTheDevice();
    void debug_writesNull_forNull();
    void debug_leavesTheStreamAsItWas();
};

void tst_Device::keys_haveTheirTexts()
{
    QCOMPARE(Device::kFullName, QStringLiteral("fullName"));
    QCOMPARE(Device::kName, QStringLiteral("name"));
    QCOMPARE(Device::kManufacture, QStringLiteral("manufacture"));
    QCOMPARE(Device::kNumInputChannels, QStringLiteral("numInputChannels"));
    QCOMPARE(Device::kNumOutputChannels, QStringLiteral("numOutputChannels"));
    QCOMPARE(Device::kIsDefaultInput, QStringLiteral("isDefaultInput"));
    QCOMPARE(Device::kIsDefaultOutput, QStringLiteral("isDefaultOutput"));
    QCOMPARE(Device::kSampleRates, QStringLiteral("sampleRates"));
    QCOMPARE(Device::kDeviceId, QStringLiteral("deviceId"));
}

void tst_Device::device_isNotListed_atFirst()
{
    TestApi api;
    const TestDevice device(&api);
    QVERIFY(!device.isListed());
    QCOMPARE(device.owner(), &api);
}

void tst_Device::isSameDevice_comparesBackendNameAndMaker()
{
    TestApi api;
    TestApi otherApi;
    TestDevice device(&api);
    TestDevice twin(&api);
    TestDevice stranger(&otherApi);
    for (TestDevice *each : {&device, &twin, &stranger})
        makeSpeakers(*each);
    // Neither numbers nor channels matter.
    twin.id = 5;
    twin.outputs = 8;
    QVERIFY(device.isSameDevice(&device));
    QVERIFY(device.isSameDevice(&twin));
    QVERIFY(!device.isSameDevice(&stranger));
    QVERIFY(!device.isSameDevice(nullptr));
    twin.deviceName = QStringLiteral("speakers");
    QVERIFY(!device.isSameDevice(&twin));
    twin.deviceName = device.deviceName;
    twin.maker = QStringLiteral("maker");
    QVERIFY(!device.isSameDevice(&twin));
}

void tst_Device::hasChannels_asksForTheKind()
{
    TestDevice device(nullptr);
    device.inputs = 1;
    QVERIFY(device.hasChannels(DeviceKind::Input));
    QVERIFY(!device.hasChannels(DeviceKind::Output));
    device.inputs = 0;
    device.outputs = 1;
    QVERIFY(!device.hasChannels(DeviceKind::Input));
    QVERIFY(device.hasChannels(DeviceKind::Output));
    device.inputs = 1;
    QVERIFY(!device.hasChannels(noKind));
}

void tst_Device::isDefault_asksForTheKind()
{
    TestDevice device(nullptr);
    device.defaultInput = true;
    QVERIFY(device.isDefault(DeviceKind::Input));
    QVERIFY(!device.isDefault(DeviceKind::Output));
    device.defaultInput = false;
    device.defaultOutput = true;
    QVERIFY(!device.isDefault(DeviceKind::Input));
    QVERIFY(device.isDefault(DeviceKind::Output));
    device.defaultInput = true;
    QVERIFY(!device.isDefault(noKind));
}

void tst_Device::bufferFrames_haveTheirDefaults()
{
    const TestDevice device(nullptr);
    QCOMPARE(device.Device::minBufferFrames(), 64u);
    QCOMPARE(device.Device::maxBufferFrames(), 4096u);
    QCOMPARE(device.Device::defaultBufferFrames(), 1024u);
}

void tst_Device::device_saysNothing_ofWhatIsUnknown()
{
    TestApi api;
    TestDevice device(&api);
    makeSpeakers(device);
    QVERIFY(!device.isMonitor());
    QVERIFY(device.formFactor().isEmpty());
    QVERIFY(device.bus().isEmpty());
    QVERIFY(device.channelNames(DeviceKind::Output).isEmpty());
}

void tst_Device::matchScore_isAllOrNothing()
{
    TestDevice device(nullptr);
    makeSpeakers(device);
    QCOMPARE(int(device.matchScore(QStringLiteral("Maker: Speakers73"))), 128);
    QCOMPARE(int(device.matchScore(QStringLiteral("Maker: speakers73"))), 0);
    QCOMPARE(int(device.matchScore(QStringLiteral("Maker: Speakers"))), 0);
    QCOMPARE(int(device.matchScore(QString())), 0);
}

void tst_Device::write_setsItsKeys_andLeavesOthers()
{
    TestDevice device(nullptr);
    makeSpeakers(device);
    device.defaultOutput = true;
    device.rates = {44100, 48000};
    QJsonObject json{{"name", "old"}, {"comment", "mine"}};
    device.write(json);
    const QJsonObject expected{
        {"fullName", "Maker: Speakers"},
        {"name", "Speakers"},
        {"manufacture", "Maker"},
        {"numInputChannels", 0},
        {"numOutputChannels", 2},
        {"isDefaultInput", false},
        {"isDefaultOutput", true},
        {"deviceId", 73},
        {"sampleRates", QJsonArray{44100, 48000}},
        {"comment", "mine"},
    };
    QCOMPARE(json, expected);
    QVERIFY(json.value("isDefaultInput").isBool());
}

void tst_Device::toJsonObject_keepsTheOrderOfRates()
{
    TestDevice device(nullptr);
    device.rates = {96000, 44100, 48000};
    const QJsonObject json = device.toJsonObject();
    QCOMPARE(json.size(), 9);
    QCOMPARE(json.value("sampleRates").toArray(), (QJsonArray{96000, 44100, 48000}));
    device.rates.clear();
    QCOMPARE(device.toJsonObject().value("sampleRates").toArray(), QJsonArray());
}

void tst_Device::statics_answerForNullAndInvalid()
{
    QCOMPARE(Device::deviceName(nullptr), QStringLiteral("null"));
    QCOMPARE(Device::numInputChannels(nullptr), 0u);
    QCOMPARE(Device::numOutputChannels(nullptr), 0u);

    TestDevice device(nullptr);
    makeSpeakers(device);
    device.inputs = 4;
    QCOMPARE(Device::deviceName(&device), QStringLiteral("Speakers"));
    QCOMPARE(Device::numInputChannels(&device), 4u);
    QCOMPARE(Device::numOutputChannels(&device), 2u);
    device.valid = false;
    QCOMPARE(Device::deviceName(&device), QStringLiteral("null"));
    QCOMPARE(Device::numInputChannels(&device), 0u);
    QCOMPARE(Device::numOutputChannels(&device), 0u);
}

void tst_Device::textStream_getsTheName()
{
    TestDevice device(nullptr);
    makeSpeakers(device);
    QString text;
    QTextStream stream(&text);
    stream << device;
    stream.flush();
    QCOMPARE(text, QStringLiteral("Speakers"));
    QCOMPARE(printed(&device), QStringLiteral("Speakers"));
    QCOMPARE(printed(nullptr), QStringLiteral("null"));
    // An invalid device still has its name here.
    device.valid = false;
    QCOMPARE(printed(&device), QStringLiteral("Speakers"));
}

void tst_Device::debug_describesTheDevice_data()
{
    QTest::addColumn<unsigned>("inputs");
    QTest::addColumn<unsigned>("outputs");
    QTest::addColumn<QString>("text");
    QTest::newRow("output") << 0u << 2u << "\"Speakers\" [id:73 out in=0 out=2 pref=48000Hz]";
    QTest::newRow("input") << 1u << 0u << "\"Speakers\" [id:73 in in=1 out=0 pref=48000Hz]";
    QTest::newRow("both") << 4u << 8u << "\"Speakers\" [id:73 in+out in=4 out=8 pref=48000Hz]";
    QTest::newRow("none") << 0u << 0u << "\"Speakers\" [id:73 none in=0 out=0 pref=48000Hz]";
}

void tst_Device::debug_describesTheDevice()
{
    QFETCH(unsigned, inputs);
    QFETCH(unsigned, outputs);
    QFETCH(QString, text);
    TestDevice device(nullptr);
    makeSpeakers(device);
    device.inputs = inputs;
    device.outputs = outputs;
    QCOMPARE(debugged(&device), text);
    QString byReference;
    QDebug(&byReference) << device;
    QCOMPARE(byReference.trimmed(), text);
}

void tst_Device::debug_writesNull_forNull()
{
    QCOMPARE(debugged(nullptr), QStringLiteral("null"));
}

void tst_Device::debug_leavesTheStreamAsItWas()
{
    TestDevice device(nullptr);
    makeSpeakers(device);
    QString text;
    QDebug(&text) << "a" << device << "b";
    QCOMPARE(text.trimmed(),
             QStringLiteral("a \"Speakers\" [id:73 out in=0 out=2 pref=48000Hz] b"));
}

QTEST_GUILESS_MAIN(tst_Device)
#include "tst_device.moc"
