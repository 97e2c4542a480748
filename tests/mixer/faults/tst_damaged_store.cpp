// SPDX-License-Identifier: MIT
// Saved routes and meter layouts that were cut off or altered on the disk.
#include <mixer/store/route.h>
#include <mixer/store/store.h>
#include <support/log_capture.h>
#include <support/test_api.h>

#include <mixer/engine.h>
#include <mixer/meter/meter_config.h>

#include <QtCore/QJsonDocument>
#include <QtTest/QTest>

#include <functional>

using namespace QTovelMixer;

class tst_DamagedStore : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void text_cutOffAtEveryByte_data() { addTables(); }
    void text_cutOffAtEveryByte();
    void text_withEveryByteAltered_data() { addTables(); }
    void text_withEveryByteAltered();

private:
    struct Table
    {
        std::function<QByteArray()> save;
        std::function<bool(const QByteArray &)> restore;
        QString words;
    };
    static void addTables();
    static Table table(bool routes);

    std::unique_ptr<TestApi> m_api;
};

void tst_DamagedStore::addTables()
{
    QTest::addColumn<bool>("routes");
    QTest::newRow("routes") << true;
    QTest::newRow("meter layouts") << false;
}

tst_DamagedStore::Table tst_DamagedStore::table(bool routes)
{
    Store *const store = Store::store();
    if (routes)
        return {[store] { return store->saveRoutes(); },
                [store](const QByteArray &data) { return store->restoreRoutes(data); },
                QStringLiteral(") in mixer routes")};
    return {[store] { return store->saveMeterConfigs(); },
            [store](const QByteArray &data) { return store->restoreMeterConfigs(data); },
            QStringLiteral(") in mixer meter configs")};
}

void tst_DamagedStore::init()
{
    m_api = std::make_unique<TestApi>();
    TestDevice *speaker = m_api->addTestDevice(QString::fromUtf8("Söunder \"%1\" [x] \\"), 0, 2);
    TestDevice *microphone = m_api->addTestDevice("Microphone", 2, 0);
    m_api->updateDeviceList();
    Store::store()->restoreRoutes("[]");
    Store::store()->restoreMeterConfigs("[]");
    for (int channels : {1, 2}) {
        Route output(channels, speaker);
        output.setGain(0, 1, 0.3f);
        Store::store()->addRoute(output);
        Store::store()->addRoute(Route(microphone, channels));
    }
    Store::store()->addMeterConfig(MeterConfig(Type::Output, speaker));
    Store::store()->addMeterConfig(MeterConfig(Type::Input, microphone));
}

void tst_DamagedStore::cleanup()
{
    Store::store()->restoreRoutes("[]");
    Store::store()->restoreMeterConfigs("[]");
    m_api.reset();
}

void tst_DamagedStore::text_cutOffAtEveryByte()
{
    QFETCH(bool, routes);
    const Table tested = table(routes);
    const QByteArray whole = tested.save();
    QVERIFY(whole.size() > 100);
    for (qsizetype length = 0; length < whole.size(); ++length) {
        LogCapture log;
        QVERIFY(!tested.restore(whole.left(length)));
        QCOMPARE(log.count(), 1);
        QCOMPARE(log.lines().first().type, QtCriticalMsg);
        QVERIFY(log.texts().first().contains(tested.words));
        QCOMPARE(tested.save(), whole);
    }
    QVERIFY(tested.restore(whole));
    QCOMPARE(tested.save(), whole);
}

// Some alterations give another table, or none; whatever is taken can be saved and restored again.
void tst_DamagedStore::text_withEveryByteAltered()
{
    QFETCH(bool, routes);
    const Table tested = table(routes);
    const QByteArray whole = tested.save();
    int refused = 0;
    for (qsizetype at = 0; at < whole.size(); ++at) {
        for (const int flip : {0x01, 0x02, 0x08, 0x20, 0x80, 0xff}) {
            QByteArray altered = whole;
            altered[at] = char(altered[at] ^ flip);
            QVERIFY(tested.restore(whole));
            LogCapture log;
            if (!tested.restore(altered)) {
                ++refused;
                QCOMPARE(log.count(), 1);
                QVERIFY(log.texts().first().contains(tested.words));
                QCOMPARE(tested.save(), whole);
                continue;
            }
            QCOMPARE(log.count(), 0);
            const QByteArray taken = tested.save();
            QVERIFY(tested.restore(taken));
            QCOMPARE(tested.save(), taken);
        }
    }
    QVERIFY(refused > whole.size());
}

QTEST_GUILESS_MAIN(tst_DamagedStore)
#include "tst_damaged_store.moc"
