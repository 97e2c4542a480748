// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_scale.h>

#include <QtTest/QTest>

#include <cmath>
#include <limits>

using namespace QTovelMixer;

namespace {

constexpr double rounding = 1e-9;

} // namespace

class tst_MeterScale : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ends_data();
    void ends();
    void position_growsWithTheReading_data();
    void position_growsWithTheReading();
    void ebu_isEven();
    void kSystem_isEven_aboveMinus24();
    void marks_standWhereReadingsDo_data();
    void marks_standWhereReadingsDo();
    void text_data();
    void text();
};

void tst_MeterScale::ends_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<double>("lowest");
    QTest::addColumn<double>("zero");
    QTest::addColumn<double>("highest");
    QTest::newRow("digital") << int(MeterScale::Digital) << -60.0 << 0.0 << 0.0;
    QTest::newRow("EBU +9") << int(MeterScale::EbuPlus9) << -41.0 << -23.0 << -14.0;
    QTest::newRow("EBU +18") << int(MeterScale::EbuPlus18) << -59.0 << -23.0 << -5.0;
    QTest::newRow("K-12") << int(MeterScale::K12) << -56.0 << -12.0 << 0.0;
    QTest::newRow("K-14") << int(MeterScale::K14) << -58.0 << -14.0 << 0.0;
    QTest::newRow("K-20") << int(MeterScale::K20) << -64.0 << -20.0 << 0.0;
}

void tst_MeterScale::ends()
{
    QFETCH(int, kind);
    QFETCH(double, lowest);
    QFETCH(double, zero);
    QFETCH(double, highest);
    const MeterScale scale{MeterScale::Kind(kind)};
    QCOMPARE(int(scale.kind()), kind);
    QCOMPARE(scale.lowest(), lowest);
    QCOMPARE(scale.zero(), zero);
    QCOMPARE(scale.highest(), highest);
    QCOMPARE(scale.position(lowest), 0.0);
    QCOMPARE(scale.position(highest), 1.0);
    for (const double below : {lowest - 1.0, -120.0, -std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN()})
        QCOMPARE(scale.position(below), 0.0);
    QCOMPARE(scale.position(highest + 1.0), 1.0);
    QCOMPARE(scale.position(std::numeric_limits<double>::infinity()), 1.0);
    QCOMPARE(scale.reading(-1.0), lowest);
    QCOMPARE(scale.reading(std::numeric_limits<double>::quiet_NaN()), lowest);
    QCOMPARE(scale.reading(2.0), highest);
}

void tst_MeterScale::position_growsWithTheReading_data()
{
    ends_data();
}

void tst_MeterScale::position_growsWithTheReading()
{
    QFETCH(int, kind);
    const MeterScale scale{MeterScale::Kind(kind)};
    double last = -1.0;
    for (double reading = scale.lowest(); reading <= scale.highest(); reading += 0.25) {
        const double position = scale.position(reading);
        QVERIFY(position > last && position <= 1.0);
        QVERIFY(std::abs(scale.reading(position) - reading) < rounding);
        last = position;
    }
}

void tst_MeterScale::ebu_isEven()
{
    const MeterScale nine(MeterScale::EbuPlus9);
    QVERIFY(std::abs(nine.position(-23.0) - 18.0 / 27.0) < rounding);
    QVERIFY(std::abs(nine.position(-32.0) - 9.0 / 27.0) < rounding);
    const MeterScale eighteen(MeterScale::EbuPlus18);
    QVERIFY(std::abs(eighteen.position(-23.0) - 36.0 / 54.0) < rounding);
}

void tst_MeterScale::kSystem_isEven_aboveMinus24()
{
    for (const auto kind : {MeterScale::K12, MeterScale::K14, MeterScale::K20}) {
        const MeterScale scale(kind);
        const double step = scale.position(scale.zero() + 1.0) - scale.position(scale.zero());
        for (double reading = scale.zero() - 24.0; reading <= scale.highest() - 1.0; reading += 1.0)
            QVERIFY(std::abs(scale.position(reading + 1.0) - scale.position(reading) - step) <
                    rounding);
    }
}

void tst_MeterScale::marks_standWhereReadingsDo_data()
{
    ends_data();
}

void tst_MeterScale::marks_standWhereReadingsDo()
{
    QFETCH(int, kind);
    const MeterScale scale{MeterScale::Kind(kind)};
    const std::vector<MeterScale::Mark> marks = scale.marks();
    QVERIFY(marks.size() > 5);
    double last = -1.0;
    bool hasZero = false;
    for (const MeterScale::Mark &mark : marks) {
        QVERIFY(mark.position > last);
        last = mark.position;
        QCOMPARE(mark.position, scale.position(mark.reading));
        QCOMPARE(mark.label.toDouble(), mark.reading - scale.zero());
        QCOMPARE(mark.label.startsWith('+'), mark.reading > scale.zero());
        hasZero = hasZero || mark.label == "0";
    }
    QVERIFY(hasZero);
    QVERIFY(marks.front().reading >= scale.lowest());
    QCOMPARE(marks.back().reading, scale.highest());
}

void tst_MeterScale::text_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<double>("reading");
    QTest::addColumn<QString>("text");
    QTest::newRow("digital") << int(MeterScale::Digital) << -3.21 << "-3.2 dB";
    QTest::newRow("above full scale") << int(MeterScale::Digital) << 1.25 << "1.3 dB";
    QTest::newRow("nearly nothing") << int(MeterScale::Digital) << -0.04 << "0.0 dB";
    QTest::newRow("silence") << int(MeterScale::Digital) << -120.0 << "silence";
    QTest::newRow("no number") << int(MeterScale::Digital)
                               << std::numeric_limits<double>::quiet_NaN() << "silence";
    QTest::newRow("EBU") << int(MeterScale::EbuPlus9) << -22.0 << "+1.0 LU";
    QTest::newRow("EBU, on target") << int(MeterScale::EbuPlus9) << -23.02 << "0.0 LU";
    QTest::newRow("EBU, silence") << int(MeterScale::EbuPlus18) << -120.0 << "silence";
    QTest::newRow("K-20") << int(MeterScale::K20) << -26.0 << "-6.0 dB";
}

void tst_MeterScale::text()
{
    QFETCH(int, kind);
    QFETCH(double, reading);
    QFETCH(QString, text);
    QCOMPARE(MeterScale(MeterScale::Kind(kind)).text(reading), text);
}

QTEST_GUILESS_MAIN(tst_MeterScale)
#include "tst_meter_scale.moc"
