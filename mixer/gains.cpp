// SPDX-License-Identifier: MIT
#include <mixer/gains.h>

#include <algorithm>
#include <array>
#include <cstddef>

namespace QTovelMixer::Gains {

namespace {

constexpr int builtIn = 8;
// 1 + 2 + … + 8 rows times as many columns: every table after the other.
using Tables = std::array<float, 36 * 36>;

/// Where the table of this shape begins: after all tables of fewer rows, then of fewer columns.
constexpr std::size_t offset(int rows, int columns)
{
    const std::size_t r = std::size_t(rows);
    const std::size_t c = std::size_t(columns);
    return r * (r - 1) / 2 * 36 + r * (c * (c - 1) / 2);
}

/// The fraction as its six-digit decimal says, which is what the tables are known by.
constexpr float sixDigits(int numerator, int denominator)
{
    const int millionths = (2'000'000 * numerator + denominator) / (2 * denominator);
    return float(double(millionths) / 1e6);
}

constexpr float inputGain(int rows, int columns, int row, int column)
{
    if (rows == 1) // a mono input stays away from the low-frequency channel of six
        return columns == 6 && column == 3 ? 0.0f : 1.0f;
    return row == column ? 1.0f : 0.0f;
}

constexpr float outputGain(int rows, int columns, int row, int column)
{
    if (rows <= columns) {
        if (column >= rows)
            return sixDigits(1, rows);
        return row == column ? 1.0f : 0.0f;
    }
    if (row >= columns)
        return sixDigits(1, rows);
    return row == column ? sixDigits(columns, rows) : 0.0f;
}

template <typename Cell>
constexpr Tables makeTables(Cell cell)
{
    Tables tables{};
    for (int rows = 1; rows <= builtIn; ++rows) {
        for (int columns = 1; columns <= builtIn; ++columns) {
            for (int i = 0; i < rows * columns; ++i) {
                tables[offset(rows, columns) + std::size_t(i)] =
                    cell(rows, columns, i / columns, i % columns);
            }
        }
    }
    return tables;
}

constexpr Tables inputTables = makeTables(inputGain);
constexpr Tables outputTables = makeTables(outputGain);

// Down-mixes with a meaning of their own, instead of what the rule would give.
constexpr float fourToTwo[] = {
    0.5f, 0.0f, //
    0.0f, 0.5f, //
    0.5f, 0.0f, //
    0.0f, 0.5f, //
};
constexpr float sixToTwo[] = {
    0.266312f,  0.0f,       //
    0.0f,       0.266312f,  //
    0.188282f,  0.188282f,  //
    0.188282f,  0.188282f,  //
    -0.238083f, -0.119041f, //
    0.119041f,  0.238083f,  //
};
constexpr float sixToFour[] = {
    0.571429f, 0.0f,      0.0f, 0.0f, //
    0.0f,      0.571429f, 0.0f, 0.0f, //
    0.285714f, 0.285714f, 0.0f, 0.0f, //
    0.142857f, 0.142857f, 0.2f, 0.2f, //
    0.0f,      0.0f,      0.8f, 0.0f, //
    0.0f,      0.0f,      0.0f, 0.8f, //
};

const float *fillIdentity(int rows, int columns, float *buffer)
{
    std::fill_n(buffer, std::size_t(rows) * std::size_t(columns), 0.0f);
    for (int i = 0; i < std::min(rows, columns); ++i)
        buffer[std::size_t(i) * std::size_t(columns) + std::size_t(i)] = 1.0f;
    return buffer;
}

const float *fillOnes(int rows, int columns, float *buffer)
{
    std::fill_n(buffer, std::size_t(rows) * std::size_t(columns), 1.0f);
    return buffer;
}

} // namespace

const float *inputMixerGains(int rows, int columns, float *buffer) noexcept
{
    if (rows < 1 || columns < 1)
        return nullptr;
    if (rows <= builtIn && columns <= builtIn)
        return inputTables.data() + offset(rows, columns);
    if (!buffer)
        return nullptr;
    return rows >= columns ? fillIdentity(rows, columns, buffer) : fillOnes(rows, columns, buffer);
}

const float *outputMixerGains(int rows, int columns, float *buffer) noexcept
{
    if (rows < 1 || columns < 1)
        return nullptr;
    if (rows == 4 && columns == 2)
        return fourToTwo;
    if (rows == 6 && columns == 2)
        return sixToTwo;
    if (rows == 6 && columns == 4)
        return sixToFour;
    if (rows <= builtIn && columns <= builtIn)
        return outputTables.data() + offset(rows, columns);
    if (!buffer)
        return nullptr;
    return columns >= rows ? fillIdentity(rows, columns, buffer) : fillOnes(rows, columns, buffer);
}

} // namespace QTovelMixer::Gains
