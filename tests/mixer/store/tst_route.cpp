// SPDX-License-Identifier: MIT
#include "route_fixture.h"

#include <QtTest/QTest>

#include <algorithm>

using namespace QTovelMixer;

namespace {

Gains identity(int rows, int columns)
{
    Gains gains(size_t(rows) * size_t(columns), 0.0f);
    for (int i = 0; i < std::min(rows, columns); ++i)
        gains[size_t(i) * size_t(columns + 1)] = 1.0f;
    return gains;
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

QTEST_GUILESS_MAIN(tst_Route)
#include "tst_route.moc"
