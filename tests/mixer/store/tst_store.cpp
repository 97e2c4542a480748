// SPDX-License-Identifier: MIT
#include "route_fixture.h"

#include <mixer/store/store.h>
#include <support/log_capture.h>

#include <QtCore/QElapsedTimer>
#include <QtTest/QTest>

#include <algorithm>

using namespace QTovelMixer;

namespace {

QByteArray routeJson(const char *id, const char *rest)
{
    return QByteArray("{\"id\":\"") + id + "\"," + rest + '}';
}

constexpr char stereo[] =
    R"("numInputChannels":0,"numOutputChannels":2,"numAudioChannels":1,"gains":[1,0.5])";

} // namespace

class tst_Store : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void store_isOne();
    void empty_savesBrackets();
    void findRoute_byDeviceAndChannels();
    void findRoute_nothing_isTheEmptyRoute();
    void addRoute_invalid_isIgnored();
    void addRoute_replaces();
    void addRoute_keepsACopy();
    void removeRoute_byDeviceAndChannels();
    void findMeterConfig_byTypeAndDevice();
    void addMeterConfig_invalid_isIgnored();
    void addMeterConfig_replaces();
    void removeMeterConfig_byTypeAndDevice();
    void saveRoutes_compactInOrderOfIds();
    void saveMeterConfigs_compactInOrderOfIds();
    void restore_saved_givesTheSame();
    void restore_unparsable_changesNothing_data();
    void restore_unparsable_changesNothing();
    void restore_emptyArray_empties();
    void restore_otherTopLevel_empties();
    void restore_skipsWhatIsUnusable();
    void restore_laterWins();
    void restore_takesBackEverythingSaved();
    void restore_boundsWhatIsNotNamed();
    void restore_refusesHugeClaims_atOnce();
    void restore_refusesGains_thatAreNotFinite();
    void restore_refuses_whatIsNestedTooDeep();
};

void tst_Store::init()
{
    QVERIFY(Store::store()->restoreRoutes("[]"));
    QVERIFY(Store::store()->restoreMeterConfigs("[]"));
}

void tst_Store::store_isOne()
{
    QVERIFY(Store::store());
    QCOMPARE(Store::store(), Store::store());
}

void tst_Store::empty_savesBrackets()
{
    QVERIFY(Store::store()->routes().isEmpty());
    QVERIFY(Store::store()->meterConfigs().isEmpty());
    QCOMPARE(Store::store()->saveRoutes(), QByteArray("[]"));
    QCOMPARE(Store::store()->saveMeterConfigs(), QByteArray("[]"));
}

void tst_Store::findRoute_byDeviceAndChannels()
{
    Store *store = Store::store();
    Box speakers("Speakers", 0, 2);
    Box microphone("Microphone", 1, 0);
    Box other("Other", 1, 2);
    store->addRoute(Route(2, &speakers));
    store->addRoute(Route(&microphone, 1));
    store->addRoute(Route(&microphone, &speakers));
    QCOMPARE(store->routes().size(), 3);
    QCOMPARE(store->findRoute(nullptr, 2, &speakers).type(), Type::Output);
    QCOMPARE(store->findRoute(&microphone, 1, nullptr).type(), Type::Input);
    QCOMPARE(store->findRoute(&microphone, 0, &speakers).type(), Type::Loop);
    Box again("Speakers", 0, 8); // found by the name, whatever its channels
    QCOMPARE(store->findRoute(nullptr, 2, &again).numOutputs(), 2);
    QVERIFY(!store->findRoute(nullptr, 3, &speakers).isValid());
    QVERIFY(!store->findRoute(nullptr, 2, &other).isValid());
}

void tst_Store::findRoute_nothing_isTheEmptyRoute()
{
    Box other("Other", 0, 2);
    const Route &route = Store::store()->findRoute(nullptr, 2, &other);
    QVERIFY(!route.isValid());
    QVERIFY(!static_cast<const float *>(route));
    QCOMPARE(&Store::store()->findRoute(nullptr, 5, nullptr), &route);
    const MeterConfig &config = Store::store()->findMeterConfig(Type::Input, nullptr);
    QVERIFY(!config.isValid());
    QCOMPARE(&Store::store()->findMeterConfig(Type::Output, &other), &config);
}

void tst_Store::addRoute_invalid_isIgnored()
{
    Store::store()->addRoute(Route());
    QVERIFY(Store::store()->routes().isEmpty());
}

void tst_Store::addRoute_replaces()
{
    Box speakers("Speakers", 0, 2);
    Route route(2, &speakers);
    Store::store()->addRoute(route);
    QVERIFY(route.setGain(0, 0, 0.25f));
    Store::store()->addRoute(route);
    QCOMPARE(Store::store()->routes().size(), 1);
    QCOMPARE(Store::store()->findRoute(nullptr, 2, &speakers).gain(0, 0), 0.25f);
}

void tst_Store::addRoute_keepsACopy()
{
    Box speakers("Speakers", 0, 2);
    Route route(2, &speakers);
    Store::store()->addRoute(route);
    QVERIFY(route.setGain(0, 0, 0.25f));
    QCOMPARE(Store::store()->findRoute(nullptr, 2, &speakers).gain(0, 0), 1.0f);
}

void tst_Store::removeRoute_byDeviceAndChannels()
{
    Store *store = Store::store();
    Box speakers("Speakers", 0, 2);
    store->addRoute(Route(2, &speakers));
    store->removeRoute(nullptr, 1, &speakers);
    QCOMPARE(store->routes().size(), 1);
    store->removeRoute(nullptr, 2, &speakers);
    QVERIFY(store->routes().isEmpty());
    store->removeRoute(nullptr, 2, &speakers);
}

void tst_Store::findMeterConfig_byTypeAndDevice()
{
    Store *store = Store::store();
    Box desk("Desk", 2, 4);
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    store->addMeterConfig(MeterConfig(Type::Output, &desk));
    QCOMPARE(store->findMeterConfig(Type::Input, &desk).numMeters(), 2);
    QCOMPARE(store->findMeterConfig(Type::Output, &desk).numMeters(), 4);
    Box changed("Desk", 2, 6); // another channel count is another layout
    QVERIFY(!store->findMeterConfig(Type::Output, &changed).isValid());
    QVERIFY(!store->findMeterConfig(Type::Loop, &desk).isValid());
}

void tst_Store::addMeterConfig_invalid_isIgnored()
{
    Store::store()->addMeterConfig(MeterConfig());
    Store::store()->addMeterConfig(MeterConfig(Type::Input, nullptr));
    QVERIFY(Store::store()->meterConfigs().isEmpty());
}

void tst_Store::addMeterConfig_replaces()
{
    Box desk("Desk", 2, 4);
    MeterConfig config(Type::Input, &desk);
    Store::store()->addMeterConfig(config);
    config.setMeterEnabled(1, false);
    QVERIFY(Store::store()->findMeterConfig(Type::Input, &desk).meterEnabled(1));
    Store::store()->addMeterConfig(config);
    QCOMPARE(Store::store()->meterConfigs().size(), 1);
    QVERIFY(!Store::store()->findMeterConfig(Type::Input, &desk).meterEnabled(1));
}

void tst_Store::removeMeterConfig_byTypeAndDevice()
{
    Store *store = Store::store();
    Box desk("Desk", 2, 4);
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    store->removeMeterConfig(Type::Output, &desk);
    QCOMPARE(store->meterConfigs().size(), 1);
    store->removeMeterConfig(Type::Input, &desk);
    QVERIFY(store->meterConfigs().isEmpty());
    store->removeMeterConfig(Type::Input, nullptr);
}

void tst_Store::saveRoutes_compactInOrderOfIds()
{
    Store *store = Store::store();
    Box b("b", 1, 0);
    Box a("a", 1, 0);
    Box capital("Z", 1, 0);
    store->addRoute(Route(&b, 0));
    store->addRoute(Route(&a, 0));
    store->addRoute(Route(&capital, 1));
    QCOMPARE(store->saveRoutes(),
             QByteArray("[{\"gains\":[1],\"id\":\"Z_to_AudioWith1Channels\",\"kind\":\"input\","
                        "\"numAudioChannels\":1,\"numInputChannels\":1,\"numOutputChannels\":0},"
                        "{\"gains\":[],\"id\":\"a\",\"kind\":\"input\","
                        "\"numAudioChannels\":0,\"numInputChannels\":1,\"numOutputChannels\":0},"
                        "{\"gains\":[],\"id\":\"b\",\"kind\":\"input\","
                        "\"numAudioChannels\":0,\"numInputChannels\":1,\"numOutputChannels\":0}]"));
}

void tst_Store::saveMeterConfigs_compactInOrderOfIds()
{
    Store *store = Store::store();
    Box desk("Größe", 1, 2);
    store->addMeterConfig(MeterConfig(Type::Output, &desk));
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    QCOMPARE(store->saveMeterConfigs(),
             QByteArray("[{\"id\":\"input-Größe-1ch\",\"meters\":[true],\"numMeters\":1,"
                        "\"type\":\"input\"},{\"id\":\"output-Größe-2ch\",\"meters\":[true,true],"
                        "\"numMeters\":2,\"type\":\"output\"}]"));
}

void tst_Store::restore_saved_givesTheSame()
{
    Store *store = Store::store();
    Box desk("Desk \"1\"\n", 32, 5);
    Route route(2, &desk);
    route.setGain(1, 4, 0.1f);
    store->addRoute(route);
    store->addRoute(Route(&desk, 1));
    MeterConfig config(Type::Input, &desk);
    config.setMeterEnabled(30, false);
    store->addMeterConfig(config);
    store->addMeterConfig(MeterConfig(Type::Output, &desk));
    const QByteArray routes = store->saveRoutes();
    const QByteArray configs = store->saveMeterConfigs();

    init();
    QVERIFY(store->restoreRoutes(routes));
    QVERIFY(store->restoreMeterConfigs(configs));
    QCOMPARE(store->routes().size(), 2);
    QCOMPARE(store->findRoute(nullptr, 2, &desk).gain(1, 4), 0.1f);
    const MeterConfig &again = store->findMeterConfig(Type::Input, &desk);
    QCOMPARE(again.type(), Type::Input);
    QCOMPARE(again.numMeters(), 32);
    QVERIFY(again.meters() == config.meters());
    QCOMPARE(store->saveRoutes(), routes);
    QCOMPARE(store->saveMeterConfigs(), configs);
}

void tst_Store::restore_unparsable_changesNothing_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("beginning");
    QTest::newRow("cut object") << QByteArray("[{") << "\"unterminated object\" (offset: ";
    QTest::newRow("cut array") << QByteArray("[[]") << "\"unterminated array\" (offset: ";
    QTest::newRow("nothing") << QByteArray() << "\"illegal value\" (offset: ";
    QTest::newRow("words") << QByteArray("routes") << "\"illegal value\" (offset: ";
    QTest::newRow("garbage behind")
        << QByteArray("[] []") << "\"garbage at the end of the document\" (offset: ";
}

void tst_Store::restore_unparsable_changesNothing()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, beginning);
    Store *store = Store::store();
    Box desk("Desk", 2, 2);
    store->addRoute(Route(2, &desk));
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    LogCapture log;
    QVERIFY(!store->restoreRoutes(bytes));
    QVERIFY(!store->restoreMeterConfigs(bytes));
    QVERIFY(store->findRoute(nullptr, 2, &desk).isValid());
    QVERIFY(store->findMeterConfig(Type::Input, &desk).isValid());
    const QStringList lines = log.texts(QtCriticalMsg);
    QCOMPARE(log.count(), 2);
    QCOMPARE(lines.size(), 2);
    const QString offset = lines[0].section("(offset: ", 1).section(' ', 0, 0);
    bool isNumber = false;
    offset.toInt(&isNumber);
    QVERIFY(isNumber);
    QCOMPARE(lines[0], beginning + offset + " ) in mixer routes");
    QCOMPARE(lines[1], beginning + offset + " ) in mixer meter configs");
}

void tst_Store::restore_emptyArray_empties()
{
    Store *store = Store::store();
    Box desk("Desk", 2, 2);
    store->addRoute(Route(2, &desk));
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    LogCapture log;
    QVERIFY(store->restoreRoutes("[]"));
    QVERIFY(store->routes().isEmpty());
    QCOMPARE(store->meterConfigs().size(), 1); // each table on its own
    QVERIFY(store->restoreMeterConfigs(" [ ] "));
    QVERIFY(store->meterConfigs().isEmpty());
    QCOMPARE(log.count(), 0);
}

void tst_Store::restore_otherTopLevel_empties()
{
    Store *store = Store::store();
    Box desk("Desk", 2, 2);
    store->addRoute(Route(2, &desk));
    store->addMeterConfig(MeterConfig(Type::Input, &desk));
    QVERIFY(store->restoreRoutes(routeJson("x", stereo)));
    QVERIFY(store->routes().isEmpty());
    QVERIFY(store->restoreMeterConfigs("{}"));
    QVERIFY(store->meterConfigs().isEmpty());
}

void tst_Store::restore_skipsWhatIsUnusable()
{
    Store *store = Store::store();
    LogCapture log;
    QVERIFY(store->restoreRoutes(
        "[1,null,\"text\",[],{}," + routeJson("no gains", "\"numInputChannels\":1") + ',' +
        routeJson("good", stereo) + ",[" + routeJson("nested", stereo) + "]]"));
    QCOMPARE(store->routes().keys(), QStringList{"good"});
    QCOMPARE(store->routes().first().gain(0, 1), 0.5f);
    QVERIFY(store->restoreMeterConfigs(
        R"([true,{"id":"a","numMeters":0,"meters":[]},{"id":"b","numMeters":1},)"
        R"({"id":"c","numMeters":1,"meters":[true]},{"id":"d","numMeters":2000000000,"meters":[]}])"));
    QCOMPARE(store->meterConfigs().keys(), QStringList{"c"});
    QCOMPARE(log.count(), 0);
}

void tst_Store::restore_laterWins()
{
    Store *store = Store::store();
    QByteArray second = routeJson("x", stereo);
    second.replace("0.5", "0.75");
    QVERIFY(store->restoreRoutes('[' + routeJson("x", stereo) + ',' + second + ']'));
    QCOMPARE(store->routes().size(), 1);
    QCOMPARE(store->routes().first().gain(0, 1), 0.75f);
    QVERIFY(store->restoreMeterConfigs(R"([{"id":"x","numMeters":1,"meters":[true]},)"
                                       R"({"id":"x","numMeters":2,"meters":[false]}])"));
    QCOMPARE(store->meterConfigs().size(), 1);
    QCOMPARE(store->meterConfigs().first().numMeters(), 2);
}

// As many channels as a route has, and more devices than anybody owns: once 4096 of them came back.
void tst_Store::restore_takesBackEverythingSaved()
{
    constexpr int devices = 4200;
    constexpr int channels = 32;
    Store *store = Store::store();
    for (int i = 0; i < devices; ++i) {
        Box box(QString("Device %1").arg(i), channels, channels);
        Route route(channels, &box);
        QVERIFY(route.setGain(i % channels, 7, 0.25f));
        store->addRoute(route);
        store->addMeterConfig(MeterConfig(Type::Output, &box));
    }
    const QMap<QString, Route> saved = store->routes();
    const QByteArray routes = store->saveRoutes();
    const QByteArray configs = store->saveMeterConfigs();
    init();
    LogCapture log;
    QVERIFY(store->restoreRoutes(routes));
    QVERIFY(store->restoreMeterConfigs(configs));
    QVERIFY(store->routes().keys() == saved.keys());
    const bool alike = std::equal(
        saved.begin(), saved.end(), store->routes().begin(),
        [](const float *a, const float *b) { return std::equal(a, a + channels * channels, b); });
    QVERIFY(alike);
    QCOMPARE(store->meterConfigs().size(), devices);
    QCOMPARE(log.count(), 0);
}

namespace {

QByteArray claims(int count, const char *form)
{
    QByteArray array = "[";
    for (int i = 0; i < count; ++i)
        array += QString(form).arg(i).toUtf8() + ',';
    array.back() = ']';
    return array;
}

} // namespace

// A few characters ask for 2^16 elements each, and 2^18 in sum is what there is for such claims.
void tst_Store::restore_boundsWhatIsNotNamed()
{
    Store *store = Store::store();
    LogCapture log;
    QVERIFY(store->restoreRoutes(
        claims(6, R"({"id":"%1","numInputChannels":256,"numOutputChannels":256,)"
                  R"("numAudioChannels":0,"gains":[]})")));
    QCOMPARE(store->routes().keys(), (QStringList{"0", "1", "2", "3"}));
    QCOMPARE(store->routes().last().gain(255, 255), 0.0f);
    QVERIFY(store->restoreMeterConfigs(claims(6, R"({"id":"%1","numMeters":65536,"meters":[]})")));
    QCOMPARE(store->meterConfigs().keys(), (QStringList{"0", "1", "2", "3"}));
    // What is lost is told, once for each.
    QCOMPARE(log.count(), 2);
    QVERIFY(log.contains("QTovelMixer::Store: left out 2 routes, too large in sum!!"));
    QVERIFY(log.contains("QTovelMixer::Store: left out 2 meter configs, too large in sum!!"));
}

// Each replaces the one before, so that their sum never grows: making them took 8 s.
void tst_Store::restore_refusesHugeClaims_atOnce()
{
    const QByteArray routes =
        claims(2000, R"({"id":"same","x":%1,"numInputChannels":1024,"numOutputChannels":1024,)"
                     R"("numAudioChannels":0,"gains":[]})");
    Store *store = Store::store();
    LogCapture log;
    QElapsedTimer clock;
    clock.start();
    QVERIFY(store->restoreRoutes(routes));
    const qint64 milliseconds = clock.elapsed();
    QVERIFY(store->routes().isEmpty());
    QVERIFY(log.contains("QTovelMixer::Store: left out 2000 routes, too large in sum!!"));
    // 10 ms are promised; a sanitizer or a busy machine may take its time.
    QVERIFY2(milliseconds < 500, qPrintable(QString::number(milliseconds)));
}

void tst_Store::restore_refusesGains_thatAreNotFinite()
{
    Store *store = Store::store();
    LogCapture log;
    QByteArray high = routeJson("high", stereo);
    high.replace("0.5", "1e39");
    QByteArray low = routeJson("low", stereo);
    low.replace("0.5", "-1e39");
    QByteArray largest = routeJson("largest", stereo);
    largest.replace("0.5", "3.4e38");
    QByteArray unread = routeJson("unread", stereo);
    unread.replace("0.5", "0.5,1e39");
    QVERIFY(store->restoreRoutes('[' + high + ',' + largest + ',' + low + ',' + unread + ']'));
    QCOMPARE(store->routes().keys(), (QStringList{"largest", "unread"}));
    QCOMPARE(store->routes().value("largest").gain(0, 1), 3.4e38f);
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList{"QTovelMixer::Store: left out 2 routes, gains are not finite!!"});
}

void tst_Store::restore_refuses_whatIsNestedTooDeep()
{
    const auto nested = [](int depth) { return QByteArray(depth, '[') + QByteArray(depth, ']'); };
    Store *store = Store::store();
    LogCapture log;
    QVERIFY(store->restoreRoutes(nested(1024)));
    QCOMPARE(log.count(), 0);
    QVERIFY(!store->restoreRoutes(nested(1025)));
    QVERIFY(!store->restoreMeterConfigs(nested(100000)));
    QCOMPARE(log.texts(QtCriticalMsg).size(), 2);
}

QTEST_GUILESS_MAIN(tst_Store)
#include "tst_store.moc"
