// SPDX-License-Identifier: MIT
#include <mixer/api/device.h>
#include <support/test_api.h>

#include <QtCore/QJsonArray>
#include <QtTest/QTest>

using namespace QTovelMixer;

class tst_Device : public QObject
{
    Q_OBJECT

private slots:
    void sameDevice_comparesOwnerNameAndMaker();
    void kinds_answerForTwoSides();
    void bounds_haveDefaults();
    void matchScore_isAllOrNothing();
    void statics_tolerateNullAndInvalid();
    void json_holdsEveryKey();
    void textStream_writesTheName();
    void debug_writesEverything_data();
    void debug_writesEverything();
    void newDevice_isNotListed();
};

void tst_Device::sameDevice_comparesOwnerNameAndMaker()
{
    TestApi api;
    TestApi otherApi;
    TestDevice a(&api);
    a.deviceName = "Desk";
    a.maker = "Maker";
    TestDevice b(&api);
    b.deviceName = "Desk";
    b.maker = "Maker";
    QVERIFY(a.isSameDevice(&b));
    b.deviceName = "desk";
    QVERIFY(!a.isSameDevice(&b));
    b.deviceName = "Desk";
    b.maker = "Other";
    QVERIFY(!a.isSameDevice(&b));
    TestDevice c(&otherApi);
    c.deviceName = "Desk";
    c.maker = "Maker";
    QVERIFY(!a.isSameDevice(&c));
    QVERIFY(!a.isSameDevice(nullptr));
}

void tst_Device::kinds_answerForTwoSides()
{
    TestApi api;
    TestDevice device(&api);
    device.inputs = 2;
    device.defaultOutput = true;
    QVERIFY(device.hasChannels(DeviceKind::Input));
    QVERIFY(!device.hasChannels(DeviceKind::Output));
    QVERIFY(!device.hasChannels(DeviceKind(2)));
    QVERIFY(!device.isDefault(DeviceKind::Input));
    QVERIFY(device.isDefault(DeviceKind::Output));
    QVERIFY(!device.isDefault(DeviceKind(2)));
}

void tst_Device::bounds_haveDefaults()
{
    TestApi api;
    const TestDevice device(&api);
    QCOMPARE(device.Device::minBufferFrames(), 64u);
    QCOMPARE(device.Device::maxBufferFrames(), 4096u);
    QCOMPARE(device.defaultBufferFrames(), 1024u);
}

void tst_Device::matchScore_isAllOrNothing()
{
    TestApi api;
    TestDevice device(&api);
    device.fullDeviceName = "Desk";
    device.id = 3;
    QCOMPARE(device.matchScore("Desk3"), 128);
    QCOMPARE(device.matchScore("desk3"), 0);
    QCOMPARE(device.matchScore(""), 0);
}

void tst_Device::statics_tolerateNullAndInvalid()
{
    QCOMPARE(Device::deviceName(nullptr), "null");
    QCOMPARE(Device::numInputChannels(nullptr), 0u);
    QCOMPARE(Device::numOutputChannels(nullptr), 0u);
    TestApi api;
    TestDevice device(&api);
    device.deviceName = "Desk";
    device.inputs = 3;
    device.outputs = 4;
    QCOMPARE(Device::deviceName(&device), "Desk");
    QCOMPARE(Device::numInputChannels(&device), 3u);
    QCOMPARE(Device::numOutputChannels(&device), 4u);
    device.valid = false;
    QCOMPARE(Device::deviceName(&device), "null");
    QCOMPARE(Device::numInputChannels(&device), 0u);
    QCOMPARE(Device::numOutputChannels(&device), 0u);
}

void tst_Device::json_holdsEveryKey()
{
    TestApi api;
    TestDevice device(&api);
    device.deviceName = "Desk";
    device.fullDeviceName = "Maker: Desk";
    device.maker = "Maker";
    device.inputs = 1;
    device.outputs = 2;
    device.defaultInput = true;
    device.rates = {96000, 44100};
    device.id = 7;
    QJsonObject json{{"name", "old"}, {"kept", true}};
    device.write(json);
    const QJsonObject expected{{"fullName", "Maker: Desk"},
                               {"name", "Desk"},
                               {"manufacture", "Maker"},
                               {"numInputChannels", 1},
                               {"numOutputChannels", 2},
                               {"isDefaultInput", true},
                               {"isDefaultOutput", false},
                               {"deviceId", 7},
                               {"sampleRates", QJsonArray{96000, 44100}},
                               {"kept", true}};
    QCOMPARE(json, expected);
    QVERIFY(!device.toJsonObject().contains("kept"));
    QCOMPARE(Device::kFullName + Device::kName + Device::kManufacture + Device::kNumInputChannels +
                 Device::kNumOutputChannels + Device::kIsDefaultInput + Device::kIsDefaultOutput +
                 Device::kSampleRates + Device::kDeviceId,
             "fullNamenamemanufacturenumInputChannelsnumOutputChannelsisDefaultInput"
             "isDefaultOutputsampleRatesdeviceId");
}

void tst_Device::textStream_writesTheName()
{
    TestApi api;
    TestDevice device(&api);
    device.deviceName = "Desk";
    QString text;
    QTextStream stream(&text);
    stream << device << " " << static_cast<const Device *>(&device) << " "
           << static_cast<const Device *>(nullptr);
    QCOMPARE(text, "Desk Desk null");
}

void tst_Device::debug_writesEverything_data()
{
    QTest::addColumn<unsigned>("inputs");
    QTest::addColumn<unsigned>("outputs");
    QTest::addColumn<QString>("text");
    QTest::newRow("out") << 0u << 2u << "\"Speakers\" [id:73 out in=0 out=2 pref=48000Hz]";
    QTest::newRow("in") << 1u << 0u << "\"Speakers\" [id:73 in in=1 out=0 pref=48000Hz]";
    QTest::newRow("both") << 1u << 2u << "\"Speakers\" [id:73 in+out in=1 out=2 pref=48000Hz]";
    QTest::newRow("none") << 0u << 0u << "\"Speakers\" [id:73 none in=0 out=0 pref=48000Hz]";
}

void tst_Device::debug_writesEverything()
{
    QFETCH(unsigned, inputs);
    QFETCH(unsigned, outputs);
    QFETCH(QString, text);
    TestApi api;
    TestDevice device(&api);
    device.deviceName = "Speakers";
    device.id = 73;
    device.inputs = inputs;
    device.outputs = outputs;
    QString written;
    QDebug(&written).nospace() << device;
    QCOMPARE(written, text);
    written.clear();
    QDebug(&written).nospace() << static_cast<const Device *>(&device);
    QCOMPARE(written, text);
    written.clear();
    // The stream's own spacing comes back behind the device.
    QDebug(&written) << device << 1;
    QCOMPARE(written.trimmed(), text + " 1");
    written.clear();
    QDebug(&written).nospace() << static_cast<const Device *>(nullptr);
    QCOMPARE(written, "null");
}

void tst_Device::newDevice_isNotListed()
{
    TestApi api;
    const TestDevice device(&api);
    QVERIFY(!device.isListed());
    QCOMPARE(device.owner(), &api);
}

QTEST_GUILESS_MAIN(tst_Device)
#include "tst_device.moc"
