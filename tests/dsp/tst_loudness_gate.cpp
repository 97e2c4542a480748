// SPDX-License-Identifier: MIT
#include <dsp/loudness_gate_p.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {

double meanSquareOf(double lufs)
{
    return std::pow(10.0, (lufs + 0.691) / 10.0);
}

double lufsOf(double meanSquare)
{
    return -0.691 + 10.0 * std::log10(meanSquare);
}

double mean(const std::vector<double> &values)
{
    double sum = 0.0;
    for (const double value : values)
        sum += value;
    return sum / double(values.size());
}

/// BS.1770-5 Annex 1, with every block kept.
double integratedOf(std::vector<double> blocks)
{
    std::erase_if(blocks, [](double block) { return block <= meanSquareOf(-70.0); });
    const double threshold = mean(blocks) / 10.0;
    std::erase_if(blocks, [threshold](double block) { return block <= threshold; });
    return lufsOf(mean(blocks));
}

/// Tech 3342, 3.1, with every value kept.
double rangeOf(std::vector<double> values)
{
    std::erase_if(values, [](double value) { return value <= meanSquareOf(-70.0); });
    const double threshold = mean(values) / 100.0;
    std::erase_if(values, [threshold](double value) { return value <= threshold; });
    std::sort(values.begin(), values.end());
    const auto at = [&](double part) {
        return lufsOf(values[size_t(std::lround(double(values.size() - 1) * part))]);
    };
    return at(0.95) - at(0.10);
}

} // namespace

class tst_loudness_gate : public QObject
{
    Q_OBJECT

private slots:
    void empty_isSilence();
    void absoluteGate_isExclusive();
    void integrated_isExact_forSteadyBlocks();
    void integrated_equalsAllBlocks_data();
    void integrated_equalsAllBlocks();
    void range_equalsAllValues_data();
    void range_equalsAllValues();
    void range_ofTwoValues();
    void loudest_isTakenIn();
    void clear_forgets();
};

void tst_loudness_gate::empty_isSilence()
{
    const LoudnessGate gate;
    QCOMPARE(gate.integrated(), -120.0);
    QCOMPARE(gate.relativeThreshold(), -120.0);
    QCOMPARE(gate.range().range, 0.0);
    QCOMPARE(gate.range().low, -120.0);
    QCOMPARE(gate.range().high, -120.0);
}

void tst_loudness_gate::absoluteGate_isExclusive()
{
    LoudnessGate gate;
    for (const double meanSquare : {0.0, meanSquareOf(-70.0), meanSquareOf(-71.0), -1.0,
                                    std::numeric_limits<double>::quiet_NaN()}) {
        gate.addBlock(meanSquare);
        gate.addShortTerm(meanSquare);
    }
    QCOMPARE(gate.integrated(), -120.0);
    QCOMPARE(gate.range().low, -120.0);
    gate.addBlock(meanSquareOf(-69.999));
    QVERIFY(std::abs(gate.integrated() + 69.999) < 1e-9);
    QVERIFY(std::abs(gate.relativeThreshold() + 79.999) < 1e-9);
}

void tst_loudness_gate::integrated_isExact_forSteadyBlocks()
{
    // Each level wherever it lies in its step; none of the two is left out.
    for (double level = -69.9; level < 20.0; level += 0.7373) {
        LoudnessGate gate;
        for (int block = 0; block < 100; ++block)
            gate.addBlock(meanSquareOf(level));
        QVERIFY(std::abs(gate.integrated() - level) < 1e-9);
    }
    // A tenth of the time at 9.9 LU below passes, at 10.1 LU below it does not.
    for (const double below : {5.0, 9.0, 9.5, 10.0, 10.5, 15.0}) {
        LoudnessGate gate;
        std::vector<double> blocks;
        for (int block = 0; block < 100; ++block)
            blocks.push_back(meanSquareOf(block < 10 ? -20.0 - below : -20.0));
        for (const double block : blocks)
            gate.addBlock(block);
        QVERIFY(std::abs(gate.integrated() - integratedOf(blocks)) < 1e-9);
    }
}

void tst_loudness_gate::integrated_equalsAllBlocks_data()
{
    QTest::addColumn<double>("mean");
    QTest::addColumn<double>("spread");
    QTest::addColumn<int>("count");
    for (const int count : {1, 5, 100, 10000, 100000})
        for (const double spread : {0.001, 1.0, 10.0, 30.0})
            QTest::addRow("%d within %g LU", count, spread) << -23.0 << spread << count;
}

void tst_loudness_gate::integrated_equalsAllBlocks()
{
    QFETCH(const double, mean);
    QFETCH(const double, spread);
    QFETCH(const int, count);
    std::mt19937 random(unsigned(count) + unsigned(spread));
    std::normal_distribution<double> level(mean, spread);
    LoudnessGate gate;
    std::vector<double> blocks{meanSquareOf(mean)};
    gate.addBlock(blocks.front());
    for (int block = 1; block < count; ++block) {
        blocks.push_back(meanSquareOf(std::min(level(random), 25.0)));
        gate.addBlock(blocks.back());
    }
    constexpr double tolerance = 0.01; // LU, what the header promises
    QVERIFY2(std::abs(gate.integrated() - integratedOf(blocks)) < tolerance,
             QByteArray::number(gate.integrated() - integratedOf(blocks)));
}

void tst_loudness_gate::range_equalsAllValues_data()
{
    integrated_equalsAllBlocks_data();
}

void tst_loudness_gate::range_equalsAllValues()
{
    QFETCH(const double, mean);
    QFETCH(const double, spread);
    QFETCH(const int, count);
    std::mt19937 random(unsigned(count) + unsigned(spread));
    std::normal_distribution<double> level(mean, spread);
    LoudnessGate gate;
    std::vector<double> values{meanSquareOf(mean)};
    gate.addShortTerm(values.front());
    for (int value = 1; value < count; ++value) {
        values.push_back(meanSquareOf(std::min(level(random), 25.0)));
        gate.addShortTerm(values.back());
    }
    constexpr double tolerance = 0.005 + 1e-9; // LU, what the header promises
    const LoudnessGate::Range range = gate.range();
    // Where one value more or less passes the gate, the percentiles stand on neighbours.
    const double neighbours = spread < 20.0 ? 0.0 : 2.0 * spread / std::sqrt(double(count));
    QVERIFY2(std::abs(range.range - rangeOf(values)) <= tolerance + neighbours,
             QByteArray::number(range.range - rangeOf(values)));
    QVERIFY(std::abs(range.high - range.low - range.range) < 1e-9);
}

void tst_loudness_gate::range_ofTwoValues()
{
    // The places of two sorted values: 0.1 rounds to the first, 0.95 to the second.
    LoudnessGate gate;
    gate.addShortTerm(meanSquareOf(-30.0));
    gate.addShortTerm(meanSquareOf(-20.0));
    const LoudnessGate::Range range = gate.range();
    QVERIFY(std::abs(range.low + 30.0) <= 0.0026);
    QVERIFY(std::abs(range.high + 20.0) <= 0.0026);
    // 20 LU below the mean is out of the gate.
    gate.addShortTerm(meanSquareOf(-46.0));
    QVERIFY(std::abs(gate.range().low + 30.0) <= 0.0026);
    gate.addShortTerm(meanSquareOf(-41.0));
    QVERIFY(std::abs(gate.range().low + 41.0) <= 0.0026);
}

void tst_loudness_gate::loudest_isTakenIn()
{
    LoudnessGate gate;
    gate.addBlock(meanSquareOf(600.0));
    gate.addShortTerm(meanSquareOf(600.0));
    QVERIFY(std::abs(gate.integrated() - 600.0) < 1e-6);
    QCOMPARE(gate.range().range, 0.0);
    QVERIFY(gate.range().high > 29.9);
}

void tst_loudness_gate::clear_forgets()
{
    LoudnessGate gate;
    gate.addBlock(meanSquareOf(-10.0));
    gate.addShortTerm(meanSquareOf(-10.0));
    gate.clear();
    QCOMPARE(gate.integrated(), -120.0);
    gate.addBlock(meanSquareOf(-40.0));
    gate.addShortTerm(meanSquareOf(-40.0));
    QVERIFY(std::abs(gate.integrated() + 40.0) < 1e-9);
    QVERIFY(std::abs(gate.range().high + 40.0) <= 0.0026);
}

QTEST_GUILESS_MAIN(tst_loudness_gate)
#include "tst_loudness_gate.moc"
