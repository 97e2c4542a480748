// SPDX-License-Identifier: MIT
#include <mixer/gain_matrix_p.h>

#include <algorithm>
#include <bit>

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
    for (unsigned row = 0; row < size; ++row) {
        std::fill_n(gain[row], size, 0.0f);
        std::fill_n(enable[row], size, 1.0f);
    }
}

void GainMatrix::set(unsigned row0, unsigned rows, unsigned column0, unsigned columns, float factor,
                     const float *table) noexcept
{
    for (unsigned r = 0; r < inside(row0, rows); ++r) {
        for (unsigned c = 0; c < inside(column0, columns); ++c) {
            gain[row0 + r][column0 + c] = table[std::size_t(r) * columns + c] * factor;
            enable[row0 + r][column0 + c] = 1.0f;
        }
    }
}

void GainMatrix::setMask(unsigned row0, unsigned rows, unsigned column0, unsigned columns,
                         quint64 mask) noexcept
{
    if (rows < 1 || rows > 32 || columns < 1 || columns > 32 || std::popcount(mask) > 32)
        return;
    for (unsigned r = 0; r < inside(row0, rows); ++r) {
        const float on = (mask >> r) & 1 ? 1.0f : 0.0f;
        std::fill_n(enable[row0 + r] + column0, inside(column0, columns), on);
    }
}

void GainMatrix::removeRows(unsigned first, unsigned count) noexcept
{
    first = std::min(first, size);
    count = inside(first, count);
    for (unsigned row = first; row < size; ++row) {
        if (row + count < size)
            std::copy_n(gain[row + count], size, gain[row]);
        else
            std::fill_n(gain[row], size, 0.0f);
    }
}

void GainMatrix::removeColumns(unsigned first, unsigned count) noexcept
{
    first = std::min(first, size);
    count = inside(first, count);
    for (unsigned row = 0; row < size; ++row) {
        float *const numbers = gain[row];
        std::move(numbers + first + count, numbers + size, numbers + first);
        std::fill_n(numbers + size - count, count, 0.0f);
    }
}

void GainMatrix::setCell(unsigned row, unsigned column, float value) noexcept
{
    if (row < size && column < size)
        gain[row][column] = value;
}

} // namespace QTovelMixer
