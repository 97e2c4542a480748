// SPDX-License-Identifier: MIT
#include "meter_fixture.h"

#include <QtTest/QTest>

#include <cmath>
#include <limits>

using namespace QTovelMixer;

class tst_MeterValues : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void default_isSilence();
    void decibels_data();
    void decibels();
    void slot_behindTheLast();
    void slot_ofTheFullRecord();
    void count_givenByTheHost();
};

void tst_MeterValues::default_isSilence()
{
    const MeterValues values;
    QVERIFY(!values.isValid());
    QCOMPARE(values.numChannels(), 0);
    QCOMPARE(values.momentaryLoudness(), -120.0);
    QCOMPARE(values.shortTermLoudness(), -120.0);
    QCOMPARE(values.channelIndex(0), -1);
    for (const int index : {-1, 0, 1, 128, 129}) {
        QCOMPARE(values.level(index), -120.0);
        QCOMPARE(values.hold_level(index), -120.0);
        QCOMPARE(values.true_peak_level(index), -120.0);
        QCOMPARE(values.true_peak_hold_level(index), -120.0);
    }
}

void tst_MeterValues::decibels_data()
{
    QTest::addColumn<float>("linear");
    QTest::addColumn<double>("decibels");
    QTest::newRow("full scale") << 1.0f << 0.0;
    QTest::newRow("half") << 0.5f << -6.0205999132796239;
    QTest::newRow("negative half") << -0.5f << -6.0205999132796239;
    QTest::newRow("power of two") << 0.0009765625f << -60.205999132796239;
    QTest::newRow("above full scale") << 1.5f << 0.0;
    QTest::newRow("below the scale") << 1e-7f << -120.0;
    QTest::newRow("silence") << 0.0f << -120.0;
}

void tst_MeterValues::decibels()
{
    QFETCH(float, linear);
    QFETCH(double, decibels);
    const MeterPointer<> meter = makeMeter(1);
    measure(*meter, {linear});
    const MeterValues values = valuesOf(*meter);
    constexpr double rounding = 1e-12;
    QVERIFY(std::abs(values.level(0) - decibels) <= rounding);
    QVERIFY(std::abs(values.hold_level(0) - decibels) <= rounding);
    QCOMPARE(values.true_peak_level(0), -120.0);
    QCOMPARE(values.true_peak_hold_level(0), -120.0);
}

void tst_MeterValues::slot_behindTheLast()
{
    const MeterPointer<> meter = makeMeter(4);
    measure(*meter, {1.0f, 1.0f, 1.0f, 1.0f});
    MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 4);
    meter->setChannelEnabled(2, false);
    meter->setChannelEnabled(3, false);
    measure(*meter, {0.5f, 0.5f, 0.0f, 0.0f});
    QVERIFY(meter->getValues(values));
    QCOMPARE(values.numChannels(), 2);
    QVERIFY(values.level(1) < -6.0);
    QCOMPARE(values.level(2), 0.0); // what the third slot held before
    QCOMPARE(values.hold_level(2), 0.0);
    QCOMPARE(values.level(3), -120.0);
    QCOMPARE(values.hold_level(3), -120.0);
    QCOMPARE(values.level(-1), -120.0);
    QCOMPARE(values.level(std::numeric_limits<int>::min()), -120.0);
    QCOMPARE(values.channelIndex(1), 1);
    QCOMPARE(values.channelIndex(2), -1);
    QCOMPARE(values.channelIndex(-1), -1);
}

void tst_MeterValues::slot_ofTheFullRecord()
{
    const MeterPointer<> meter = makeMeter(128);
    measure(*meter, std::vector<float>(128, 1.0f));
    const MeterValues values = valuesOf(*meter);
    QCOMPARE(values.numChannels(), 128);
    QCOMPARE(values.level(127), 0.0);
    QCOMPARE(values.channelIndex(127), 127);
    QCOMPARE(values.channelIndex(128), -1);
    QCOMPARE(values.level(128), -120.0);
    QCOMPARE(values.true_peak_hold_level(128), -120.0);
    QCOMPARE(values.level(129), -120.0);
}

void tst_MeterValues::count_givenByTheHost()
{
    const MeterValues few(3);
    QVERIFY(few.isValid());
    QCOMPARE(few.numChannels(), 3);
    QCOMPARE(few.momentaryLoudness(), -120.0);
    QCOMPARE(few.channelIndex(2), 0);
    const MeterValues many(100000);
    QCOMPARE(many.level(128), -120.0);
    QCOMPARE(many.level(129), -120.0);
    QCOMPARE(many.level(99999), -120.0);
    QCOMPARE(many.channelIndex(128), -1);
    const MeterValues negative(-1);
    QVERIFY(!negative.isValid());
    QCOMPARE(negative.level(-1), -120.0);
}

QTEST_GUILESS_MAIN(tst_MeterValues)
#include "tst_meter_values.moc"
