// SPDX-License-Identifier: MIT
#include <mixer/engine/gain_matrix_p.h>

#include <QtTest/QTest>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <utility>
#include <vector>

using namespace QTovelMixer;

using FloatVector = aligned_vector<float, 16>;

namespace {

constexpr int size = int(GainMatrix::size);

/// Every gain tells where it was written.
void number(GainMatrix &matrix)
{
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            matrix.gain[r][c] = float(1000 * r + c);
    }
}

bool isInside(unsigned i, unsigned first, unsigned count)
{
    return i >= first && i < first + count;
}

/// Inputs, outputs and what the plain loop makes of them.
struct Mix
{
    std::unique_ptr<GainMatrix> matrix = std::make_unique<GainMatrix>();
    std::unique_ptr<MixPlan> plan = std::make_unique<MixPlan>();
    std::vector<FloatVector> inputs;
    std::vector<FloatVector> outputs;
    std::mt19937 random;
    int rows;
    int columns;
    int frames;

    Mix(int rowCount, int columnCount, int frameCount, unsigned seed = 1)
        : random(seed), rows(rowCount), columns(columnCount), frames(frameCount)
    {
        for (int j = 0; j < rows; ++j) {
            inputs.emplace_back(std::size_t(frames));
            for (float &x : inputs.back())
                x = value();
        }
        for (int k = 0; k < columns; ++k)
            outputs.emplace_back(std::size_t(frames));
    }

    float value() { return std::uniform_real_distribution<float>(-1.0f, 1.0f)(random); }
    bool chance(double likely) { return std::bernoulli_distribution(likely)(random); }

    void fillMatrix(double density, double disabled)
    {
        for (int j = 0; j < rows; ++j) {
            for (int k = 0; k < columns; ++k) {
                matrix->gain[j][k] = chance(density) ? value() : 0.0f;
                matrix->enable[j][k] = chance(disabled) ? 0.0f : 1.0f;
            }
        }
    }

    void run()
    {
        for (FloatVector &out : outputs)
            std::fill_n(out.data(), out.capacity(), std::numeric_limits<float>::quiet_NaN());
        plan->rebuild(*matrix, rows, columns);
        plan->mix(inputs.data(), rows, outputs.data(), columns, frames);
    }

    std::vector<float> plainly(int k) const
    {
        std::vector<float> out(std::size_t(frames), 0.0f);
        for (int j = 0; j < rows; ++j) {
            const float gain = matrix->gain[j][k] * matrix->enable[j][k];
            if (gain == 0.0f)
                continue;
            for (int i = 0; i < frames; ++i) {
                const volatile float product = gain * inputs[std::size_t(j)][i];
                out[std::size_t(i)] = out[std::size_t(i)] + product;
            }
        }
        return out;
    }

    /// The first output that is not what the plain loop gives to the bit, or −1.
    int firstWrong() const
    {
        for (int k = 0; k < columns; ++k) {
            const std::vector<float> expected = plainly(k);
            const float *out = outputs[std::size_t(k)].constData();
            if (frames > 0 &&
                std::memcmp(out, expected.data(), expected.size() * sizeof(float)) != 0)
                return k;
            // Never a fifth sample past the end.
            const std::size_t end = (expected.size() + 3) / 4 * 4;
            for (std::size_t i = end; i < outputs[std::size_t(k)].capacity(); ++i) {
                if (out[i] == out[i])
                    return k;
            }
        }
        return -1;
    }
};

} // namespace

class tst_GainMatrix : public QObject
{
    Q_OBJECT

private slots:
    void constructor_leavesEverythingSilentAndEnabled();
    void set_writesTheBlockAndEnablesIt();
    void set_cutsOffAtTheEdge();
    void setMask_switchesWholeRowsOfTheBlock();
    void setMask_refusesOddBlocks();
    void setMask_cutsOffAtTheEdge();
    void setMask_keepsGains_untilSetAgain();
    void removeRows_closesTheGap_data();
    void removeRows_closesTheGap();
    void removeColumns_closesTheGap_data();
    void removeColumns_closesTheGap();
    void setCell_changesOneGain();
    void reset_forgetsEverything();

    void mix_equalsThePlainLoop_data();
    void mix_equalsThePlainLoop();
    void mix_equalsThePlainLoop_forAnyBlockLength();
    void mix_equalsThePlainLoop_forSharedAndLonelyOutputs();
    void mix_givesPositiveZero_fromNegativeZeros();
    void mix_ignoresWhatIsBehindZeroCells();
    void mix_passesNotANumber_throughOpenCells();
    void mix_clears_withoutRows();
    void mix_staysInside_whenBuffersAreWrapped();
    void matches_seesChangesOfUsedCellsOnly();
    void matches_seesSignsAndNotANumber();
    void isFor_seesTheMatrixChanged_data();
    void isFor_seesTheMatrixChanged();
    void follow_mixesAsANewPlan_data();
    void follow_mixesAsANewPlan();
    void follow_needsThePlanOfTheLastChangeButOne();
    void rebuildFor_plansTheCellToCome();
};

void tst_GainMatrix::constructor_leavesEverythingSilentAndEnabled()
{
    const auto matrix = std::make_unique<GainMatrix>();
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c) {
            QCOMPARE(matrix->gain[r][c], 0.0f);
            QCOMPARE(matrix->enable[r][c], 1.0f);
        }
    }
}

void tst_GainMatrix::set_writesTheBlockAndEnablesIt()
{
    const auto matrix = std::make_unique<GainMatrix>();
    number(*matrix);
    for (auto &row : matrix->enable)
        std::fill(std::begin(row), std::end(row), 0.0f);
    const float table[] = {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f};
    matrix->set(3, 2, 10, 3, 0.5f, table);
    for (unsigned r = 0; r < size; ++r) {
        for (unsigned c = 0; c < size; ++c) {
            const bool written = isInside(r, 3, 2) && isInside(c, 10, 3);
            const float gain = written ? table[(r - 3) * 3 + c - 10] * 0.5f : float(1000 * r + c);
            QCOMPARE(matrix->gain[r][c], gain);
            QCOMPARE(matrix->enable[r][c], written ? 1.0f : 0.0f);
        }
    }
}

void tst_GainMatrix::set_cutsOffAtTheEdge()
{
    const auto matrix = std::make_unique<GainMatrix>();
    const float table[] = {1.0f, 2.0f, 3.0f, 4.0f};
    matrix->set(127, 2, 127, 2, 1.0f, table);
    matrix->set(128, 2, 0, 2, 1.0f, table);
    matrix->set(0, 2, std::numeric_limits<unsigned>::max(), 2, 1.0f, table);
    matrix->set(std::numeric_limits<unsigned>::max(), 2, 0, 2, 1.0f, table);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            QCOMPARE(matrix->gain[r][c], r == 127 && c == 127 ? 1.0f : 0.0f);
    }
    matrix->set(127, 2, 125, 2, 1.0f, table);
    QCOMPARE(matrix->gain[127][125], 1.0f);
    QCOMPARE(matrix->gain[127][126], 2.0f);
}

void tst_GainMatrix::setMask_switchesWholeRowsOfTheBlock()
{
    const auto matrix = std::make_unique<GainMatrix>();
    number(*matrix);
    // Bit 7 and above lie outside the block and do not count.
    matrix->setMask(5, 4, 8, 32, 0xf85);
    for (unsigned r = 0; r < size; ++r) {
        for (unsigned c = 0; c < size; ++c) {
            const bool off = (r == 6 || r == 8) && isInside(c, 8, 32);
            QCOMPARE(matrix->enable[r][c], off ? 0.0f : 1.0f);
            QCOMPARE(matrix->gain[r][c], float(1000 * r + c));
        }
    }
    matrix->setMask(5, 4, 8, 32, 0xf);
    QCOMPARE(matrix->enable[6][8], 1.0f);
    matrix->setMask(0, 32, 0, 32, 0);
    QCOMPARE(matrix->enable[31][31], 0.0f);
    QCOMPARE(matrix->enable[32][31], 1.0f);
    QCOMPARE(matrix->enable[31][32], 1.0f);
    matrix->setMask(0, 32, 0, 32, 0xffffffff);
    QCOMPARE(matrix->enable[31][31], 1.0f);
}

void tst_GainMatrix::setMask_refusesOddBlocks()
{
    const auto matrix = std::make_unique<GainMatrix>();
    matrix->setMask(0, 33, 0, 2, 0);
    matrix->setMask(0, 2, 0, 33, 0);
    matrix->setMask(0, 0, 0, 2, 0);
    matrix->setMask(0, 2, 0, 0, 0);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            QCOMPARE(matrix->enable[r][c], 1.0f);
    }
    matrix->setMask(0, 2, 0, 2, 0);
    matrix->setMask(0, 2, 0, 2, (quint64(1) << 33) - 1);
    matrix->setMask(0, 2, 0, 2, ~quint64(0));
    for (int r = 0; r < 2; ++r) {
        for (int c = 0; c < 2; ++c)
            QCOMPARE(matrix->enable[r][c], 0.0f);
    }
}

void tst_GainMatrix::setMask_cutsOffAtTheEdge()
{
    const auto matrix = std::make_unique<GainMatrix>();
    matrix->setMask(127, 32, 127, 32, 0);
    matrix->setMask(4000000000u, 32, 0, 32, 0);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            QCOMPARE(matrix->enable[r][c], r == 127 && c == 127 ? 0.0f : 1.0f);
    }
}

void tst_GainMatrix::setMask_keepsGains_untilSetAgain()
{
    Mix mix(1, 1, 8);
    const float half[] = {0.5f};
    mix.matrix->set(0, 1, 0, 1, 1.0f, half);
    mix.matrix->setMask(0, 1, 0, 1, 0);
    mix.run();
    QCOMPARE(mix.matrix->gain[0][0], 0.5f);
    for (int i = 0; i < 8; ++i)
        QCOMPARE(mix.outputs[0][i], 0.0f);
    mix.matrix->set(0, 1, 0, 1, 1.0f, half);
    mix.run();
    for (int i = 0; i < 8; ++i)
        QCOMPARE(mix.outputs[0][i], mix.inputs[0][i] * 0.5f);
}

void tst_GainMatrix::removeRows_closesTheGap_data()
{
    QTest::addColumn<unsigned>("first");
    QTest::addColumn<unsigned>("count");
    QTest::newRow("in the middle") << 10u << 3u;
    QTest::newRow("at the start") << 0u << 2u;
    QTest::newRow("at the end") << 126u << 2u;
    QTest::newRow("all") << 0u << 128u;
    QTest::newRow("none") << 7u << 0u;
    QTest::newRow("past the end") << 120u << 100u;
    QTest::newRow("outside") << 200u << 1u;
    QTest::newRow("far outside") << 0xffffffffu << 0xffffffffu;
    QTest::newRow("a count that would wrap") << 1u << 0xffffffffu;
}

void tst_GainMatrix::removeRows_closesTheGap()
{
    QFETCH(unsigned, first);
    QFETCH(unsigned, count);
    const auto matrix = std::make_unique<GainMatrix>();
    number(*matrix);
    matrix->setMask(20, 1, 0, 2, 0);
    matrix->removeRows(first, count);
    for (unsigned r = 0; r < size; ++r) {
        for (unsigned c = 0; c < size; ++c) {
            const quint64 from = r < first ? r : quint64(r) + count;
            QCOMPARE(matrix->gain[r][c], from < size ? float(1000 * from + c) : 0.0f);
            QCOMPARE(matrix->enable[r][c], r == 20 && c < 2 ? 0.0f : 1.0f);
        }
    }
}

void tst_GainMatrix::removeColumns_closesTheGap_data()
{
    removeRows_closesTheGap_data();
}

void tst_GainMatrix::removeColumns_closesTheGap()
{
    QFETCH(unsigned, first);
    QFETCH(unsigned, count);
    const auto matrix = std::make_unique<GainMatrix>();
    number(*matrix);
    matrix->setMask(20, 1, 0, 2, 0);
    matrix->removeColumns(first, count);
    for (unsigned r = 0; r < size; ++r) {
        for (unsigned c = 0; c < size; ++c) {
            const quint64 from = c < first ? c : quint64(c) + count;
            QCOMPARE(matrix->gain[r][c], from < size ? float(1000 * r + from) : 0.0f);
            QCOMPARE(matrix->enable[r][c], r == 20 && c < 2 ? 0.0f : 1.0f);
        }
    }
}

void tst_GainMatrix::setCell_changesOneGain()
{
    const auto matrix = std::make_unique<GainMatrix>();
    matrix->setMask(4, 1, 0, 8, 0);
    matrix->setCell(4, 5, 0.75f);
    matrix->setCell(128, 0, 1.0f);
    matrix->setCell(0, 128, 1.0f);
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            QCOMPARE(matrix->gain[r][c], r == 4 && c == 5 ? 0.75f : 0.0f);
    }
    QCOMPARE(matrix->enable[4][5], 0.0f);
}

void tst_GainMatrix::reset_forgetsEverything()
{
    const auto matrix = std::make_unique<GainMatrix>();
    const GainMatrix fresh;
    number(*matrix);
    matrix->setMask(0, 32, 0, 32, 0x55);
    matrix->reset();
    QVERIFY(std::memcmp(matrix->gain, fresh.gain, sizeof fresh.gain) == 0);
    QVERIFY(std::memcmp(matrix->enable, fresh.enable, sizeof fresh.enable) == 0);
}

void tst_GainMatrix::mix_equalsThePlainLoop_data()
{
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("columns");
    QTest::addColumn<int>("frames");
    QTest::addColumn<double>("density");
    QTest::addColumn<double>("disabled");
    QTest::newRow("stereo") << 2 << 2 << 256 << 0.5 << 0.0;
    QTest::newRow("mono to stereo") << 1 << 2 << 256 << 1.0 << 0.0;
    QTest::newRow("many to stereo, dense") << 64 << 2 << 256 << 1.0 << 0.0;
    QTest::newRow("many to stereo, half") << 64 << 2 << 256 << 0.5 << 0.0;
    QTest::newRow("many to mono") << 127 << 1 << 256 << 1.0 << 0.0;
    QTest::newRow("mono to many") << 1 << 127 << 256 << 1.0 << 0.0;
    QTest::newRow("square, dense") << 64 << 64 << 512 << 1.0 << 0.0;
    QTest::newRow("whole, dense") << 128 << 128 << 256 << 1.0 << 0.0;
    QTest::newRow("whole, sparse") << 128 << 128 << 256 << 0.02 << 0.0;
    QTest::newRow("whole, silent") << 128 << 128 << 64 << 0.0 << 0.0;
    QTest::newRow("whole, some disabled") << 128 << 128 << 64 << 0.5 << 0.3;
    QTest::newRow("dense, one cell in a hundred missing") << 40 << 50 << 128 << 0.99 << 0.0;
    QTest::newRow("odd") << 37 << 41 << 441 << 0.3 << 0.1;
    QTest::newRow("no output") << 5 << 0 << 16 << 1.0 << 0.0;
    QTest::newRow("no frame") << 5 << 5 << 0 << 1.0 << 0.0;
}

void tst_GainMatrix::mix_equalsThePlainLoop()
{
    QFETCH(int, rows);
    QFETCH(int, columns);
    QFETCH(int, frames);
    QFETCH(double, density);
    QFETCH(double, disabled);
    for (unsigned seed = 1; seed <= 3; ++seed) {
        Mix mix(rows, columns, frames, seed);
        mix.fillMatrix(density, disabled);
        mix.run();
        QCOMPARE(mix.firstWrong(), -1);
    }
}

void tst_GainMatrix::mix_equalsThePlainLoop_forAnyBlockLength()
{
    for (int frames = 0; frames < 80; ++frames) {
        for (const double density : {0.2, 1.0}) {
            Mix mix(9, 15, frames, unsigned(frames + 1));
            mix.fillMatrix(density, 0.0);
            mix.run();
            QCOMPARE(mix.firstWrong(), -1);
        }
    }
}

// Groups of outputs that hear the same inputs, of every size, between outputs that do not.
void tst_GainMatrix::mix_equalsThePlainLoop_forSharedAndLonelyOutputs()
{
    for (int shared = 0; shared <= 20; ++shared) {
        for (int heard = 0; heard <= 9; ++heard) {
            Mix mix(12, 26, 100, unsigned(shared * 10 + heard + 1));
            mix.fillMatrix(0.4, 0.1);
            for (int o = 0; o < shared; ++o) {
                const int k = (o * 7 + 3) % 26;
                for (int j = 0; j < 12; ++j) {
                    mix.matrix->gain[j][k] = j < heard ? mix.value() : 0.0f;
                    mix.matrix->enable[j][k] = 1.0f;
                }
            }
            mix.run();
            QCOMPARE(mix.firstWrong(), -1);
        }
    }
}

void tst_GainMatrix::mix_givesPositiveZero_fromNegativeZeros()
{
    Mix mix(8, 9, 20);
    for (FloatVector &in : mix.inputs)
        std::fill(in.begin(), in.end(), -0.0f);
    mix.fillMatrix(1.0, 0.0);
    for (auto &row : mix.matrix->gain)
        row[8] = 0.5f;
    mix.run();
    QCOMPARE(mix.firstWrong(), -1);
    for (int i = 0; i < 20; ++i)
        QVERIFY(!std::signbit(mix.outputs[8][i]));
}

void tst_GainMatrix::mix_ignoresWhatIsBehindZeroCells()
{
    for (const int columns : {1, 2, 6, 13}) {
        Mix mix(10, columns, 50, unsigned(columns));
        mix.fillMatrix(1.0, 0.0);
        std::fill(mix.inputs[3].begin(), mix.inputs[3].end(),
                  std::numeric_limits<float>::quiet_NaN());
        std::fill(mix.inputs[4].begin(), mix.inputs[4].end(),
                  std::numeric_limits<float>::infinity());
        for (int k = 0; k < columns; ++k) {
            mix.matrix->gain[3][k] = k % 2 ? 0.0f : -0.0f;
            mix.matrix->enable[4][k] = 0.0f;
        }
        mix.run();
        QCOMPARE(mix.firstWrong(), -1);
        for (const FloatVector &out : mix.outputs) {
            for (const float x : out)
                QVERIFY(std::isfinite(x));
        }
    }
}

void tst_GainMatrix::mix_passesNotANumber_throughOpenCells()
{
    Mix mix(10, 13, 50);
    mix.fillMatrix(1.0, 0.0);
    mix.inputs[7][20] = std::numeric_limits<float>::quiet_NaN();
    mix.matrix->gain[7][12] = 0.0f;
    mix.matrix->gain[1][11] = std::numeric_limits<float>::quiet_NaN();
    mix.run();
    for (int k = 0; k < 13; ++k) {
        for (int i = 0; i < 50; ++i)
            QCOMPARE(std::isnan(mix.outputs[std::size_t(k)][i]), k == 11 || (k != 12 && i == 20));
    }
}

void tst_GainMatrix::mix_clears_withoutRows()
{
    Mix mix(4, 8, 30);
    mix.fillMatrix(1.0, 0.0);
    mix.run();
    mix.plan->mix(nullptr, 0, mix.outputs.data(), mix.columns, mix.frames);
    for (const FloatVector &out : mix.outputs) {
        for (const float x : out)
            QCOMPARE(x, 0.0f);
    }
    QVERIFY(mix.plan->isFor(*mix.matrix, mix.rows, mix.columns));

    mix.rows = 0;
    mix.run();
    QCOMPARE(mix.firstWrong(), -1);
}

void tst_GainMatrix::mix_staysInside_whenBuffersAreWrapped()
{
    constexpr int frames = 21;
    Mix mix(7, 9, frames);
    mix.fillMatrix(1.0, 0.0);
    std::vector<std::vector<float>> memory(9, std::vector<float>(frames + 8, 5.0f));
    for (std::size_t k = 0; k < 9; ++k)
        mix.outputs[k] = FloatVector(memory[k].data() + k % 4, frames, false);
    mix.plan->rebuild(*mix.matrix, mix.rows, mix.columns);
    mix.plan->mix(mix.inputs.data(), mix.rows, mix.outputs.data(), mix.columns, frames);
    for (std::size_t k = 0; k < 9; ++k) {
        const std::vector<float> expected = mix.plainly(int(k));
        QVERIFY(std::equal(expected.begin(), expected.end(), memory[k].begin() + k % 4));
        QCOMPARE(memory[k][k % 4 + frames], 5.0f);
    }

    // An input that ends early counts as far as it goes.
    Mix shorter(2, 1, 16);
    shorter.fillMatrix(1.0, 0.0);
    std::vector<float> few(6, 1.0f);
    shorter.inputs[1] = FloatVector(few.data(), 6, false);
    shorter.run();
    for (int i = 0; i < 16; ++i) {
        const float first = shorter.inputs[0][i] * shorter.matrix->gain[0][0];
        QCOMPARE(shorter.outputs[0][i], i < 6 ? first + shorter.matrix->gain[1][0] : first);
    }
}

void tst_GainMatrix::matches_seesChangesOfUsedCellsOnly()
{
    const auto matrix = std::make_unique<GainMatrix>();
    const auto plan = std::make_unique<MixPlan>();
    plan->rebuild(*matrix, 3, 5);
    QVERIFY(!plan->watchesCells());
    QVERIFY(!plan->matches(*matrix, 3, 5));
    plan->watchCells();
    QVERIFY(plan->watchesCells());
    QVERIFY(!plan->matches(*matrix, 3, 5)); // planned before
    plan->rebuild(*matrix, 3, 5);
    plan->watchCells();
    QVERIFY(plan->matches(*matrix, 3, 5));
    QVERIFY(!plan->matches(*matrix, 3, 4));
    QVERIFY(!plan->matches(*matrix, 2, 5));
    for (int r = 0; r < 8; ++r) {
        for (int c = 0; c < 20; ++c) {
            const bool used = r < 3 && c < 5;
            matrix->gain[r][c] = 0.5f;
            QCOMPARE(plan->matches(*matrix, 3, 5), !used);
            matrix->gain[r][c] = 0.0f;
            QVERIFY(plan->matches(*matrix, 3, 5));
            matrix->enable[r][c] = 0.0f;
            QCOMPARE(plan->matches(*matrix, 3, 5), !used);
            matrix->enable[r][c] = 1.0f;
        }
    }
    plan->rebuild(*matrix, 128, 128);
    QVERIFY(plan->matches(*matrix, 128, 128));
    matrix->gain[127][127] = 1.0f;
    QVERIFY(!plan->matches(*matrix, 128, 128));
}

void tst_GainMatrix::matches_seesSignsAndNotANumber()
{
    const auto matrix = std::make_unique<GainMatrix>();
    const auto plan = std::make_unique<MixPlan>();
    plan->watchCells();
    matrix->gain[1][1] = std::numeric_limits<float>::quiet_NaN();
    plan->rebuild(*matrix, 2, 2);
    QVERIFY(plan->matches(*matrix, 2, 2));
    matrix->gain[0][0] = -0.0f;
    QVERIFY(!plan->matches(*matrix, 2, 2));
}

void tst_GainMatrix::isFor_seesTheMatrixChanged_data()
{
    QTest::addColumn<std::function<void(GainMatrix &)>>("change");
    const auto row = [](const char *name, std::function<void(GainMatrix &)> change) {
        QTest::newRow(name) << std::move(change);
    };
    static constexpr float one[] = {1.0f};
    row("set", [](GainMatrix &m) { m.set(1, 1, 1, 1, 0.5f, one); });
    row("setMask", [](GainMatrix &m) { m.setMask(1, 1, 1, 1, 0); });
    row("setCell", [](GainMatrix &m) { m.setCell(1, 1, 0.5f); });
    row("removeRows", [](GainMatrix &m) { m.removeRows(1, 1); });
    row("removeColumns", [](GainMatrix &m) { m.removeColumns(1, 1); });
    row("reset", [](GainMatrix &m) { m.reset(); });
}

void tst_GainMatrix::isFor_seesTheMatrixChanged()
{
    QFETCH(const std::function<void(GainMatrix &)>, change);
    const auto matrix = std::make_unique<GainMatrix>();
    const auto plan = std::make_unique<MixPlan>();
    plan->rebuild(*matrix, 3, 5);
    QVERIFY(plan->isFor(*matrix, 3, 5));
    QVERIFY(!plan->isFor(*matrix, 3, 4));
    QVERIFY(!plan->isFor(*matrix, 2, 5));
    change(*matrix);
    QVERIFY(!plan->isFor(*matrix, 3, 5));
    plan->rebuild(*matrix, 3, 5);
    QVERIFY(plan->isFor(*matrix, 3, 5));
}

void tst_GainMatrix::follow_mixesAsANewPlan_data()
{
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("columns");
    QTest::addColumn<double>("density");
    QTest::addColumn<double>("zeros"); // of the changes
    QTest::addColumn<bool>("watched");
    QTest::newRow("dense groups and a rest") << 20 << 15 << 1.0 << 0.0 << false;
    QTest::newRow("sets of many shapes") << 16 << 16 << 0.5 << 0.2 << false;
    QTest::newRow("few inputs") << 3 << 7 << 0.7 << 0.2 << false;
    QTest::newRow("everything") << 128 << 128 << 1.0 << 0.01 << false;
    QTest::newRow("watched") << 9 << 13 << 0.8 << 0.2 << true;
}

void tst_GainMatrix::follow_mixesAsANewPlan()
{
    QFETCH(const int, rows);
    QFETCH(const int, columns);
    QFETCH(const double, density);
    QFETCH(const double, zeros);
    QFETCH(const bool, watched);
    Mix mix(rows, columns, 40);
    mix.fillMatrix(density, density < 1.0 ? 0.1 : 0.0);
    if (watched)
        mix.plan->watchCells();
    mix.run();
    int followed = 0;
    for (int change = 0; change < 400; ++change) {
        // Beside the planned cells as well.
        const unsigned row = unsigned(mix.random() % unsigned(std::min(rows + 1, size)));
        const unsigned column = unsigned(mix.random() % unsigned(std::min(columns + 1, size)));
        const float before = mix.matrix->gain[row][column] * mix.matrix->enable[row][column];
        mix.matrix->setCell(row, column, mix.chance(zeros) ? 0.0f : mix.value());
        const float after = mix.matrix->gain[row][column] * mix.matrix->enable[row][column];
        const bool isPlanned = int(row) < rows && int(column) < columns;
        const bool follows = mix.plan->follow(*mix.matrix, row, column);
        QCOMPARE(follows, !isPlanned || (before != 0.0f) == (after != 0.0f));
        QCOMPARE(mix.plan->isFor(*mix.matrix, rows, columns), follows);
        followed += follows && isPlanned && before != after;
        if (!follows)
            mix.plan->rebuild(*mix.matrix, rows, columns);
        if (watched)
            QVERIFY(mix.plan->matches(*mix.matrix, rows, columns));
        mix.plan->mix(mix.inputs.data(), rows, mix.outputs.data(), columns, mix.frames);
        if (change % 16 == 0 || change > 380)
            QCOMPARE(mix.firstWrong(), -1);
    }
    QVERIFY(followed > 30);
}

void tst_GainMatrix::follow_needsThePlanOfTheLastChangeButOne()
{
    Mix mix(4, 4, 16);
    mix.fillMatrix(1.0, 0.0);
    mix.run();
    mix.matrix->setCell(1, 1, 0.5f);
    mix.matrix->setCell(2, 2, 0.5f);
    QVERIFY(!mix.plan->follow(*mix.matrix, 2, 2));
    mix.plan->rebuild(*mix.matrix, 4, 4);
    QVERIFY(!mix.plan->follow(*mix.matrix, 2, 2)); // nothing to follow
}

void tst_GainMatrix::rebuildFor_plansTheCellToCome()
{
    Mix mix(6, 8, 24);
    mix.fillMatrix(0.6, 0.0);
    mix.plan->watchCells();
    mix.run();
    for (int change = 0; change < 60; ++change) {
        const unsigned row = unsigned(mix.random() % 6);
        const unsigned column = unsigned(mix.random() % 8);
        const float gain = mix.chance(0.5) ? 0.0f : mix.value();
        mix.plan->rebuildFor(*mix.matrix, 6, 8, {row, column, gain});
        QVERIFY(!mix.plan->isFor(*mix.matrix, 6, 8));
        mix.matrix->setCell(row, column, gain);
        QVERIFY(mix.plan->isFor(*mix.matrix, 6, 8));
        QVERIFY(mix.plan->matches(*mix.matrix, 6, 8));
        mix.plan->mix(mix.inputs.data(), 6, mix.outputs.data(), 8, 24);
        QCOMPARE(mix.firstWrong(), -1);
    }
}

QTEST_GUILESS_MAIN(tst_GainMatrix)
#include "tst_gain_matrix.moc"
