// SPDX-License-Identifier: MIT
// The library's ring and those of others, to be pushed to and popped from alike.
#ifndef QTOVELMIXER_BENCH_RINGS_H
#define QTOVELMIXER_BENCH_RINGS_H

#include "cases/cases.h"

#include <base/ringbuffer_p.h>

#include <jack/ringbuffer.h>

#include <cstring>

#ifdef QTOVELMIXER_BENCH_BOOST
#include <boost/lockfree/spsc_queue.hpp>
#endif
#ifdef QTOVELMIXER_BENCH_SPA
#include <spa/utils/ringbuffer.h>
#endif

namespace Bench {

inline const QString ringSection = QStringLiteral("C. Ring");
inline const QString ours = QStringLiteral("ours");
inline const QString copies = QStringLiteral("two memcpy");
inline const QString cInterface = QStringLiteral("the C interface");
inline const QString jack = QStringLiteral("JACK behind a header");
inline const QString jackOnPages = QStringLiteral("JACK on pages");
inline const QString pipeWire = QStringLiteral("PipeWire behind a header");
inline const QString pipeWireOnPages = QStringLiteral("PipeWire on pages");
inline const QString boostQueue = QStringLiteral("boost");

constexpr size_t capacity = 131072;
constexpr size_t pageBytes = 4096;
// Volatile, so that copies of it are calls and no instruction made for its size.
inline volatile size_t blockBytes = 256 * 2 * sizeof(float);

/// Where glibc puts a block of this size in a process that has just begun, and a better place: of
/// the first, copies cross cache lines.
enum Place : size_t { BehindAHeader = 16, OnPages = 0 };

template <Place place>
class PlacedMemory
{
public:
    char *data() { return m_bytes + place; }

private:
    alignas(pageBytes) char m_bytes[place + capacity] = {};
};

class OwnedRing
{
protected:
    OwnedRing() : m_ring(BLRINGBUFFER_NewEx(int32_t(capacity), 1)) {}
    ~OwnedRing() { BLRINGBUFFER_Destroy(&m_ring); }
    OwnedRing(const OwnedRing &) = delete;
    OwnedRing &operator=(const OwnedRing &) = delete;

    BLRINGBUFFER *m_ring;
};

/// Bytes in, bytes out; false when there is no room, or not enough. As the library's own threads
/// do it, without calls.
class OurRing : OwnedRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = m_ring->writeSlice();
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(slice.data, from, bytes);
        m_ring->produce(bytes);
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = m_ring->readSlice();
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(to, slice.data, bytes);
        m_ring->consume(bytes);
        return true;
    }
    void keepBooks(size_t bytes)
    {
        BLRINGBUFFER *const ring = m_ring;
        keep(ring->writeSlice().data);
        ring->produce(bytes);
        keep(ring->readSlice().data);
        ring->consume(bytes);
    }
};

/// The same ring as hosts have it.
class OurInterface : OwnedRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(m_ring);
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(slice.data, from, bytes);
        BLRINGBUFFER_Produce(m_ring, int32_t(bytes));
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(m_ring);
        if (size_t(slice.length) < bytes)
            return false;
        std::memcpy(to, slice.data, bytes);
        BLRINGBUFFER_Consume(m_ring, int32_t(bytes));
        return true;
    }
    void keepBooks(size_t bytes)
    {
        BLRINGBUFFER *const ring = m_ring;
        keep(BLRINGBUFFER_GetWriteSlice(ring).data);
        BLRINGBUFFER_Produce(ring, int32_t(bytes));
        keep(BLRINGBUFFER_GetReadSlice(ring).data);
        BLRINGBUFFER_Consume(ring, int32_t(bytes));
    }
};

template <Place place>
class JackRing
{
public:
    JackRing() : m_ring(jack_ringbuffer_create(capacity)), m_own(m_ring->buf)
    {
        m_ring->buf = m_memory.data();
    }
    ~JackRing()
    {
        m_ring->buf = m_own;
        jack_ringbuffer_free(m_ring);
    }
    JackRing(const JackRing &) = delete;
    JackRing &operator=(const JackRing &) = delete;

    bool push(const char *from, size_t bytes)
    {
        return jack_ringbuffer_write_space(m_ring) >= bytes &&
               jack_ringbuffer_write(m_ring, from, bytes) == bytes;
    }
    bool pop(char *to, size_t bytes)
    {
        return jack_ringbuffer_read_space(m_ring) >= bytes &&
               jack_ringbuffer_read(m_ring, to, bytes) == bytes;
    }
    void keepBooks(size_t bytes)
    {
        jack_ringbuffer_t *const ring = m_ring;
        jack_ringbuffer_data_t parts[2];
        jack_ringbuffer_get_write_vector(ring, parts);
        keep(parts[0].buf);
        jack_ringbuffer_write_advance(ring, bytes);
        jack_ringbuffer_get_read_vector(ring, parts);
        keep(parts[0].buf);
        jack_ringbuffer_read_advance(ring, bytes);
    }

private:
    jack_ringbuffer_t *m_ring;
    char *m_own;
    PlacedMemory<place> m_memory;
};

#ifdef QTOVELMIXER_BENCH_BOOST

class BoostRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        const size_t count = bytes / sizeof(float);
        return m_queue.write_available() >= count &&
               m_queue.push(reinterpret_cast<const float *>(from), count) == count;
    }
    bool pop(char *to, size_t bytes)
    {
        const size_t count = bytes / sizeof(float);
        return m_queue.read_available() >= count &&
               m_queue.pop(reinterpret_cast<float *>(to), count) == count;
    }

private:
    boost::lockfree::spsc_queue<float> m_queue{capacity / sizeof(float)};
};

#endif
#ifdef QTOVELMIXER_BENCH_SPA

template <Place place>
class SpaRing
{
public:
    bool push(const char *from, size_t bytes)
    {
        uint32_t index = 0;
        const int32_t filled = spa_ringbuffer_get_write_index(&m_ring, &index);
        if (filled < 0 || size_t(filled) + bytes > capacity)
            return false;
        spa_ringbuffer_write_data(&m_ring, m_memory.data(), uint32_t(capacity),
                                  index % uint32_t(capacity), from, uint32_t(bytes));
        spa_ringbuffer_write_update(&m_ring, int32_t(index + uint32_t(bytes)));
        return true;
    }
    bool pop(char *to, size_t bytes)
    {
        uint32_t index = 0;
        const int32_t filled = spa_ringbuffer_get_read_index(&m_ring, &index);
        if (filled < 0 || size_t(filled) < bytes)
            return false;
        spa_ringbuffer_read_data(&m_ring, m_memory.data(), uint32_t(capacity),
                                 index % uint32_t(capacity), to, uint32_t(bytes));
        spa_ringbuffer_read_update(&m_ring, int32_t(index + uint32_t(bytes)));
        return true;
    }

private:
    PlacedMemory<place> m_memory;
    spa_ringbuffer m_ring = SPA_RINGBUFFER_INIT();
};

#endif

/// Of blocks from thread to thread.
std::vector<Figure> ringFigures();

} // namespace Bench

#endif
