// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_FUZZ_BYTES_H
#define QTOVELMIXER_FUZZ_BYTES_H

#include <QtCore/QByteArray>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Fuzz {

/// Takes an input apart from front to back. Behind its end everything is 0.
class Bytes
{
public:
    Bytes(const std::uint8_t *data, std::size_t size) : m_next(data), m_left(size) {}

    bool atEnd() const { return m_left == 0; }

    /// A number of fixed width in the machine's order.
    template <typename T>
    T take()
    {
        T value{};
        const std::size_t taken = std::min(sizeof(T), m_left);
        if (taken > 0)
            std::memcpy(&value, m_next, taken);
        advance(taken);
        return value;
    }

    /// A number below `count`, which is at most 65536.
    int below(int count)
    {
        return (count <= 256 ? int(take<std::uint8_t>()) : int(take<std::uint16_t>())) % count;
    }

    /// Up to `most` bytes.
    QByteArray text(std::size_t most)
    {
        const std::size_t taken = std::min(most, m_left);
        const QByteArray result(reinterpret_cast<const char *>(m_next), qsizetype(taken));
        advance(taken);
        return result;
    }

    QByteArray rest() { return text(m_left); }

private:
    void advance(std::size_t count)
    {
        m_next += count;
        m_left -= count;
    }

    const std::uint8_t *m_next;
    std::size_t m_left;
};

} // namespace Fuzz

#endif
