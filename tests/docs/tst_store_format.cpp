// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_config.h>
#include <mixer/store/route.h>
#include <mixer/store/store.h>

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

QByteArray sample(const char *name)
{
    QFile file(QString(SAMPLES "/%1.json").arg(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray compact(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).toJson(QJsonDocument::Compact);
}

} // namespace

class tst_StoreFormat : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void routes_readAsDocumented();
    void routes_areSavedAsTheyWereRead();
    void meterLayouts_readAsDocumented();
    void meterLayouts_areSavedAsTheyWereRead();
};

void tst_StoreFormat::cleanup()
{
    QVERIFY(Store::store()->restoreRoutes("[]"));
    QVERIFY(Store::store()->restoreMeterConfigs("[]"));
}

void tst_StoreFormat::routes_readAsDocumented()
{
    QVERIFY(Store::store()->restoreRoutes(sample("routes")));
    const QMap<QString, Route> routes = Store::store()->routes();
    QCOMPARE(routes.keys(),
             QStringList({"AudioWith2Channels_to_Speakers", "Microphone_to_AudioWith2Channels",
                          "Microphone_to_Speakers"}));

    const Route output = routes["AudioWith2Channels_to_Speakers"];
    QCOMPARE(output.type(), Type::Output);
    QCOMPARE(output.numInputs(), 2);
    QCOMPARE(output.numOutputs(), 2);
    QCOMPARE(output.gain(0, 0), 1.0f);
    QCOMPARE(output.gain(1, 0), 0.0f);
    QCOMPARE(output.gain(1, 1), 0.5f);

    const Route input = routes["Microphone_to_AudioWith2Channels"];
    QCOMPARE(input.type(), Type::Input);
    QCOMPARE(input.numInputs(), 1);
    QCOMPARE(input.numOutputs(), 2);
    QCOMPARE(input.gain(0, 1), 0.25f);

    const Route loop = routes["Microphone_to_Speakers"];
    QCOMPARE(loop.type(), Type::Loop);
    QCOMPARE(loop.numInputs(), 1);
    QCOMPARE(loop.numOutputs(), 2);
    QCOMPARE(loop.gain(0, 0), 0.125f);
    QCOMPARE(loop.gain(0, 1), 0.75f);
}

void tst_StoreFormat::routes_areSavedAsTheyWereRead()
{
    QVERIFY(Store::store()->restoreRoutes(sample("routes")));
    QCOMPARE(Store::store()->saveRoutes(), compact(sample("routes")));
}

void tst_StoreFormat::meterLayouts_readAsDocumented()
{
    QVERIFY(Store::store()->restoreMeterConfigs(sample("meter-layouts")));
    const QMap<QString, MeterConfig> layouts = Store::store()->meterConfigs();
    QCOMPARE(layouts.keys(), QStringList({"input-Microphone-1ch", "output-Speakers-4ch"}));

    const MeterConfig input = layouts["input-Microphone-1ch"];
    QCOMPARE(input.type(), Type::Input);
    QCOMPARE(input.numMeters(), 1);
    QVERIFY(input.meterEnabled(0));

    const MeterConfig output = layouts["output-Speakers-4ch"];
    QCOMPARE(output.type(), Type::Output);
    QCOMPARE(output.numMeters(), 4);
    QVERIFY(output.meterEnabled(1));
    QVERIFY(!output.meterEnabled(2));
    QVERIFY(output.meterEnabled(3));
}

void tst_StoreFormat::meterLayouts_areSavedAsTheyWereRead()
{
    QVERIFY(Store::store()->restoreMeterConfigs(sample("meter-layouts")));
    QCOMPARE(Store::store()->saveMeterConfigs(), compact(sample("meter-layouts")));
}

QTEST_GUILESS_MAIN(tst_StoreFormat)
#include "tst_store_format.moc"
