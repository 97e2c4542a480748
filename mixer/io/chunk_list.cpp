// SPDX-License-Identifier: MIT
#include <mixer/io/chunk_list_p.h>

#include <QtCore/QtGlobal>

#include <algorithm>
#include <bit>
#include <limits>

namespace QTovelMixer {

namespace {

static_assert(std::numeric_limits<double>::is_iec559);
constexpr int mantissaBits = 52;
constexpr quint64 exponentBias = 1023;

double length(const Range &range) noexcept
{
    return range.end - range.start;
}

template <typename T>
void grow(std::vector<T> &list, std::size_t count)
{
    if (list.capacity() < count)
        list.reserve(std::max(count, 2 * list.capacity()));
}

} // namespace

ChunkList::Stride::Stride(const Range *chunks) noexcept
{
    std::array<std::array<double, 2>, powers> largest;
    for (std::size_t power = 0; power < powers; ++power) {
        const quint64 next = (exponentBias + power + 1) << mantissaBits;
        largest[power] = {std::bit_cast<double>(next - 2), std::bit_cast<double>(next - 1)};
    }
    std::array<std::array<double, 2>, powers> rest = largest;
    for (std::size_t i = 0; i < strideLength; ++i) {
        const double taken = length(chunks[i]);
        for (auto &pair : rest) {
            pair[0] -= taken;
            pair[1] -= taken;
        }
    }
    for (std::size_t power = 0; power < powers; ++power) {
        const double lowest = std::bit_cast<double>((exponentBias + power) << mantissaBits);
        for (std::size_t odd = 0; odd < 2; ++odd) {
            const bool stayed = rest[power][odd] > lowest;
            m_taken[power][odd] = stayed ? largest[power][odd] - rest[power][odd]
                                         : std::numeric_limits<double>::infinity();
        }
    }
}

inline double ChunkList::Stride::after(double rel) const noexcept
{
    const quint64 bits = std::bit_cast<quint64>(rel);
    const quint64 exponent = bits >> mantissaBits; // with the sign
    const quint64 power = exponent - exponentBias;
    if (power >= powers)
        return -1.0;
    const double rest = rel - m_taken[power][bits & 1];
    return rest > std::bit_cast<double>(exponent << mantissaBits) ? rest : -1.0;
}

void ChunkList::reserve(std::size_t count)
{
    grow(m_ranges, count);
    grow(m_starts, count);
    grow(m_strides, count / strideLength);
}

void ChunkList::append(const Range &chunk) noexcept
{
    Q_ASSERT(m_ranges.size() < m_ranges.capacity());
    m_ranges.push_back(chunk);
    m_starts.push_back(m_total);
    m_total += length(chunk);
    if (m_ranges.size() % strideLength == 0)
        m_strides.emplace_back(m_ranges.data() + (m_ranges.size() - strideLength));
}

void ChunkList::truncate(std::size_t count) noexcept
{
    if (count >= m_ranges.size())
        return;
    m_total = m_starts[count];
    m_ranges.resize(count);
    m_starts.resize(count);
    m_strides.erase(m_strides.begin() + std::ptrdiff_t(count / strideLength), m_strides.end());
}

const Range *ChunkList::find(double &rel) const noexcept
{
    std::size_t i = 0;
    for (const Stride &stride : m_strides) {
        const double rest = stride.after(rel);
        if (rest > 0.0) {
            rel = rest;
            i += strideLength;
            continue;
        }
        for (const std::size_t end = i + strideLength; i < end; ++i) {
            if (!(rel >= length(m_ranges[i])))
                return &m_ranges[i];
            rel -= length(m_ranges[i]);
        }
    }
    for (; i < m_ranges.size(); ++i) {
        if (!(rel >= length(m_ranges[i])))
            return &m_ranges[i];
        rel -= length(m_ranges[i]);
    }
    return nullptr;
}

} // namespace QTovelMixer
