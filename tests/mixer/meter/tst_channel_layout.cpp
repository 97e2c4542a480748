// SPDX-License-Identifier: MIT
#include <mixer/meter/channel_layout.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

QList<double> weightsOf(const ChannelLayout &layout)
{
    QList<double> weights;
    for (int channel = 0; channel < layout.count(); ++channel)
        weights.append(layout.weight(channel));
    return weights;
}

} // namespace

class tst_ChannelLayout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void default_knowsNothing();
    void named_weighs_data();
    void named_weighs();
    void named_unknown_knowsNothing();
    void fromNames_weighs_data();
    void fromNames_weighs();
    void weight_followsThePlace_data();
    void weight_followsThePlace();
    void names_notKnown();
};

void tst_ChannelLayout::default_knowsNothing()
{
    const ChannelLayout layout;
    QVERIFY(!layout.isKnown());
    QCOMPARE(layout.count(), 0);
    for (const int channel : {-1, 0, 1000}) {
        QCOMPARE(layout.weight(channel), 1.0);
        QCOMPARE(layout.position(channel).kind, ChannelPosition::Unknown);
    }
}

void tst_ChannelLayout::named_weighs_data()
{
    // ITU-R BS.1770-5 Annex 3, for the systems of BS.2051.
    QTest::addColumn<QString>("name");
    QTest::addColumn<QList<double>>("weights");
    QTest::newRow("mono") << "mono" << QList<double>{1};
    QTest::newRow("dual mono") << "dual mono" << QList<double>{2};
    QTest::newRow("stereo") << "stereo" << QList<double>{1, 1};
    QTest::newRow("2.0") << "2.0" << QList<double>{1, 1};
    QTest::newRow("3.0") << "3.0" << QList<double>{1, 1, 1};
    QTest::newRow("4.0") << "4.0" << QList<double>{1, 1, 1.41, 1.41};
    QTest::newRow("5.0") << "5.0" << QList<double>{1, 1, 1, 1.41, 1.41};
    QTest::newRow("5.1") << "5.1" << QList<double>{1, 1, 1, 0, 1.41, 1.41};
    QTest::newRow("7.1") << "7.1" << QList<double>{1, 1, 1, 0, 1.41, 1.41, 1, 1};
    QTest::newRow("5.1.4") << "5.1.4" << QList<double>{1, 1, 1, 0, 1.41, 1.41, 1, 1, 1, 1};
    QTest::newRow("7.1.4") << "7.1.4" << QList<double>{1, 1, 1, 0, 1.41, 1.41, 1, 1, 1, 1, 1, 1};
    QTest::newRow("22.2") << "22.2" << QList<double>{1.41, 1.41, 1, 0, 1, 1, 1, 1, 1, 0, 1.41, 1.41,
                                                     1,    1,    1, 1, 1, 1, 1, 1, 1, 1, 1,    1};
}

void tst_ChannelLayout::named_weighs()
{
    QFETCH(QString, name);
    QFETCH(QList<double>, weights);
    const ChannelLayout layout = ChannelLayout::named(name);
    QVERIFY(layout.isKnown());
    QCOMPARE(weightsOf(layout), weights);
    QCOMPARE(layout.weight(int(weights.size())), 1.0);
}

void tst_ChannelLayout::named_unknown_knowsNothing()
{
    for (const char *name : {"", "5", "6.2", "Stereo "})
        QVERIFY(!ChannelLayout::named(name).isKnown());
}

void tst_ChannelLayout::fromNames_weighs_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QList<double>>("weights");
    QTest::newRow("stereo") << QStringList{"front-left", "front-right"} << QList<double>{1, 1};
    // 5.1 in the order of sound servers: the rear pair are the surrounds.
    QTest::newRow("5.1, rear") << QStringList{"front-left", "front-right",  "rear-left",
                                              "rear-right", "front-center", "lfe"}
                               << QList<double>{1, 1, 1.41, 1.41, 1, 0};
    QTest::newRow("5.1, side") << QStringList{"FL", "FR", "FC", "LFE", "SL", "SR"}
                               << QList<double>{1, 1, 1, 0, 1.41, 1.41};
    QTest::newRow("7.1") << QStringList{"front-left",   "front-right", "rear-left", "rear-right",
                                        "front-center", "lfe",         "side-left", "side-right"}
                         << QList<double>{1, 1, 1, 1, 1, 0, 1.41, 1.41};
    QTest::newRow("back for rear")
        << QStringList{"FL", "FR", "BL", "BR"} << QList<double>{1, 1, 1.41, 1.41};
    QTest::newRow("back centre") << QStringList{"Back-Centre", "BC"} << QList<double>{1, 1};
    QTest::newRow("above") << QStringList{"top-front-left", "TSR", "top-center", "side-left"}
                           << QList<double>{1, 1, 1, 1.41};
    QTest::newRow("labels") << QStringList{"M+030", "m-110", "U+110", "B-090",
                                           "T+000", "LFE1",  "M+135"}
                            << QList<double>{1, 1.41, 1, 1, 1, 0, 1};
    QTest::newRow("partly known") << QStringList{"aux0", "lfe", "aux1"} << QList<double>{1, 0, 1};
}

void tst_ChannelLayout::fromNames_weighs()
{
    QFETCH(QStringList, names);
    QFETCH(QList<double>, weights);
    const ChannelLayout layout = ChannelLayout::fromNames(names);
    QVERIFY(layout.isKnown());
    QCOMPARE(weightsOf(layout), weights);
}

void tst_ChannelLayout::weight_followsThePlace_data()
{
    QTest::addColumn<double>("azimuth");
    QTest::addColumn<double>("elevation");
    QTest::addColumn<double>("weight");
    QTest::newRow("front") << 0.0 << 0.0 << 1.0;
    QTest::newRow("59") << 59.0 << 0.0 << 1.0;
    QTest::newRow("60") << 60.0 << 0.0 << 1.41;
    QTest::newRow("-60") << -60.0 << 0.0 << 1.41;
    QTest::newRow("120") << 120.0 << 0.0 << 1.41;
    QTest::newRow("121") << 121.0 << 0.0 << 1.0;
    QTest::newRow("180") << 180.0 << 0.0 << 1.0;
    QTest::newRow("90, 29 above") << 90.0 << 29.0 << 1.41;
    QTest::newRow("90, 30 above") << 90.0 << 30.0 << 1.0;
    QTest::newRow("90, 29 below") << 90.0 << -29.0 << 1.41;
    QTest::newRow("90, 30 below") << 90.0 << -30.0 << 1.0;
}

void tst_ChannelLayout::weight_followsThePlace()
{
    QFETCH(double, azimuth);
    QFETCH(double, elevation);
    QFETCH(double, weight);
    const ChannelLayout layout({{ChannelPosition::Speaker, azimuth, elevation}});
    QCOMPARE(layout.weight(0), weight);
    QCOMPARE(layout.position(0).azimuth, azimuth);
}

void tst_ChannelLayout::names_notKnown()
{
    const ChannelLayout layout =
        ChannelLayout::fromNames({"aux0", "", "M+999", "X+030", "front", "M030", "%1", "M+ 30"});
    QCOMPARE(layout.count(), 8);
    QVERIFY(!layout.isKnown());
    QCOMPARE(weightsOf(layout), QList<double>(8, 1.0));
}

QTEST_GUILESS_MAIN(tst_ChannelLayout)
#include "tst_channel_layout.moc"
