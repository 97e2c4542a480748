// SPDX-License-Identifier: MIT
// The switch of mutated files: every mutant of a run is compiled in, QTOVELMIXER_MUTANT names the
// one that is on, and QTOVELMIXER_MUTANTS_REACHED the folder into which a program writes which ones
// it met.
#pragma once
#pragma GCC system_header
#pragma GCC diagnostic ignored "-Wparentheses"

#define _GLIBCXX_ASSERTIONS // a bound swapped may pass the end of a vector by one unseen

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace Mutant {

class Switch
{
public:
    Switch()
    {
        if (const char *number = std::getenv("QTOVELMIXER_MUTANT"))
            m_chosen = std::atoi(number);
        if (const char *folder = std::getenv("QTOVELMIXER_MUTANTS_REACHED"))
            m_folder = folder;
        m_traced = !m_folder.empty();
        for (unsigned char &mark : m_reached) // no page faults later, on an audio thread
            static_cast<volatile unsigned char &>(mark) = 0;
    }
    ~Switch()
    {
        if (!m_traced)
            return;
        std::FILE *file = std::fopen((m_folder + "/" + std::to_string(getpid())).c_str(), "a");
        for (int id = 0; file && id < most; ++id) {
            if (m_reached[id])
                std::fprintf(file, "%d\n", id);
        }
        if (file)
            std::fclose(file);
    }

    bool isOn(int id) noexcept
    {
        if (m_traced)
            m_reached[id] = 1;
        return id == m_chosen;
    }

private:
    static constexpr int most = 4096;

    int m_chosen = -1;
    bool m_traced = false;
    std::string m_folder;
    unsigned char m_reached[most];
};

inline Switch theSwitch;

inline bool isOn(int id) noexcept
{
    return theSwitch.isOn(id);
}

// `a < bound(1) > b` means a < b, and a <= b while mutant 1 is on; the other three alike.
struct Bound
{
    int id;
};

template <typename T>
struct Less
{
    const T &left;
    int id;
};
template <typename T>
struct LessEqual : Less<T>
{};
template <typename T>
struct Greater : Less<T>
{};
template <typename T>
struct GreaterEqual : Less<T>
{};

inline Bound bound(int id) noexcept
{
    return {id};
}

template <typename T>
Less<T> operator<(const T &left, Bound bound) noexcept
{
    return {left, bound.id};
}
template <typename T>
LessEqual<T> operator<=(const T &left, Bound bound) noexcept
{
    return {{left, bound.id}};
}
template <typename T>
Greater<T> operator>(const T &left, Bound bound) noexcept
{
    return {{left, bound.id}};
}
template <typename T>
GreaterEqual<T> operator>=(const T &left, Bound bound) noexcept
{
    return {{left, bound.id}};
}

template <typename T, typename U>
bool operator>(Less<T> swapped, const U &right) noexcept
{
    return isOn(swapped.id) ? swapped.left <= right : swapped.left < right;
}
template <typename T, typename U>
bool operator>(LessEqual<T> swapped, const U &right) noexcept
{
    return isOn(swapped.id) ? swapped.left < right : swapped.left <= right;
}
template <typename T, typename U>
bool operator>(Greater<T> swapped, const U &right) noexcept
{
    return isOn(swapped.id) ? swapped.left >= right : swapped.left > right;
}
template <typename T, typename U>
bool operator>(GreaterEqual<T> swapped, const U &right) noexcept
{
    return isOn(swapped.id) ? swapped.left > right : swapped.left >= right;
}

} // namespace Mutant
