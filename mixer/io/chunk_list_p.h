// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_IO_CHUNK_LIST_P_H
#define QTOVELMIXER_MIXER_IO_CHUNK_LIST_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/types.h>

#include <array>
#include <cstddef>
#include <vector>

namespace QTovelMixer {

/// The stretches that one pass plays, sorted and disjoint, and how far each lies from the start of
/// the pass.
class QTOVELMIXER_HIDDEN ChunkList
{
public:
    /// Chunks that one step of `find` passes over at once.
    static constexpr std::size_t strideLength = 64;

    /// Makes room for `count` chunks; room grows by doubling. Errors: out of memory.
    void reserve(std::size_t count);
    /// Needs room.
    void append(const Range &chunk) noexcept;
    /// Keeps the first `count` chunks.
    void truncate(std::size_t count) noexcept;

    const std::vector<Range> &ranges() const noexcept { return m_ranges; }
    bool isEmpty() const noexcept { return m_ranges.empty(); }
    std::size_t size() const noexcept { return m_ranges.size(); }

    /// Seconds that the chunks before `index` last, added up in their order.
    double startOf(std::size_t index) const noexcept { return m_starts[index]; }
    /// Seconds that all of them last.
    double total() const noexcept { return m_total; }

    /// Takes the length of every chunk that `rel` (seconds of the pass) lies beyond off it, one
    /// after another, and returns the chunk that it then lies in; null behind the last. To the bit
    /// what a loop over all chunks gives. Real-time: yes.
    const Range *find(double &rel) const noexcept QTOVELMIXER_NONBLOCKING;

    /// Strides made so far; one for every `strideLength` chunks.
    std::size_t strideCount() const noexcept { return m_strides.size(); }

private:
    /// What taking off the lengths of `strideLength` chunks, one after another, comes to. As long
    /// as the rest stays between the same two powers of two, every difference is rounded to the
    /// same step, so that the sum depends only on the power and, for ties, which are rounded to
    /// even, on the last bit.
    class Stride
    {
    public:
        explicit Stride(const Range *chunks) noexcept;

        /// The rest of `rel`, or -1 when the chunks have to be taken one by one.
        double after(double rel) const noexcept;

    private:
        static constexpr std::size_t powers = 24; // 1 s to 2^24 s, half a year
        std::array<std::array<double, 2>, powers> m_taken;
    };

    std::vector<Range> m_ranges;
    std::vector<double> m_starts; // seconds from the start of the pass
    std::vector<Stride> m_strides;
    double m_total = 0.0;
};

} // namespace QTovelMixer

#endif
