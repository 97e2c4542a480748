// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_config.h>

#include <support/test_api.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtTest/QTest>

#include <algorithm>

using namespace QTovelMixer;

namespace {

struct Speakers : TestDevice
{
    explicit Speakers(unsigned outs = 2, unsigned ins = 1, const QString &title = "Speakers")
        : TestDevice(nullptr)
    {
        deviceName = "short name";
        fullDeviceName = title;
        outputs = outs;
        inputs = ins;
    }
};

QJsonObject parsed(const char *text)
{
    return QJsonDocument::fromJson(text).object();
}

using Flags = std::vector<bool>;

} // namespace

class tst_MeterConfig : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void default_isEmpty();
    void device_enablesAllChannels();
    void device_capsAtThirtyTwo();
    void device_withoutChannels_isInvalid();
    void device_null_isInvalid();
    void device_otherType_isInvalid();
    void makeId_data();
    void makeId();
    void meterEnabled_outOfRange_isFalse();
    void setMeterEnabled_answersChange();
    void setMeterEnabled_detachesCopies();
    void assignment_shares_untilChanged();
    void reset_enablesAll();
    void toJson_valid_hasAllKeys();
    void toJson_invalid_hasNoMeters();
    void json_roundTrip();
    void json_missingKey_isEmpty_data();
    void json_missingKey_isEmpty();
    void json_type_isOptionalAndAnyCase();
    void json_flags_fitTheCount();
    void json_counts_data();
    void json_counts();
};

void tst_MeterConfig::default_isEmpty()
{
    const MeterConfig config;
    QCOMPARE(config.type(), Type::NoType);
    QVERIFY(config.meterConfigId().isEmpty());
    QCOMPARE(config.numMeters(), 0);
    QVERIFY(config.meters().empty());
    QVERIFY(!config.isValid());
}

void tst_MeterConfig::device_enablesAllChannels()
{
    Speakers device(3, 2);
    const MeterConfig out(Type::Output, &device);
    QVERIFY(out.isValid());
    QCOMPARE(out.type(), Type::Output);
    QCOMPARE(out.numMeters(), 3);
    QCOMPARE(out.meters(), (Flags{true, true, true}));
    QCOMPARE(out.meterConfigId(), QString("output-Speakers-3ch"));
    const MeterConfig in(Type::Input, &device);
    QCOMPARE(in.type(), Type::Input);
    QCOMPARE(in.numMeters(), 2);
    QCOMPARE(in.meterConfigId(), QString("input-Speakers-2ch"));
}

void tst_MeterConfig::device_capsAtThirtyTwo()
{
    Speakers device(64);
    const MeterConfig config(Type::Output, &device);
    QCOMPARE(config.numMeters(), 32);
    QCOMPARE(config.meters(), Flags(32, true));
    QVERIFY(config.meterConfigId().endsWith("-64ch"));
}

void tst_MeterConfig::device_withoutChannels_isInvalid()
{
    Speakers device(2, 0);
    const MeterConfig config(Type::Input, &device);
    QVERIFY(!config.isValid());
    QCOMPARE(config.meterConfigId(), QString("input-Speakers-0ch"));
}

void tst_MeterConfig::device_null_isInvalid()
{
    const MeterConfig config(Type::Input, nullptr);
    QCOMPARE(config.meterConfigId(), QString("#null"));
    QCOMPARE(config.type(), Type::Input);
    QCOMPARE(config.numMeters(), 0);
    QVERIFY(!config.isValid());
}

void tst_MeterConfig::device_otherType_isInvalid()
{
    Speakers device;
    for (const Type type : {Type::Loop, Type::NoType}) {
        const MeterConfig config(type, &device);
        QCOMPARE(config.meterConfigId(), QString("#invalid"));
        QCOMPARE(config.numMeters(), 0);
        QVERIFY(!config.isValid());
    }
}

void tst_MeterConfig::makeId_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("id");
    QTest::newRow("plain") << "Speakers"
                           << "output-Speakers-2ch";
    QTest::newRow("empty") << ""
                           << "output--2ch";
    QTest::newRow("placeholder for the count") << "A%3B"
                                               << "output-A2B-2ch";
    QTest::newRow("placeholder in front") << "A%1B"
                                          << "output-A2B-%3ch";
    QTest::newRow("placeholder beyond") << "A%4B"
                                        << "output-A%4B-2ch";
    QTest::newRow("other scripts")
        << QString::fromUtf8("Ἠχεῖα 扬声器") << QString::fromUtf8("output-Ἠχεῖα 扬声器-2ch");
}

void tst_MeterConfig::makeId()
{
    QFETCH(QString, name);
    Speakers device(2, 1, name);
    QTEST(MeterConfig::makeId(Type::Output, &device), "id");
}

void tst_MeterConfig::meterEnabled_outOfRange_isFalse()
{
    Speakers device(2);
    MeterConfig config(Type::Output, &device);
    QVERIFY(config.meterEnabled(1));
    QVERIFY(!config.meterEnabled(2));
    QVERIFY(!config.meterEnabled(-1));
    QVERIFY(!config.setMeterEnabled(2, true));
    QVERIFY(!config.setMeterEnabled(-1, true));
    QCOMPARE(config.meters(), Flags(2, true));
}

void tst_MeterConfig::setMeterEnabled_answersChange()
{
    Speakers device(2);
    MeterConfig config(Type::Output, &device);
    QVERIFY(!config.setMeterEnabled(0, true));
    QVERIFY(config.setMeterEnabled(0, false));
    QVERIFY(!config.setMeterEnabled(0, false));
    QVERIFY(!config.meterEnabled(0));
    QVERIFY(config.setMeterEnabled(0, true));
}

void tst_MeterConfig::setMeterEnabled_detachesCopies()
{
    Speakers device(2);
    MeterConfig config(Type::Output, &device);
    const MeterConfig copy(config);
    QVERIFY(config.setMeterEnabled(1, false));
    QVERIFY(copy.meterEnabled(1));
    QCOMPARE(copy.meterConfigId(), config.meterConfigId());
}

void tst_MeterConfig::assignment_shares_untilChanged()
{
    Speakers device(2);
    const MeterConfig config(Type::Output, &device);
    MeterConfig copy;
    copy = config;
    QCOMPARE(&copy.meters(), &config.meters());
    QVERIFY(!copy.setMeterEnabled(0, true));
    QCOMPARE(&copy.meters(), &config.meters());
    copy.reset();
    QVERIFY(&copy.meters() != &config.meters());
}

void tst_MeterConfig::reset_enablesAll()
{
    MeterConfig config(
        parsed(R"({"type":"input","id":"x","numMeters":3,"meters":[false,true,false]})"));
    const MeterConfig copy = config;
    config.reset();
    QCOMPARE(config.meters(), Flags(3, true));
    QCOMPARE(config.meterConfigId(), QString("x"));
    QCOMPARE(config.type(), Type::Input);
    QCOMPARE(copy.meters(), (Flags{false, true, false}));
    MeterConfig empty;
    empty.reset();
    QVERIFY(!empty.isValid());
}

void tst_MeterConfig::toJson_valid_hasAllKeys()
{
    Speakers device(2);
    MeterConfig config(Type::Output, &device);
    config.setMeterEnabled(0, false);
    QCOMPARE(QJsonDocument(config.toJson()).toJson(QJsonDocument::Compact),
             QByteArray(R"({"id":"output-Speakers-2ch","meters":[false,true],"numMeters":2,)"
                        R"("type":"output"})"));
}

void tst_MeterConfig::toJson_invalid_hasNoMeters()
{
    const MeterConfig config(Type::Input, nullptr);
    const QJsonObject json = config.toJson();
    QCOMPARE(json, parsed(R"({"type":"input","id":"#null","numMeters":0})"));
    const MeterConfig again(json);
    QVERIFY(!again.isValid());
    QVERIFY(again.meterConfigId().isEmpty());
    QCOMPARE(again.type(), Type::NoType);
    QCOMPARE(MeterConfig().toJson(), parsed(R"({"type":"invalid","id":"","numMeters":0})"));
}

void tst_MeterConfig::json_roundTrip()
{
    Speakers device(32, 5);
    for (const Type type : {Type::Input, Type::Output}) {
        MeterConfig config(type, &device);
        config.setMeterEnabled(1, false);
        config.setMeterEnabled(4, false);
        const MeterConfig again(config.toJson());
        QCOMPARE(again.type(), config.type());
        QCOMPARE(again.meterConfigId(), config.meterConfigId());
        QCOMPARE(again.numMeters(), config.numMeters());
        QCOMPARE(again.meters(), config.meters());
    }
}

void tst_MeterConfig::json_missingKey_isEmpty_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("id") << "id";
    QTest::newRow("numMeters") << "numMeters";
    QTest::newRow("meters") << "meters";
}

void tst_MeterConfig::json_missingKey_isEmpty()
{
    QFETCH(QString, key);
    QJsonObject json = parsed(R"({"type":"input","id":"x","numMeters":1,"meters":[true]})");
    QVERIFY(MeterConfig(json).isValid());
    json.remove(key);
    const MeterConfig config(json);
    QVERIFY(!config.isValid());
    QCOMPARE(config.type(), Type::NoType);
    QVERIFY(config.meterConfigId().isEmpty());
    QCOMPARE(config.numMeters(), 0);
}

void tst_MeterConfig::json_type_isOptionalAndAnyCase()
{
    QJsonObject json = parsed(R"({"id":"x","numMeters":1,"meters":[true]})");
    QVERIFY(MeterConfig(json).isValid());
    QCOMPARE(MeterConfig(json).type(), Type::NoType);
    json["type"] = "OutPut";
    QCOMPARE(MeterConfig(json).type(), Type::Output);
    json["type"] = "sideways";
    QCOMPARE(MeterConfig(json).type(), Type::NoType);
    json["type"] = 2;
    QCOMPARE(MeterConfig(json).type(), Type::NoType);
}

void tst_MeterConfig::json_flags_fitTheCount()
{
    const MeterConfig more(parsed(R"({"id":"x","numMeters":2,"meters":[true,false,true,true]})"));
    QCOMPARE(more.meters(), (Flags{true, false}));
    const MeterConfig less(parsed(R"({"id":"x","numMeters":3,"meters":[true]})"));
    QCOMPARE(less.meters(), (Flags{true, false, false}));
    const MeterConfig odd(parsed(R"({"id":"x","numMeters":3,"meters":[1,"true",true]})"));
    QCOMPARE(odd.meters(), (Flags{false, false, true}));
    const MeterConfig noArray(parsed(R"({"id":"x","numMeters":2,"meters":"all"})"));
    QCOMPARE(noArray.meters(), Flags(2, false));
    QVERIFY(noArray.isValid());
    const MeterConfig many(parsed(R"({"id":"x","numMeters":40,"meters":[]})"));
    QCOMPARE(many.numMeters(), 40);
}

void tst_MeterConfig::json_counts_data()
{
    QTest::addColumn<QJsonValue>("count");
    QTest::addColumn<int>("flags");
    QTest::newRow("zero") << QJsonValue(0) << 0;
    QTest::newRow("negative") << QJsonValue(-1) << 0;
    QTest::newRow("most negative") << QJsonValue(-2147483647) << 0;
    QTest::newRow("text") << QJsonValue("2") << 0;
    QTest::newRow("fraction") << QJsonValue(2.5) << 0;
    QTest::newRow("most") << QJsonValue(1 << 20) << (1 << 20);
    QTest::newRow("one more") << QJsonValue((1 << 20) + 1) << 0;
    QTest::newRow("huge") << QJsonValue(2000000000) << 0;
    QTest::newRow("beyond an int") << QJsonValue(1e15) << 0;
}

void tst_MeterConfig::json_counts()
{
    QFETCH(QJsonValue, count);
    QFETCH(int, flags);
    QJsonObject json = parsed(R"({"type":"input","id":"x","meters":[true,true]})");
    json["numMeters"] = count;
    MeterConfig config(json);
    QCOMPARE(int(config.meters().size()), flags);
    QCOMPARE(config.isValid(), flags > 0);
    QCOMPARE(config.meterEnabled(0), flags > 0);
    QCOMPARE(config.setMeterEnabled(0, false), flags > 0);
    config.reset();
    QCOMPARE(config.meterEnabled(flags - 1), flags > 0);
}

QTEST_GUILESS_MAIN(tst_MeterConfig)
#include "tst_meter_config.moc"
