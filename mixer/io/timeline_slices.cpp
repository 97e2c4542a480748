// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <mixer/io/timeline_p.h>

#include <algorithm>
#include <utility>

namespace QTovelMixer {

namespace {

Range ordered(double a, double b) noexcept
{
    a = endTime(a);
    b = endTime(b);
    return {finiteTime(std::min(a, b)), std::max(a, b)};
}

void eraseRanges(std::vector<Range> &ranges, int first, int last)
{
    if (first <= last)
        ranges.erase(ranges.begin() + first, ranges.begin() + last + 1);
}

void cutOneSlice(std::vector<Range> &slices, int index, const Range &cut)
{
    Range &slice = slices[size_t(index)];
    if (slice.start > cut.end || cut.start > slice.end)
        return;
    if (cut.start <= slice.start && cut.end >= slice.end) {
        slices.erase(slices.begin() + index);
    } else if (slice.start < cut.start && cut.end < slice.end) {
        const Range tail{cut.end, slice.end};
        slice.end = cut.start;
        slices.insert(slices.begin() + index + 1, tail);
    } else if (cut.end > slice.end) {
        slice.end = cut.start;
    } else if (cut.start < slice.start) {
        slice.start = cut.end;
    }
    // A cut inside the slice that begins or ends exactly with it leaves it alone, on purpose.
}

void cutSeveralSlices(std::vector<Range> &slices, int first, int last, const Range &cut)
{
    Range &head = slices[size_t(first)];
    if (cut.start > head.start) {
        head.end = cut.start; // also lengthens a head that ended before the cut, on purpose
        ++first;
    }
    Range &tail = slices[size_t(last)];
    if (tail.end > cut.end) {
        tail.start = cut.end;
        --last;
    }
    eraseRanges(slices, first, last);
}

} // namespace

void Timeline::addSlice(double start, double end)
{
    const Range added = ordered(start, end);
    d->makeRoom();
    std::vector<Range> &slices = d->slices;
    if (slices.empty()) {
        slices.push_back(added);
        d->update(0);
        return;
    }
    const int i = searchRanges(slices, added.start);
    const int j = searchRanges(slices, added.end);
    Range &slice = slices[size_t(i)];
    if (i != j) {
        slice.start = std::min(added.start, slice.start);
        slice.end = std::max(slices[size_t(j)].end, added.end);
        eraseRanges(slices, i + 1, j);
    } else if (slice.start > added.end) {
        slices.insert(slices.begin() + i, added);
    } else if (added.start > slice.end) {
        slices.insert(slices.begin() + i + 1, added);
    } else {
        slice = {std::min(added.start, slice.start), std::max(added.end, slice.end)};
    }
    d->update(size_t(i));
}

void Timeline::removeSlice(double start, double end)
{
    if (d->slices.empty())
        return;
    d->makeRoom();
    const Range cut = ordered(start, end);
    const int i = searchRanges(d->slices, cut.start);
    const int j = searchRanges(d->slices, cut.end);
    if (i == j)
        cutOneSlice(d->slices, i, cut);
    else
        cutSeveralSlices(d->slices, i, j, cut);
    d->update(size_t(i));
}

void Timeline::clearSlices()
{
    d->slices.clear();
    d->update(0);
}

void Timeline::update()
{
    d->update(0);
}

// Growing by doubling: a host may add selections by the thousand, one after another.
void Timeline::Data::makeRoom()
{
    const size_t count = slices.size() + 1;
    if (slices.capacity() < count)
        slices.reserve(std::max(count, 2 * slices.capacity()));
    chunks.reserve(count);
}

void Timeline::Data::update(size_t changed) noexcept
{
    const Range bounds = ordered(limits.start, limits.end);
    chunks.truncate(changed > firstPlayed ? changed - firstPlayed : 0);
    for (size_t i = changed; i < slices.size(); ++i) {
        const Range &slice = slices[i];
        const double start = std::max(slice.start, bounds.start);
        const double end = std::min(slice.end, bounds.end);
        // What only touches a limit plays nothing; an empty slice inside stays as it is.
        const bool inside = bounds.start < slice.start && slice.end < bounds.end;
        if (start >= end && !inside)
            continue;
        if (chunks.isEmpty())
            firstPlayed = i;
        chunks.append({start - limits.start, end - limits.start});
    }
    playDuration = chunks.isEmpty() ? std::max(limits.end - limits.start, 0.0) : chunks.total();
    remembered.forget();
}

} // namespace QTovelMixer
