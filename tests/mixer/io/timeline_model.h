// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_IO_TIMELINE_MODEL_H
#define QTOVELMIXER_TESTS_MIXER_IO_TIMELINE_MODEL_H

#include <algorithm>
#include <optional>
#include <vector>

/// A timeline made of cells of 1/8 second: slow, and right at a glance. All times are whole
/// numbers of cells, which doubles represent exactly.
class TimelineModel
{
public:
    static constexpr double cellSeconds = 0.125;
    static constexpr int cells = 96;

    struct Stretch
    {
        int start = 0;
        int end = 0;
        friend bool operator==(const Stretch &, const Stretch &) = default;
    };

    int limitStart = -8;
    int limitEnd = -8;
    bool looping = false;

    std::vector<Stretch> stretches() const
    {
        std::vector<Stretch> result;
        for (int cell = 0; cell < cells; ++cell) {
            if (!selected[size_t(cell)])
                continue;
            if (!result.empty() && result.back().end == cell)
                ++result.back().end;
            else
                result.push_back({cell, cell + 1});
        }
        return result;
    }

    /// Selects [s, e). Into another stretch than the one at or before s: the gap before s too.
    void add(int s, int e)
    {
        const std::vector<Stretch> before = stretches();
        if (!before.empty()) {
            const Stretch first = atOrBefore(before, s);
            if (first != atOrBefore(before, e) && first.end < s)
                fill(first.end, s, true);
        }
        fill(s, e, true);
    }

    /// Deselects [s, e). Into another stretch: the one at or before s grows up to s. Within one
    /// stretch, sharing exactly one of its bounds: nothing.
    void remove(int s, int e)
    {
        const std::vector<Stretch> before = stretches();
        if (before.empty())
            return;
        const Stretch first = atOrBefore(before, s);
        const Stretch last = atOrBefore(before, e);
        if (first == last) {
            const bool sharesStart = s == first.start && e < first.end;
            const bool sharesEnd = first.start < s && e == first.end;
            if (!sharesStart && !sharesEnd)
                fill(s, e, false);
            return;
        }
        if (first.end < s)
            fill(first.end, s, true);
        fill(s, e, false);
    }

    void clear() { selected.assign(cells, false); }

    /// Every cell that one pass plays, in order.
    std::vector<int> pass() const
    {
        std::vector<int> chosen;
        std::vector<int> all;
        for (int cell = limitStart; cell < limitEnd; ++cell) {
            all.push_back(cell);
            if (cell >= 0 && cell < cells && selected[size_t(cell)])
                chosen.push_back(cell);
        }
        return chosen.empty() ? all : chosen;
    }

    bool sliced() const
    {
        for (int cell = std::max(limitStart, 0); cell < std::min(limitEnd, cells); ++cell)
            if (selected[size_t(cell)])
                return true;
        return false;
    }

    /// The cell that plays at a mixer time; none outside.
    std::optional<int> cellAt(int mixerCell) const
    {
        const std::vector<int> played = pass();
        if (played.empty() || mixerCell < 0)
            return std::nullopt;
        if (looping)
            return played[size_t(mixerCell) % played.size()];
        if (mixerCell >= int(played.size()))
            return std::nullopt;
        return played[size_t(mixerCell)];
    }

    /// The mixer time of the first pass at which a cell plays; 0 for one that does not.
    int mixerCellOf(int cell) const
    {
        const std::vector<int> played = pass();
        const auto found = std::find(played.begin(), played.end(), cell);
        return found == played.end() ? 0 : int(found - played.begin());
    }

    /// How many cells follow each other from this one on within what is played.
    int run(int cell) const
    {
        const std::vector<int> played = pass();
        int length = 0;
        while (std::find(played.begin(), played.end(), cell + length) != played.end())
            ++length;
        return length;
    }

private:
    static Stretch atOrBefore(const std::vector<Stretch> &list, int x)
    {
        Stretch result = list.front();
        for (const Stretch &stretch : list)
            if (stretch.start <= x)
                result = stretch;
        return result;
    }

    void fill(int s, int e, bool value)
    {
        for (int cell = s; cell < e; ++cell)
            selected[size_t(cell)] = value;
    }

    std::vector<bool> selected = std::vector<bool>(cells, false);
};

#endif
