// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_MIRRORED_MEMORY_P_H
#define QTOVELMIXER_BASE_MIRRORED_MEMORY_P_H

#include <QtCore/QtGlobal>

#include <cstddef>

namespace QTovelMixer {

/// Memory that appears twice, back to back: `data()[i]` and `data()[i + size()]` are one byte, so a
/// run that starts anywhere in the first half is contiguous. Zero at first. Where the system cannot
/// map memory twice, both halves are plain memory, and the owner keeps them alike (`isMirrored()`
/// is false).
class MirroredMemory
{
public:
    enum Way { Mapped, Copied };
    /// When page faults are taken: all by the constructor, or by whoever calls `touch`.
    enum Paging { Present, OnTouch };

    /// At least `bytes` bytes (0 gives none); by mapping, the size is rounded up to whole pages.
    explicit MirroredMemory(size_t bytes, Way preferred = Mapped, Paging paging = Present);
    ~MirroredMemory();
    Q_DISABLE_COPY_MOVE(MirroredMemory)

    char *data() const { return start; }
    size_t size() const { return half; }
    bool isMirrored() const { return mirrored; }

    /// Takes the page faults of all pages that begin in [first, first + bytes) of the first half,
    /// cut off at its end, and of the same ones in the second half: nobody takes one there
    /// afterwards, be it for reading or for writing. The range is the caller's meanwhile.
    void touch(size_t first, size_t bytes) const noexcept;

private:
    char *start = nullptr;
    size_t half = 0;
    bool mirrored = false;
};

/// Per platform: maps at least `bytes` bytes (more than 0) twice and sets `bytes` to what was
/// mapped; null when that fails. Takes the page faults at once where that is faster than one by one
/// and `present` asks for it.
char *mapTwice(size_t &bytes, bool present);

/// Per platform: gives back what `mapTwice` made; `bytes` as it was set.
void unmapTwice(char *start, size_t bytes);

} // namespace QTovelMixer

#endif
