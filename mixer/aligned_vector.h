// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ALIGNED_VECTOR_H
#define QTOVELMIXER_MIXER_ALIGNED_VECTOR_H

#include <base/export.h>
#include <base/nonblocking.h>

#include <cstddef>
#include <memory>

namespace QTovelMixer {

struct BufferAccess;

/// A handle onto a shared block of samples, in which all audio travels.
///
/// Copying a handle shares the block: what is written through one handle is read through the
/// others. The last handle to go frees the storage that the block allocated; wrapped memory is
/// never freed. Instances exist for `<float, 16>` and `<short, 16>`.
///
/// The arithmetic works in groups of four samples and may touch up to three samples past `size()`,
/// never past `capacity()`. Everything else is exact to the sample.
///
/// Threads: any, one at a time per block. Real-time: yes, except constructors and the release of
/// the last handle.
template <typename T, unsigned Alignment>
class aligned_vector
{
public:
    /// Samples that every allocated block keeps behind the last one asked for.
    static constexpr std::size_t spareSamples = 32;

    /// No storage: `data()` is null, `size()` 0.
    aligned_vector();

    /// Allocates `n` samples and the spare ones, all zero. Real-time: no.
    explicit aligned_vector(std::size_t n);

    /// Wraps `n` samples at `p`, which stay the caller's and must outlive every handle; size and
    /// capacity are `n`. Only when `p` is not aligned and `copy` is true the samples are copied
    /// into storage of its own. Real-time: only without the copy's allocation.
    aligned_vector(T *p, std::size_t n, bool copy);

    aligned_vector(const aligned_vector &) noexcept = default;
    aligned_vector &operator=(const aligned_vector &) noexcept = default;
    ~aligned_vector() = default;

    /// Samples in use.
    std::size_t size() const noexcept { return block->size; }
    /// Samples that may be touched.
    std::size_t capacity() const noexcept { return block->capacity; }

    T *data() noexcept { return block->data; }
    const T *data() const noexcept { return block->data; }
    const T *constData() const noexcept { return block->data; }
    T *begin() noexcept { return block->data; }
    const T *begin() const noexcept { return block->data; }
    T *end() noexcept { return block->data + block->size; }
    const T *end() const noexcept { return block->data + block->size; }
    /// No bounds check.
    T &operator[](int index) noexcept { return block->data[index]; }
    const T &operator[](int index) const noexcept { return block->data[index]; }

    /// Clears exactly `size()` samples.
    void zero() noexcept QTOVELMIXER_NONBLOCKING;
    /// Clears the samples from `from` up to but not including min(size, `to`). Does nothing when
    /// `from` is not below the size or `to` is below `from`.
    void zero(std::size_t from, std::size_t to) noexcept QTOVELMIXER_NONBLOCKING;
    /// Copies the samples of `other`, as many as it has, whatever the size of this vector; stops at
    /// the capacity.
    void copyContents(const aligned_vector &other) noexcept QTOVELMIXER_NONBLOCKING;

    /// Sets every sample.
    aligned_vector &operator=(T value) noexcept QTOVELMIXER_NONBLOCKING;
    /// Adds to every sample.
    aligned_vector &operator+=(T value) noexcept QTOVELMIXER_NONBLOCKING;
    /// Multiplies every sample.
    aligned_vector &operator*=(T value) noexcept QTOVELMIXER_NONBLOCKING;
    /// Adds element by element over the smaller size of the two.
    aligned_vector &operator+=(const aligned_vector &other) noexcept QTOVELMIXER_NONBLOCKING;
    /// Multiplies element by element over the smaller size of the two.
    aligned_vector &operator*=(const aligned_vector &other) noexcept QTOVELMIXER_NONBLOCKING;
    /// Adds `gain` × `x`, element by element over the size of this vector. Multiplies and adds in
    /// two roundings, so that the result is the same on every machine.
    void madd(T gain, const aligned_vector &x) noexcept QTOVELMIXER_NONBLOCKING;

private:
    friend struct BufferAccess;

    struct Block
    {
        void *raw = nullptr; // what the block owns; null when it wraps foreign memory
        T *data = nullptr;
        std::size_t size = 0;
        std::size_t capacity = 0;

        Block() = default;
        Block(const Block &) = delete;
        Block &operator=(const Block &) = delete;
        ~Block();

        void allocate(std::size_t n);
    };

    /// `count` rounded up to whole groups of four, within the capacity.
    std::size_t groups(std::size_t count) const noexcept QTOVELMIXER_NONBLOCKING;

    std::shared_ptr<Block> block;
};

extern template class QTOVELMIXER_EXPORT aligned_vector<float, 16>;
extern template class QTOVELMIXER_EXPORT aligned_vector<short, 16>;

} // namespace QTovelMixer

#endif
