// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_BASE_MODEL_H
#define QTOVELMIXER_TESTS_BASE_MODEL_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// A checker that runs small programs of a few threads in every way that the memory model allows.
///
/// Each atomic remembers every value that was ever stored in it. A load may return any of them that
/// is not older than what its thread knows of, so that a missing acquire or release shows as a read
/// of something stale, or as a race on plain cells. What it does not model: loads that see stores
/// of the program's future (no machine does that here), read-modify-write operations and fences
/// (the ring has none), and stores to one atomic by two threads that nothing orders (reported).
namespace model {

constexpr std::size_t maxThreads = 3;
constexpr std::size_t maxAtomics = 16;

struct Outcome
{
    std::string violation;        ///< the first one; empty when there is none
    std::uint64_t executions = 0; ///< complete ones, no two alike
    std::uint64_t states = 0;     ///< different ones on the way
};

/// Runs the threads that `setUp` returns in every way; it is called anew for each execution, and
/// makes the atomics, cells and mutexes. Stops at the first violation.
Outcome explore(const std::function<std::vector<std::function<void()>>()> &setUp);

/// Ends the execution with a violation unless the condition holds.
void require(bool condition, const char *violation);

/// What an execution knows of each atomic: no older store than this may be read.
using View = std::array<std::uint16_t, maxAtomics>;
using Clock = std::array<std::uint32_t, maxThreads>;

std::size_t makeAtomic(std::uint64_t value);
std::uint64_t load(std::size_t atomic, std::memory_order order);
void store(std::size_t atomic, std::uint64_t value, std::memory_order order);

/// Stands in for std::atomic of an integer.
template <typename T>
class Atomic
{
public:
    Atomic(T value) : m_index(makeAtomic(std::uint64_t(value))) {}
    Atomic(const Atomic &) = delete;
    Atomic &operator=(const Atomic &) = delete;

    T load(std::memory_order order = std::memory_order_seq_cst) const
    {
        return T(model::load(m_index, order));
    }
    void store(T value, std::memory_order order = std::memory_order_seq_cst)
    {
        model::store(m_index, std::uint64_t(value), order);
    }

private:
    std::size_t m_index;
};

/// Plain memory: two accesses of which one writes must be ordered.
class Cell
{
public:
    void write(std::uint64_t value);
    std::uint64_t read();

private:
    std::uint64_t m_value = 0;
    std::size_t m_writer = maxThreads; ///< none
    std::uint32_t m_written = 0;
    Clock m_read{};
};

class Mutex
{
public:
    void lock();
    void unlock();
    bool isLocked() const { return m_locked; }

private:
    bool m_locked = false;
    std::uint16_t m_version = 0;
    View m_view{};
    Clock m_clock{};
};

} // namespace model

#endif
