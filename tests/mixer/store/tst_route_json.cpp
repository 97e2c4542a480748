// SPDX-License-Identifier: MIT
#include "route_fixture.h"

#include <QtTest/QTest>

#include <limits>

using namespace QTovelMixer;

class tst_RouteJson : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void toJson_hasAllKeys();
    void toJson_emptyRoute();
    void json_roundTrip_data();
    void json_roundTrip();
    void json_roundTrip_loop();
    void json_missingKey_isEmpty_data();
    void json_missingKey_isEmpty();
    void json_type_data();
    void json_type();
    void json_matrix_data();
    void json_matrix();
    void json_gains_fitTheMatrix();
    void json_notFiniteGain_comesBackAsZero();
};

void tst_RouteJson::toJson_hasAllKeys()
{
    Box device("Speakers", 0, 2);
    Route route(1, &device);
    route.setGain(0, 1, 0.5f);
    QCOMPARE(route.toJson(), parsed(R"({"kind":"output","id":"AudioWith1Channels_to_Speakers",
        "numInputChannels":0,"numOutputChannels":2,"numAudioChannels":1,"gains":[1,0.5]})"));
}

void tst_RouteJson::toJson_emptyRoute()
{
    QCOMPARE(Route().toJson(), parsed(R"({"kind":"invalid","id":"","numInputChannels":0,
        "numOutputChannels":0,"numAudioChannels":0,"gains":[]})"));
}

void tst_RouteJson::json_roundTrip_data()
{
    QTest::addColumn<bool>("input");
    QTest::newRow("input") << true;
    QTest::newRow("output") << false;
}

void tst_RouteJson::json_roundTrip()
{
    QFETCH(bool, input);
    Box device("Desk", 3, 3);
    Route route = input ? Route(&device, 2) : Route(2, &device);
    const float odd[] = {0.1f, -0.3f, 1e-30f, 3.4e38f, std::numeric_limits<float>::denorm_min()};
    for (int i = 0; i < 5; ++i)
        QVERIFY(route.setGain(i / route.numOutputs(), i % route.numOutputs(), odd[i]));
    const QByteArray bytes = QJsonDocument(route.toJson()).toJson();
    const Route again(QJsonDocument::fromJson(bytes).object());
    QCOMPARE(again.type(), route.type());
    QCOMPARE(again.routeId(), route.routeId());
    QCOMPARE(again.numInputs(), route.numInputs());
    QCOMPARE(again.numOutputs(), route.numOutputs());
    QVERIFY(gainsOf(again) == gainsOf(route)); // to the bit
    QCOMPARE(again.toJson(), route.toJson());
}

void tst_RouteJson::json_roundTrip_loop()
{
    Box a("A", 2, 0);
    Box b("B", 0, 3);
    const Route made(&a, &b);
    const Route read(made.toJson());
    QCOMPARE(read.type(), Type::Loop);
    QCOMPARE(read.routeId(), made.routeId());
    QCOMPARE(read.numInputs(), 2); // unlike the one that was made from the devices
    QCOMPARE(read.numOutputs(), 3);
    QCOMPARE(gainsOf(read), Gains(6, 0.0f));
}

void tst_RouteJson::json_missingKey_isEmpty_data()
{
    QTest::addColumn<QString>("key");
    for (const char *key :
         {"id", "numInputChannels", "numOutputChannels", "numAudioChannels", "gains"})
        QTest::newRow(key) << key;
}

void tst_RouteJson::json_missingKey_isEmpty()
{
    QFETCH(QString, key);
    QJsonObject json = counts(2, 0, 2);
    json["kind"] = "input";
    QVERIFY(Route(json).isValid());
    json.remove(key);
    const Route route(json);
    QVERIFY(!route.isValid());
    QCOMPARE(route.type(), Type::NoType);
    QVERIFY(route.routeId().isEmpty());
}

void tst_RouteJson::json_type_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QJsonObject>("json");
    QTest::addColumn<int>("type");
    QTest::newRow("input, inferred") << "" << counts(2, 0, 2) << int(Type::Input);
    QTest::newRow("output, inferred") << "" << counts(0, 2, 2) << int(Type::Output);
    QTest::newRow("both sides and audio, inferred") << "" << counts(2, 2, 2) << int(Type::Input);
    QTest::newRow("loop, inferred") << "" << counts(2, 2, 0) << int(Type::Loop);
    QTest::newRow("loop, negative audio") << "" << counts(2, 2, -1) << int(Type::Loop);
    QTest::newRow("audio only") << "" << counts(0, 0, 2) << int(Type::NoType);
    QTest::newRow("one side only") << "" << counts(0, 2, 0) << int(Type::NoType);
    QTest::newRow("unknown kind") << "sideways" << counts(0, 2, 2) << int(Type::Output);
    QTest::newRow("given kind counts") << "OUTPUT" << counts(2, 0, 2) << int(Type::Output);
    QTest::newRow("given loop") << "Loop" << counts(0, 0, 2) << int(Type::Loop);
}

void tst_RouteJson::json_type()
{
    QFETCH(QString, kind);
    QFETCH(QJsonObject, json);
    QFETCH(int, type);
    if (!kind.isEmpty())
        json["kind"] = kind;
    QCOMPARE(Route(json).type(), Type(type));
}

void tst_RouteJson::json_matrix_data()
{
    QTest::addColumn<QJsonObject>("json");
    QTest::addColumn<bool>("valid");
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("columns");
    QTest::newRow("input") << counts(2, 0, 3) << true << 2 << 3;
    QTest::newRow("output") << counts(0, 2, 3) << true << 3 << 2;
    QTest::newRow("loop") << counts(2, 5, 0) << true << 2 << 5;
    QTest::newRow("audio only") << counts(0, 0, 3) << true << 3 << 3;
    QTest::newRow("uncapped") << counts(100, 0, 50) << true << 100 << 50;
    QTest::newRow("negative") << counts(-1, -2, -3) << true << 0 << 0;
    QTest::newRow("negative side") << counts(-1, 2, 3) << true << 3 << 2;
    QTest::newRow("not numbers") << counts("2", true, QJsonValue()) << true << 0 << 0;
    QTest::newRow("most") << counts(1024, 1024, 0) << true << 1024 << 1024;
    QTest::newRow("one more") << counts((1 << 20) + 1, 1, 0) << false << 0 << 0;
    QTest::newRow("huge") << counts(2147483647, 2147483647, 0) << false << 0 << 0;
    QTest::newRow("huge by nothing") << counts(2147483647, 0, 0) << true << 2147483647 << 0;
}

void tst_RouteJson::json_matrix()
{
    QFETCH(QJsonObject, json);
    QFETCH(bool, valid);
    QFETCH(int, rows);
    QFETCH(int, columns);
    Route route(json);
    QCOMPARE(route.isValid(), valid);
    QCOMPARE(route.numInputs(), rows);
    QCOMPARE(route.numOutputs(), columns);
    QVERIFY(valid || route.routeId().isEmpty());
    QCOMPARE(route.gain(rows - 1, columns - 1), 0.0f);
    QCOMPARE(route.setGain(rows - 1, columns - 1, 1.0f), rows > 0 && columns > 0);
}

void tst_RouteJson::json_gains_fitTheMatrix()
{
    const Route more(counts(0, 2, 1, {0.25, 0.5, 0.75, 1.0}));
    QCOMPARE(gainsOf(more), (Gains{0.25f, 0.5f}));
    const Route less(counts(0, 2, 2, {0.25, "loud", 0.75}));
    QCOMPARE(gainsOf(less), (Gains{0.25f, 0.0f, 0.75f, 0.0f}));
    QJsonObject json = counts(0, 2, 1);
    json["gains"] = 3;
    QCOMPARE(gainsOf(Route(json)), Gains(2, 0.0f));
}

void tst_RouteJson::json_notFiniteGain_comesBackAsZero()
{
    Box device("Speakers", 0, 2);
    Route route(2, &device);
    route.setGain(0, 0, std::numeric_limits<float>::quiet_NaN());
    route.setGain(1, 1, std::numeric_limits<float>::infinity());
    const QByteArray bytes = QJsonDocument(route.toJson()).toJson();
    const Route again(QJsonDocument::fromJson(bytes).object());
    QCOMPARE(gainsOf(again), Gains(4, 0.0f));
}

QTEST_GUILESS_MAIN(tst_RouteJson)
#include "tst_route_json.moc"
