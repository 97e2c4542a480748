// SPDX-License-Identifier: MIT
#include <mixer/aligned_vector.h>

#include <dsp/kernels_p.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

namespace QTovelMixer {

namespace {

// A cache line, and more than the vectors of any machine need.
constexpr std::align_val_t storageAlignment{64};

using Kernels::add;
using Kernels::fill;
using Kernels::multiply;
using Kernels::multiplyAdd;

// Nothing mixes integers, so that plain loops will do for them. Sums wrap around.
void fill(short *x, std::size_t count, short value) noexcept
{
    std::fill_n(x, count, value);
}

void add(short *x, std::size_t count, short value) noexcept
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = short(x[i] + value);
}

void multiply(short *x, std::size_t count, short value) noexcept
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = short(x[i] * value);
}

void add(short *x, const short *y, std::size_t count) noexcept
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = short(x[i] + y[i]);
}

void multiply(short *x, const short *y, std::size_t count) noexcept
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = short(x[i] * y[i]);
}

void multiplyAdd(short *x, short gain, const short *y, std::size_t count) noexcept
{
    for (std::size_t i = 0; i < count; ++i)
        x[i] = short(x[i] + gain * y[i]);
}

} // namespace

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment>::Block::~Block()
{
    ::operator delete(raw, storageAlignment);
}

template <typename T, unsigned Alignment>
void aligned_vector<T, Alignment>::Block::allocate(std::size_t n)
{
    if (n > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(T) - spareSamples)
        throw std::bad_alloc();
    const std::size_t samples = n + spareSamples;
    raw = ::operator new(samples * sizeof(T), storageAlignment);
    // Nothing to add with the alignment above; the rule holds for any allocator.
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(raw) % Alignment;
    data = reinterpret_cast<T *>(static_cast<unsigned char *>(raw) + offset);
    size = n;
    capacity = samples;
    // Also brings the pages in before the audio thread sees them.
    std::memset(data, 0, samples * sizeof(T));
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment>::aligned_vector() : block(std::make_shared<Block>())
{}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment>::aligned_vector(std::size_t n) : aligned_vector()
{
    block->allocate(n);
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment>::aligned_vector(T *p, std::size_t n, bool copy) : aligned_vector()
{
    if (copy && reinterpret_cast<std::uintptr_t>(p) % Alignment != 0) {
        block->allocate(n);
        std::memcpy(block->data, p, n * sizeof(T));
    } else {
        block->data = p;
        block->size = n;
        block->capacity = n;
    }
}

template <typename T, unsigned Alignment>
void aligned_vector<T, Alignment>::zero() noexcept
{
    if (block->data)
        std::memset(block->data, 0, block->size * sizeof(T));
}

template <typename T, unsigned Alignment>
void aligned_vector<T, Alignment>::zero(std::size_t from, std::size_t to) noexcept
{
    if (!block->data || from >= block->size || to < from)
        return;
    std::memset(block->data + from, 0, (std::min(block->size, to) - from) * sizeof(T));
}

template <typename T, unsigned Alignment>
void aligned_vector<T, Alignment>::copyContents(const aligned_vector &other) noexcept
{
    const std::size_t count = std::min(other.block->size, block->capacity);
    if (count > 0 && block->data && other.block->data)
        std::memmove(block->data, other.block->data, count * sizeof(T));
}

template <typename T, unsigned Alignment>
std::size_t aligned_vector<T, Alignment>::groups(std::size_t count) const noexcept
{
    return block->data ? std::min((count + 3) / 4 * 4, block->capacity) : 0;
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment> &aligned_vector<T, Alignment>::operator=(T value) noexcept
{
    fill(block->data, groups(size()), value);
    return *this;
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment> &aligned_vector<T, Alignment>::operator+=(T value) noexcept
{
    add(block->data, groups(size()), value);
    return *this;
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment> &aligned_vector<T, Alignment>::operator*=(T value) noexcept
{
    multiply(block->data, groups(size()), value);
    return *this;
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment> &
aligned_vector<T, Alignment>::operator+=(const aligned_vector &other) noexcept
{
    const std::size_t common = std::min(size(), other.size());
    add(block->data, other.block->data, std::min(groups(common), other.groups(common)));
    return *this;
}

template <typename T, unsigned Alignment>
aligned_vector<T, Alignment> &
aligned_vector<T, Alignment>::operator*=(const aligned_vector &other) noexcept
{
    const std::size_t common = std::min(size(), other.size());
    multiply(block->data, other.block->data, std::min(groups(common), other.groups(common)));
    return *this;
}

template <typename T, unsigned Alignment>
void aligned_vector<T, Alignment>::madd(T gain, const aligned_vector &x) noexcept
{
    multiplyAdd(block->data, gain, x.block->data, std::min(groups(size()), x.groups(size())));
}

template class aligned_vector<float, 16>;
template class aligned_vector<short, 16>;

} // namespace QTovelMixer
