// SPDX-License-Identifier: MIT
// The ring, with and without mirrored memory, against a queue of bytes.
#include <base/ringbuffer_p.h>

#include "bytes.h"
#include "require.h"

#include <deque>

using QTovelMixer::MirroredMemory;

namespace {

/// A ring and what must be in it.
class Pair
{
public:
    Pair(int capacity, MirroredMemory::Way way)
        : m_ring(QTovelMixer::createRing(capacity, way)), m_capacity(capacity)
    {
        Fuzz::require(m_ring, "there is memory for a small ring");
    }
    ~Pair() { BLRINGBUFFER_Destroy(&m_ring); }
    Q_DISABLE_COPY_MOVE(Pair)

    void produce(int bytes)
    {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(m_ring);
        const int committed = std::min(bytes, int(slice.length));
        for (int i = 0; i < committed; ++i) {
            slice.data[i] = ++m_letter;
            m_model.push_back(m_letter);
        }
        BLRINGBUFFER_Produce(m_ring, bytes);
        m_written += quint64(committed);
    }
    void withdraw(int bytes)
    {
        const int gone = std::min(bytes, int(m_model.size()));
        m_model.resize(m_model.size() - std::size_t(gone));
        BLRINGBUFFER_Produce(m_ring, -bytes);
        m_written -= quint64(gone);
    }
    void consume(int bytes)
    {
        const int gone = std::max(0, std::min(bytes, int(m_model.size())));
        m_model.erase(m_model.begin(), m_model.begin() + gone);
        BLRINGBUFFER_Consume(m_ring, bytes);
        m_read += quint64(gone);
    }
    void flush()
    {
        m_model.clear();
        BLRINGBUFFER_Flush(m_ring);
        m_written = 0;
        m_read = 0;
    }

    void check() const
    {
        const BLRINGBUFFER_Slice in = BLRINGBUFFER_GetWriteSlice(m_ring);
        const BLRINGBUFFER_Slice out = BLRINGBUFFER_GetReadSlice(m_ring);
        const int fill = int(m_model.size());
        Fuzz::require(BLRINGBUFFER_FillCount(m_ring) == fill, "the fill count is right");
        Fuzz::require(in.length == m_capacity - fill && in.position == m_written,
                      "the write slice is right");
        Fuzz::require(out.length == fill && out.position == m_read, "the read slice is right");
        Fuzz::require(std::equal(m_model.begin(), m_model.end(), out.data),
                      "bytes come out as they went in");
    }

private:
    BLRINGBUFFER *m_ring;
    int m_capacity;
    std::deque<char> m_model;
    char m_letter = 0;
    quint64 m_written = 0;
    quint64 m_read = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Fuzz::Bytes bytes(data, size);
    const int way = bytes.below(4);
    const int capacity = bytes.take<std::uint16_t>() % (way == 0 ? 9000 : 300);
    Pair pair(capacity, way == 0 ? MirroredMemory::Mapped : MirroredMemory::Copied);
    pair.check();
    while (!bytes.atEnd()) {
        const int operation = bytes.below(8);
        const int count = operation == 7 ? 0 : bytes.take<std::uint16_t>() % (capacity + 10);
        if (operation < 3)
            pair.produce(count);
        else if (operation < 5)
            pair.consume(count - 5);
        else if (operation < 7)
            pair.withdraw(count);
        else
            pair.flush();
        pair.check();
    }
    return 0;
}
