// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_RESAMPLE_FILTER_P_H
#define QTOVELMIXER_DSP_RESAMPLE_FILTER_P_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace QTovelMixer {

/// Memory on cache-line boundaries: no aligned vector of coefficients lies in two lines.
template <typename T>
struct CacheLineAllocator
{
    using value_type = T;
    static constexpr std::align_val_t line{64};

    CacheLineAllocator() = default;
    template <typename U>
    CacheLineAllocator(const CacheLineAllocator<U> & /*other*/) noexcept
    {}
    T *allocate(std::size_t count)
    {
        return static_cast<T *>(::operator new(count * sizeof(T), line));
    }
    void deallocate(T *memory, std::size_t /*count*/) noexcept { ::operator delete(memory, line); }
    friend bool operator==(const CacheLineAllocator &, const CacheLineAllocator &) = default;
};

/// The coefficients of one pair of rates, one row per phase. Immutable once built, shared by every
/// converter of the pair.
///
/// Output frame n lies at input time n · step / phases. Its window ends `half` frames after the
/// input frame at or before that time.
///
/// Where there is a row for each phase, rows lie in the order in which output frames need them, and
/// four of them make a block that looks at the input together: the rows of the later three begin
/// with as many zeros as their windows begin later. Element k of row i of a block stands at
/// (k / 8 · 4 + i) · 8 + k % 8 behind the block's beginning.
struct ResampleFilter
{
    static constexpr int rowsPerBlock = 4;

    int64_t phases = 1; ///< output rate / greatest common divisor
    int64_t step = 1;   ///< input rate / greatest common divisor
    /// Input frames on each side of an output frame. With interpolated rows a multiple of 4.
    int half = 0;
    /// 0: there is a row for each phase. Otherwise the number of equal parts into which one input
    /// frame is cut; rows are then interpolated, and one more row closes the last part.
    int64_t parts = 0;
    /// Output frames after which rows repeat, a multiple of `phases`. With a row for each phase:
    int64_t cycle = 1;
    int depth = 0; ///< input frames that a block looks at: the taps and the most zeros, rounded up
    int lead = 0;  ///< the most zeros that a row begins with, rounded up
    std::vector<float, CacheLineAllocator<float>> rows;

    /// Coefficients of a window.
    int taps() const noexcept { return 2 * half; }
    /// Input frames from the window of the cycle's first output frame to that of its n-th.
    int64_t windowOf(int64_t position) const noexcept { return position * step / phases; }
    /// How far the output frame lies behind the input frame before it, in parts of `phases`.
    int64_t phaseOf(int64_t position) const noexcept { return position * step % phases; }
    int64_t blocks() const noexcept { return (cycle + rowsPerBlock - 1) / rowsPerBlock; }
    const float *block(int64_t index) const noexcept
    {
        return rows.data() + index * rowsPerBlock * depth;
    }

    /// Builds the filter; rates are positive.
    static std::shared_ptr<const ResampleFilter> build(int32_t inRate, int32_t outRate);
    /// The same from a process-wide store of the pairs used last.
    static std::shared_ptr<const ResampleFilter> shared(int32_t inRate, int32_t outRate);
};

} // namespace QTovelMixer

#endif
