// SPDX-License-Identifier: MIT
#include <mixer/gains.h>

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

#include <cmath>
#include <vector>

using namespace QTovelMixer;

namespace {

// Fractions n/r as the tables write them: by denominator, then numerator.
constexpr float fractions[9][9] = {
    {},
    {0.0f, 1.0f},
    {0.0f, 0.5f, 1.0f},
    {0.0f, 0.333333f, 0.666667f, 1.0f},
    {0.0f, 0.25f, 0.5f, 0.75f, 1.0f},
    {0.0f, 0.2f, 0.4f, 0.6f, 0.8f, 1.0f},
    {0.0f, 0.166667f, 0.333333f, 0.5f, 0.666667f, 0.833333f, 1.0f},
    {0.0f, 0.142857f, 0.285714f, 0.428571f, 0.571429f, 0.714286f, 0.857143f, 1.0f},
    {0.0f, 0.125f, 0.25f, 0.375f, 0.5f, 0.625f, 0.75f, 0.875f, 1.0f},
};

float outputByRule(int rows, int columns, int row, int column)
{
    if (rows == columns)
        return row == column ? 1.0f : 0.0f;
    if (rows < columns) {
        if (column < rows)
            return row == column ? 1.0f : 0.0f;
        return fractions[rows][1];
    }
    if (row < columns)
        return row == column ? fractions[rows][columns] : 0.0f;
    return fractions[rows][1];
}

float inputByRule(int rows, int columns, int row, int column)
{
    if (rows == 1 && columns == 6)
        return column == 3 ? 0.0f : 1.0f;
    if (rows == 1)
        return 1.0f;
    return row == column ? 1.0f : 0.0f;
}

bool isListed(int rows, int columns)
{
    return (rows == 4 && columns == 2) || (rows == 6 && (columns == 2 || columns == 4));
}

constexpr float untouched = -77.0f;

/// A default matrix as a comment of the header tells it.
struct ToldMatrix
{
    bool toOutputs = false;
    int rows = 0;
    int columns = 0;
    QList<float> gains;
};

/// The table rows of the header, in order. A row whose first cell is empty goes on with the one
/// before.
QList<ToldMatrix> toldMatrices(const QString &header)
{
    static const QRegularExpression row(R"(^/// \| (\d+) x (\d+) \| (.*) \|$|^/// \| \| (.*) \|$)");
    static const QRegularExpression number(R"(-?[0-9.]+)");
    QList<ToldMatrix> told;
    bool toOutputs = false;
    for (const QString &line : header.split('\n')) {
        toOutputs = toOutputs || line.contains("channels x outputs");
        const QRegularExpressionMatch match = row.match(line);
        if (!match.hasMatch())
            continue;
        if (!match.captured(1).isEmpty())
            told.append({toOutputs, match.captured(1).toInt(), match.captured(2).toInt(), {}});
        auto gains = number.globalMatch(match.captured(3) + match.captured(4));
        while (gains.hasNext())
            told.last().gains.append(gains.next().captured().toFloat());
    }
    return told;
}

} // namespace

class tst_Gains : public QObject
{
    Q_OBJECT

private slots:
    void outputMixerGains_followsTheRule_upToEight();
    void outputMixerGains_hasListedDownmixes_data();
    void outputMixerGains_hasListedDownmixes();
    void outputMixerGains_fillsTheBuffer_beyondEight();
    void inputMixerGains_followsTheRule_upToEight();
    void inputMixerGains_keepsMonoFromTheLowFrequencyChannel();
    void inputMixerGains_fillsTheBuffer_beyondEight();
    void builtInTables_needNoBufferAndStay();
    void bothTables_answerNull_withoutChannelsOrBuffer();
    void header_tellsTheTables();
};

void tst_Gains::outputMixerGains_followsTheRule_upToEight()
{
    for (int rows = 1; rows <= 8; ++rows) {
        for (int columns = 1; columns <= 8; ++columns) {
            if (isListed(rows, columns))
                continue;
            const float *table = Gains::outputMixerGains(rows, columns, nullptr);
            QVERIFY(table);
            for (int r = 0; r < rows; ++r) {
                for (int c = 0; c < columns; ++c)
                    QVERIFY2(table[r * columns + c] == outputByRule(rows, columns, r, c),
                             qPrintable(QStringLiteral("%1 to %2, cell %3 %4")
                                            .arg(rows)
                                            .arg(columns)
                                            .arg(r)
                                            .arg(c)));
            }
        }
    }
}

void tst_Gains::outputMixerGains_hasListedDownmixes_data()
{
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("columns");
    QTest::addColumn<QList<float>>("expected");
    QTest::newRow("mono to stereo") << 1 << 2 << QList<float>{1.0f, 1.0f};
    QTest::newRow("stereo to mono") << 2 << 1 << QList<float>{0.5f, 0.5f};
    QTest::newRow("stereo to three") << 2 << 3 << QList<float>{1, 0, 0.5f, 0, 1, 0.5f};
    QTest::newRow("three to stereo")
        << 3 << 2 << QList<float>{0.666667f, 0, 0, 0.666667f, 0.333333f, 0.333333f};
    QTest::newRow("four to stereo") << 4 << 2 << QList<float>{0.5f, 0, 0, 0.5f, 0.5f, 0, 0, 0.5f};
    QTest::newRow("six to stereo")
        << 6 << 2
        << QList<float>{0.266312f, 0,         0,          0.266312f,  0.188282f, 0.188282f,
                        0.188282f, 0.188282f, -0.238083f, -0.119041f, 0.119041f, 0.238083f};
    QTest::newRow("six to four") << 6 << 4
                                 << QList<float>{0.571429f, 0, 0,         0,         0,
                                                 0.571429f, 0, 0,         0.285714f, 0.285714f,
                                                 0,         0, 0.142857f, 0.142857f, 0.2f,
                                                 0.2f,      0, 0,         0.8f,      0,
                                                 0,         0, 0,         0.8f};
}

void tst_Gains::outputMixerGains_hasListedDownmixes()
{
    QFETCH(int, rows);
    QFETCH(int, columns);
    QFETCH(QList<float>, expected);
    const float *table = Gains::outputMixerGains(rows, columns, nullptr);
    QVERIFY(table);
    QCOMPARE(QList<float>(table, table + rows * columns), expected);
}

void tst_Gains::outputMixerGains_fillsTheBuffer_beyondEight()
{
    for (const auto &[rows, columns] :
         {std::pair(9, 2), {9, 9}, {2, 9}, {1, 9}, {128, 2}, {2, 128}, {9, 8}, {8, 9}}) {
        std::vector<float> buffer(std::size_t(rows * columns) + 1, untouched);
        QCOMPARE(Gains::outputMixerGains(rows, columns, buffer.data()), buffer.data());
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < columns; ++c) {
                const float expected = columns < rows || r == c ? 1.0f : 0.0f;
                QCOMPARE(buffer[std::size_t(r * columns + c)], expected);
            }
        }
        QCOMPARE(buffer.back(), untouched);
    }
}

void tst_Gains::inputMixerGains_followsTheRule_upToEight()
{
    for (int rows = 1; rows <= 8; ++rows) {
        for (int columns = 1; columns <= 8; ++columns) {
            const float *table = Gains::inputMixerGains(rows, columns, nullptr);
            QVERIFY(table);
            for (int r = 0; r < rows; ++r) {
                for (int c = 0; c < columns; ++c)
                    QVERIFY2(table[r * columns + c] == inputByRule(rows, columns, r, c),
                             qPrintable(QStringLiteral("%1 to %2, cell %3 %4")
                                            .arg(rows)
                                            .arg(columns)
                                            .arg(r)
                                            .arg(c)));
            }
        }
    }
}

void tst_Gains::inputMixerGains_keepsMonoFromTheLowFrequencyChannel()
{
    const float *table = Gains::inputMixerGains(1, 6, nullptr);
    QVERIFY(table);
    QCOMPARE(QList<float>(table, table + 6), (QList<float>{1, 1, 1, 0, 1, 1}));
}

void tst_Gains::inputMixerGains_fillsTheBuffer_beyondEight()
{
    for (const auto &[rows, columns] :
         {std::pair(9, 2), {9, 9}, {2, 9}, {1, 9}, {128, 2}, {2, 128}, {9, 8}, {8, 9}}) {
        std::vector<float> buffer(std::size_t(rows * columns) + 1, untouched);
        QCOMPARE(Gains::inputMixerGains(rows, columns, buffer.data()), buffer.data());
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < columns; ++c) {
                const float expected = rows < columns || r == c ? 1.0f : 0.0f;
                QCOMPARE(buffer[std::size_t(r * columns + c)], expected);
            }
        }
        QCOMPARE(buffer.back(), untouched);
    }
}

void tst_Gains::builtInTables_needNoBufferAndStay()
{
    float buffer[64];
    std::fill(std::begin(buffer), std::end(buffer), untouched);
    const float *in = Gains::inputMixerGains(8, 8, buffer);
    const float *out = Gains::outputMixerGains(8, 8, buffer);
    QVERIFY(in != buffer && out != buffer);
    QCOMPARE(Gains::inputMixerGains(8, 8, nullptr), in);
    QCOMPARE(Gains::outputMixerGains(8, 8, nullptr), out);
    for (const float x : buffer)
        QCOMPARE(x, untouched);
}

void tst_Gains::bothTables_answerNull_withoutChannelsOrBuffer()
{
    float buffer[256];
    for (const auto &[rows, columns] :
         {std::pair(0, 2), {2, 0}, {0, 0}, {-1, 2}, {2, -1}, {-9, 9}}) {
        QVERIFY(!Gains::inputMixerGains(rows, columns, buffer));
        QVERIFY(!Gains::outputMixerGains(rows, columns, buffer));
    }
    for (const auto &[rows, columns] : {std::pair(9, 2), {2, 9}, {9, 9}}) {
        QVERIFY(!Gains::inputMixerGains(rows, columns, nullptr));
        QVERIFY(!Gains::outputMixerGains(rows, columns, nullptr));
    }
}

void tst_Gains::header_tellsTheTables()
{
    QFile header(GAINS_HEADER);
    QVERIFY(header.open(QIODevice::ReadOnly | QIODevice::Text));
    const QList<ToldMatrix> told = toldMatrices(QString::fromUtf8(header.readAll()));
    int toOutputs = 0;
    for (const ToldMatrix &matrix : told) {
        std::vector<float> buffer(size_t(matrix.rows) * size_t(matrix.columns));
        const auto gains = matrix.toOutputs ? Gains::outputMixerGains : Gains::inputMixerGains;
        const float *table = gains(matrix.rows, matrix.columns, buffer.data());
        QCOMPARE(matrix.gains,
                 QList<float>(table, table + qsizetype(matrix.rows) * matrix.columns));
        toOutputs += matrix.toOutputs ? 1 : 0;
    }
    QCOMPARE(toOutputs, 17);
    QCOMPARE(int(told.size()) - toOutputs, 10);
}

QTEST_GUILESS_MAIN(tst_Gains)
#include "tst_gains.moc"
