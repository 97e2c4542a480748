// SPDX-License-Identifier: MIT
// Thousands of random operations, in an order that no host would choose, with everything that
// must always hold checked after each.
#include <support/random_operations.h>

#include <QtTest/QTest>

#include <random>

using namespace QTovelMixer;

namespace {

constexpr int operations = 3000;

} // namespace

class tst_RandomTransport : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void everyInvariantHolds_afterEveryOperation_data();
    void everyInvariantHolds_afterEveryOperation();
};

void tst_RandomTransport::everyInvariantHolds_afterEveryOperation_data()
{
    QTest::addColumn<unsigned>("seed");
    for (const unsigned seed : {1u, 20040517u, 777u})
        QTest::addRow("seed %u", seed) << seed;
}

void tst_RandomTransport::everyInvariantHolds_afterEveryOperation()
{
    QFETCH(unsigned, seed);
    std::mt19937 random(seed);
    const auto below = [&random](int count) { return int(random() % unsigned(count)); };
    RandomOperations mixer(below);
    for (int i = 0; i < operations / 3; ++i) {
        mixer.operate();
        if (const QString fault = mixer.fault(); !fault.isEmpty())
            QFAIL(qPrintable(QString("step %1, %2").arg(QString::number(i), fault)));
        mixer.session().runWithoutWaiting(below(3));
    }
    QCOMPARE(mixer.end(), QString());
}

QTEST_GUILESS_MAIN(tst_RandomTransport)
#include "tst_random_transport.moc"
