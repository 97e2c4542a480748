// SPDX-License-Identifier: MIT
#include <mixer/meter/loudness_target.h>

#include <QtCore/QSet>
#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

LoudnessReading readingOf(double integrated, double maxShortTerm, double maxTruePeak)
{
    LoudnessReading reading;
    reading.integrated = integrated;
    reading.maxShortTerm = maxShortTerm;
    reading.maxTruePeak = maxTruePeak;
    return reading;
}

} // namespace

class tst_LoudnessTarget : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void all_areToldApart();
    void find_unknown_isNull();
    void misses_data();
    void misses();
    void misses_nameTheBound();
    void hosts_makeTheirOwn();
};

void tst_LoudnessTarget::all_areToldApart()
{
    QSet<QString> names;
    for (const LoudnessTarget &target : LoudnessTarget::all()) {
        names.insert(target.name);
        QVERIFY(!target.title.isEmpty());
        QVERIFY(!target.date.isEmpty());
        QVERIFY(target.lowest < target.highest);
        QVERIFY(target.maxTruePeak < 0.0);
        QCOMPARE(LoudnessTarget::find(target.name), &target);
        const double middle = (target.lowest + target.highest) / 2.0;
        QVERIFY(target.misses(readingOf(middle, middle, target.maxTruePeak)).empty());
    }
    QCOMPARE(size_t(names.size()), LoudnessTarget::all().size());
}

void tst_LoudnessTarget::find_unknown_isNull()
{
    QVERIFY(!LoudnessTarget::find(""));
    QVERIFY(!LoudnessTarget::find("R128"));
}

void tst_LoudnessTarget::misses_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("integrated");
    QTest::addColumn<double>("maxShortTerm");
    QTest::addColumn<double>("maxTruePeak");
    QTest::addColumn<QList<int>>("figures");
    using Figures = QList<int>;
    const int loudness = LoudnessFigure::IntegratedLoudness;
    const int shortTerm = LoudnessFigure::MaxShortTerm;
    const int peak = LoudnessFigure::MaxTruePeak;
    QTest::newRow("met") << "r128" << -23.0 << -10.0 << -1.0 << Figures{};
    QTest::newRow("met to a tenth") << "r128" << -22.76 << -10.0 << -0.96 << Figures{};
    QTest::newRow("too loud") << "r128" << -22.74 << -10.0 << -1.0 << Figures{loudness};
    QTest::newRow("too soft") << "r128" << -23.26 << -10.0 << -1.0 << Figures{loudness};
    QTest::newRow("live") << "r128-live" << -22.1 << -10.0 << -1.0 << Figures{};
    QTest::newRow("peaks") << "r128" << -23.0 << -10.0 << 0.3 << Figures{peak};
    QTest::newRow("a short form") << "r128-s1" << -23.0 << -18.0 << -1.0 << Figures{};
    QTest::newRow("a loud short form") << "r128-s1" << -23.0 << -17.9 << -1.0 << Figures{shortTerm};
    QTest::newRow("streaming, low") << "r128-s2" << -20.0 << -10.0 << -1.0 << Figures{};
    QTest::newRow("streaming, high") << "r128-s2" << -16.0 << -10.0 << -1.0 << Figures{};
    QTest::newRow("north america") << "a85" << -24.0 << -10.0 << -1.5 << Figures{peak};
    QTest::newRow("everything") << "r128-s1" << -10.0 << -9.0 << 1.0
                                << Figures{loudness, shortTerm, peak};
    QTest::newRow("silence") << "r128" << -120.0 << -120.0 << -120.0 << Figures{loudness};
}

void tst_LoudnessTarget::misses()
{
    QFETCH(QString, name);
    QFETCH(double, integrated);
    QFETCH(double, maxShortTerm);
    QFETCH(double, maxTruePeak);
    QFETCH(QList<int>, figures);
    const LoudnessTarget *const target = LoudnessTarget::find(name);
    QVERIFY(target);
    QList<int> found;
    for (const LoudnessMiss &miss :
         target->misses(readingOf(integrated, maxShortTerm, maxTruePeak)))
        found.append(miss.figure);
    QCOMPARE(found, figures);
}

void tst_LoudnessTarget::misses_nameTheBound()
{
    const LoudnessTarget &target = *LoudnessTarget::find("r128");
    const auto loud = target.misses(readingOf(-20.0, -120.0, 0.5));
    QCOMPARE(loud.size(), size_t(2));
    QCOMPARE(loud[0].value, -20.0);
    QCOMPARE(loud[0].limit, -22.8);
    QCOMPARE(loud[1].value, 0.5);
    QCOMPARE(loud[1].limit, -1.0);
    QCOMPARE(target.misses(readingOf(-30.0, -120.0, -1.0)).at(0).limit, -23.2);
}

void tst_LoudnessTarget::hosts_makeTheirOwn()
{
    LoudnessTarget own;
    own.lowest = -19.0;
    own.highest = -17.0;
    own.maxTruePeak = -3.0;
    QVERIFY(own.misses(readingOf(-18.0, 0.0, -3.0)).empty());
    own.maxShortTerm = -10.0;
    QCOMPARE(own.misses(readingOf(-18.0, 0.0, -3.0)).size(), size_t(1));
}

QTEST_GUILESS_MAIN(tst_LoudnessTarget)
#include "tst_loudness_target.moc"
