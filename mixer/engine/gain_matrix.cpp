// SPDX-License-Identifier: MIT
#include <mixer/engine/gain_matrix_p.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace QTovelMixer {

namespace {

/// How much of `count` from `first` lies inside the matrix.
unsigned inside(unsigned first, unsigned count) noexcept
{
    return first < GainMatrix::size ? std::min(count, GainMatrix::size - first) : 0;
}

} // namespace

void GainMatrix::reset() noexcept
{
    ++changes;
    std::fill_n(&gain[0][0], size * size, 0.0f);
    std::fill_n(&enable[0][0], size * size, 1.0f);
}

void GainMatrix::set(unsigned row0, unsigned rows, unsigned column0, unsigned columns, float factor,
                     const float *table) noexcept
{
    ++changes;
    for (unsigned r = 0; r < inside(row0, rows); ++r) {
        for (unsigned c = 0; c < inside(column0, columns); ++c) {
            const float product = table[std::size_t(r) * columns + c] * factor;
            gain[row0 + r][column0 + c] = std::isfinite(product) ? product : 0.0f;
            enable[row0 + r][column0 + c] = 1.0f;
        }
    }
}

void GainMatrix::setMask(unsigned row0, unsigned rows, unsigned column0, unsigned columns,
                         quint64 mask) noexcept
{
    ++changes;
    if (rows < 1 || rows > 32 || columns < 1 || columns > 32 || std::popcount(mask) > 32)
        return;
    for (unsigned r = 0; r < inside(row0, rows); ++r) {
        const float on = (mask >> r) & 1 ? 1.0f : 0.0f;
        std::fill_n(enable[row0 + r] + column0, inside(column0, columns), on);
    }
}

void GainMatrix::removeRows(unsigned first, unsigned count) noexcept
{
    ++changes;
    first = std::min(first, size);
    count = inside(first, count);
    const unsigned moved = size - first - count;
    std::memmove(gain + first, gain + first + count, moved * sizeof gain[0]);
    for (unsigned row = size - count; row < size; ++row)
        std::ranges::fill(gain[row], 0.0f);
}

void GainMatrix::removeColumns(unsigned first, unsigned count) noexcept
{
    ++changes;
    first = std::min(first, size);
    count = inside(first, count);
    for (auto &row : gain) {
        std::move(row + first + count, row + size, row + first);
        std::fill_n(row + size - count, count, 0.0f);
    }
}

void GainMatrix::setCell(unsigned row, unsigned column, float value) noexcept
{
    ++changes;
    if (row < size && column < size)
        gain[row][column] = value;
}

} // namespace QTovelMixer
