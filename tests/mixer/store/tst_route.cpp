// SPDX-License-Identifier: MIT
#include <mixer/store/route.h>

#include <support/test_api.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtTest/QTest>

#include <cmath>
#include <limits>
#include <vector>

using namespace QTovelMixer;

namespace {

struct Box : TestDevice
{
    explicit Box(const QString &title, unsigned ins, unsigned outs) : TestDevice(nullptr)
    {
        deviceName = "short name";
        fullDeviceName = title;
        inputs = ins;
        outputs = outs;
    }
};

using Gains = std::vector<float>;

Gains gainsOf(const Route &route)
{
    const float *gains = route;
    return gains ? Gains(gains, gains + route.numInputs() * route.numOutputs()) : Gains();
}

Gains identity(int rows, int columns)
{
    Gains gains(size_t(rows * columns), 0.0f);
    for (int i = 0; i < std::min(rows, columns); ++i)
        gains[size_t(i * columns + i)] = 1.0f;
    return gains;
}

QJsonObject parsed(const char *text)
{
    return QJsonDocument::fromJson(text).object();
}

QJsonObject counts(const QJsonValue &inputs, const QJsonValue &outputs, const QJsonValue &audio,
                   const QJsonArray &gains = {})
{
    return {{"id", "x"},
            {"numInputChannels", inputs},
            {"numOutputChannels", outputs},
            {"numAudioChannels", audio},
            {"gains", gains}};
}

} // namespace

class tst_Route : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void default_isEmpty();
    void makeRouteId_data();
    void makeRouteId();
    void output_hasDefaultMatrix();
    void input_hasDefaultMatrix();
    void loop_hasNoCells();
    void device_null();
    void channels_none();
    void channels_negative();
    void channels_capAtThirtyTwo();
    void isActive_needsDeviceChannels();
    void gain_outOfRange_isZero();
    void setGain_detachesCopies();
    void setGain_outOfRange_isFalse();
    void assignment_shares_untilChanged();
    void reset_restoresDefaults();
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

void tst_Route::default_isEmpty()
{
    const Route route;
    QCOMPARE(route.type(), Type::NoType);
    QVERIFY(route.routeId().isEmpty());
    QCOMPARE(route.numInputs(), 0);
    QCOMPARE(route.numOutputs(), 0);
    QVERIFY(!route.isValid());
    QVERIFY(!route.isActive());
    QVERIFY(!static_cast<const float *>(route));
    QCOMPARE(route.gain(0, 0), 0.0f);
}

void tst_Route::makeRouteId_data()
{
    QTest::addColumn<bool>("input");
    QTest::addColumn<int>("channels");
    QTest::addColumn<bool>("output");
    QTest::addColumn<QString>("id");
    QTest::newRow("source") << false << 2 << true << "AudioWith2Channels_to_Speakers";
    QTest::newRow("sink") << true << 1 << false << "Microphone_to_AudioWith1Channels";
    QTest::newRow("loop") << true << 0 << true << "Microphone_to_Speakers";
    QTest::newRow("all") << true << 3 << true << "Microphone_to_AudioWith3Channels_to_Speakers";
    QTest::newRow("input only") << true << 0 << false << "Microphone";
    QTest::newRow("output only") << false << 0 << true << "Speakers";
    QTest::newRow("channels only") << false << 100 << false << "AudioWith100Channels";
    QTest::newRow("nothing") << false << 0 << false << "";
    QTest::newRow("negative") << false << -1 << true << "AudioWith-1Channels_to_Speakers";
}

void tst_Route::makeRouteId()
{
    QFETCH(bool, input);
    QFETCH(int, channels);
    QFETCH(bool, output);
    Box microphone("Microphone", 1, 0);
    Box speakers("Speakers", 0, 2);
    QTEST(Route::makeRouteId(input ? &microphone : nullptr, channels, output ? &speakers : nullptr),
          "id");
}

void tst_Route::output_hasDefaultMatrix()
{
    Box device("Speakers %1", 4, 2);
    const Route route(2, &device);
    QCOMPARE(route.type(), Type::Output);
    QCOMPARE(route.routeId(), QString("AudioWith2Channels_to_Speakers %1"));
    QCOMPARE(route.numInputs(), 2);
    QCOMPARE(route.numOutputs(), 2);
    QVERIFY(route.isValid());
    QVERIFY(route.isActive());
    QCOMPARE(gainsOf(route), identity(2, 2));
    // Beyond the built-in tables: identity where rows reach the columns, else all to all.
    Box wide("Wide", 0, 9);
    QCOMPARE(gainsOf(Route(9, &wide)), identity(9, 9));
}

void tst_Route::input_hasDefaultMatrix()
{
    Box device("Microphone", 1, 4);
    const Route route(&device, 6);
    QCOMPARE(route.type(), Type::Input);
    QCOMPARE(route.routeId(), QString("Microphone_to_AudioWith6Channels"));
    QCOMPARE(route.numInputs(), 1);
    QCOMPARE(route.numOutputs(), 6);
    QVERIFY(route.isActive());
    // One microphone goes everywhere but into the low-frequency channel.
    QCOMPARE(gainsOf(route), (Gains{1.0f, 1.0f, 1.0f, 0.0f, 1.0f, 1.0f}));
    Box pair("Pair", 2, 0);
    QCOMPARE(gainsOf(Route(&pair, 3)), identity(2, 3));
    QCOMPARE(gainsOf(Route(&pair, 9)), Gains(18, 1.0f));
}

void tst_Route::loop_hasNoCells()
{
    Box a("A", 2, 0);
    Box b("B", 0, 2);
    const Route route(&a, &b);
    QCOMPARE(route.type(), Type::Loop);
    QCOMPARE(route.routeId(), QString("A_to_B"));
    QCOMPARE(route.numInputs(), 0);
    QCOMPARE(route.numOutputs(), 0);
    QVERIFY(route.isValid());
    QVERIFY(route.isActive());
    QVERIFY(static_cast<const float *>(route));
    QCOMPARE(route.gain(0, 0), 0.0f);
    Route copy = route;
    copy.reset();
    QVERIFY(copy.isValid());
}

void tst_Route::device_null()
{
    const Route out(2, nullptr);
    QCOMPARE(out.routeId(), QString("AudioWith2Channels"));
    QCOMPARE(out.type(), Type::Output);
    QCOMPARE(out.numInputs(), 2);
    QCOMPARE(out.numOutputs(), 0);
    QVERIFY(out.isValid());
    QVERIFY(!out.isActive());
    QCOMPARE(out.toJson().value("numOutputChannels").toInt(-1), 0);
    const Route in(nullptr, 2);
    QCOMPARE(in.type(), Type::Input);
    QCOMPARE(in.numInputs(), 0);
    QCOMPARE(in.numOutputs(), 2);
    const Route loop(static_cast<Device *>(nullptr), static_cast<Device *>(nullptr));
    QCOMPARE(loop.type(), Type::Loop);
    QVERIFY(loop.isValid());
    QVERIFY(!loop.isActive());
    QVERIFY(loop.routeId().isEmpty());
}

void tst_Route::channels_none()
{
    Box device("Microphone", 3, 0);
    const Route route(&device, 0);
    QCOMPARE(route.routeId(), QString("Microphone"));
    QCOMPARE(route.numInputs(), 3);
    QCOMPARE(route.numOutputs(), 0);
    QVERIFY(route.isValid());
    QVERIFY(gainsOf(route).empty());
}

void tst_Route::channels_negative()
{
    Box device("Speakers", 0, 2);
    const Route route(-2, &device);
    QCOMPARE(route.numInputs(), 0);
    QCOMPARE(route.numOutputs(), 2);
    QCOMPARE(route.gain(0, 0), 0.0f);
    QCOMPARE(route.gain(-1, 0), 0.0f);
}

void tst_Route::channels_capAtThirtyTwo()
{
    Box device("Desk", 64, 40);
    const Route in(&device, 2);
    QCOMPARE(in.numInputs(), 32);
    QCOMPARE(in.toJson().value("numInputChannels").toInt(), 32);
    QCOMPARE(in.routeId(), QString("Desk_to_AudioWith2Channels"));
    QCOMPARE(gainsOf(in), identity(32, 2));
    const Route out(100, &device);
    QCOMPARE(out.numInputs(), 32);
    QCOMPARE(out.numOutputs(), 32);
    QCOMPARE(out.toJson().value("numAudioChannels").toInt(), 32);
    QCOMPARE(out.routeId(), QString("AudioWith100Channels_to_Desk"));
}

void tst_Route::isActive_needsDeviceChannels()
{
    Box silent("Silent", 0, 0);
    QVERIFY(!Route(2, &silent).isActive());
    QVERIFY(Route(counts(1, 0, 0)).isActive());
    QVERIFY(!Route(counts(0, 0, 2)).isActive());
    QVERIFY(Route(counts(2147483647, 0, 0)).isActive());
}

void tst_Route::gain_outOfRange_isZero()
{
    Box device("Speakers", 0, 2);
    const Route route(2, &device);
    QCOMPARE(route.gain(1, 1), 1.0f);
    QCOMPARE(route.gain(2, 0), 0.0f);
    QCOMPARE(route.gain(0, 2), 0.0f);
    QCOMPARE(route.gain(-1, 1), 0.0f);
    QCOMPARE(route.gain(1, -1), 0.0f);
}

void tst_Route::setGain_detachesCopies()
{
    Box device("Speakers", 0, 2);
    const Route route(2, &device);
    Route copy(route);
    QVERIFY(copy.setGain(0, 1, 0.5f));
    QCOMPARE(copy.gain(0, 1), 0.5f);
    QCOMPARE(route.gain(0, 1), 0.0f);
    QCOMPARE(gainsOf(copy), (Gains{1.0f, 0.5f, 0.0f, 1.0f}));
    QVERIFY(copy.setGain(0, 1, 0.5f)); // that it was there does not matter
}

void tst_Route::setGain_outOfRange_isFalse()
{
    Box device("Speakers", 0, 2);
    const Route route(2, &device);
    Route copy(route);
    for (const auto &[row, column] :
         std::initializer_list<std::pair<int, int>>{{2, 0}, {0, 2}, {-1, 0}, {0, -1}})
        QVERIFY(!copy.setGain(row, column, 0.5f));
    QCOMPARE(gainsOf(copy), gainsOf(route));
    QVERIFY(static_cast<const float *>(copy) != static_cast<const float *>(route));
    Route empty;
    QVERIFY(!empty.setGain(0, 0, 1.0f));
    QVERIFY(!empty.isValid());
}

void tst_Route::assignment_shares_untilChanged()
{
    Box device("Speakers", 0, 2);
    const Route route(2, &device);
    Route copy;
    copy = route;
    QCOMPARE(static_cast<const float *>(copy), static_cast<const float *>(route));
    copy.reset();
    QVERIFY(static_cast<const float *>(copy) != static_cast<const float *>(route));
}

void tst_Route::reset_restoresDefaults()
{
    Box device("Desk", 1, 2);
    for (Route route : {Route(2, &device), Route(&device, 6)}) {
        const Gains defaults = gainsOf(route);
        for (int column = 0; column < route.numOutputs(); ++column)
            QVERIFY(route.setGain(0, column, 0.125f));
        route.reset();
        QCOMPARE(gainsOf(route), defaults);
    }
    Route loop(parsed(R"({"kind":"loop","id":"x","numInputChannels":2,"numOutputChannels":1,
                          "numAudioChannels":0,"gains":[0.5,0.25]})"));
    QCOMPARE(gainsOf(loop), (Gains{0.5f, 0.25f}));
    loop.reset();
    QCOMPARE(gainsOf(loop), (Gains{0.0f, 0.0f}));
    Route unknown(counts(0, 0, 2, {1, 1, 1, 1}));
    unknown.reset();
    QCOMPARE(gainsOf(unknown), Gains(4, 0.0f));
    Route empty;
    empty.reset();
    QVERIFY(!empty.isValid());
}

void tst_Route::toJson_hasAllKeys()
{
    Box device("Speakers", 0, 2);
    Route route(1, &device);
    route.setGain(0, 1, 0.5f);
    QCOMPARE(route.toJson(), parsed(R"({"kind":"output","id":"AudioWith1Channels_to_Speakers",
        "numInputChannels":0,"numOutputChannels":2,"numAudioChannels":1,"gains":[1,0.5]})"));
}

void tst_Route::toJson_emptyRoute()
{
    QCOMPARE(Route().toJson(), parsed(R"({"kind":"invalid","id":"","numInputChannels":0,
        "numOutputChannels":0,"numAudioChannels":0,"gains":[]})"));
}

void tst_Route::json_roundTrip_data()
{
    QTest::addColumn<bool>("input");
    QTest::newRow("input") << true;
    QTest::newRow("output") << false;
}

void tst_Route::json_roundTrip()
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

void tst_Route::json_roundTrip_loop()
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

void tst_Route::json_missingKey_isEmpty_data()
{
    QTest::addColumn<QString>("key");
    for (const char *key :
         {"id", "numInputChannels", "numOutputChannels", "numAudioChannels", "gains"})
        QTest::newRow(key) << key;
}

void tst_Route::json_missingKey_isEmpty()
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

void tst_Route::json_type_data()
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

void tst_Route::json_type()
{
    QFETCH(QString, kind);
    QFETCH(QJsonObject, json);
    QFETCH(int, type);
    if (!kind.isEmpty())
        json["kind"] = kind;
    QCOMPARE(Route(json).type(), Type(type));
}

void tst_Route::json_matrix_data()
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

void tst_Route::json_matrix()
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

void tst_Route::json_gains_fitTheMatrix()
{
    const Route more(counts(0, 2, 1, {0.25, 0.5, 0.75, 1.0}));
    QCOMPARE(gainsOf(more), (Gains{0.25f, 0.5f}));
    const Route less(counts(0, 2, 2, {0.25, "loud", 0.75}));
    QCOMPARE(gainsOf(less), (Gains{0.25f, 0.0f, 0.75f, 0.0f}));
    QJsonObject json = counts(0, 2, 1);
    json["gains"] = 3;
    QCOMPARE(gainsOf(Route(json)), Gains(2, 0.0f));
}

void tst_Route::json_notFiniteGain_comesBackAsZero()
{
    Box device("Speakers", 0, 2);
    Route route(2, &device);
    route.setGain(0, 0, std::numeric_limits<float>::quiet_NaN());
    route.setGain(1, 1, std::numeric_limits<float>::infinity());
    const QByteArray bytes = QJsonDocument(route.toJson()).toJson();
    const Route again(QJsonDocument::fromJson(bytes).object());
    QCOMPARE(gainsOf(again), Gains(4, 0.0f));
}

QTEST_GUILESS_MAIN(tst_Route)
#include "tst_route.moc"
