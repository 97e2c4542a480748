// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_RINGBUFFER_P_H
#define QTOVELMIXER_BASE_RINGBUFFER_P_H

#include <base/mirrored_memory_p.h>
#include <base/ring_counters_p.h>
#include <base/ringbuffer.h>

namespace QTovelMixer {

/// A base, since the counters begin with its size.
struct RingMemory
{
    RingMemory(size_t bytes, MirroredMemory::Way preferred, MirroredMemory::Paging paging)
        : memory(bytes, preferred, paging)
    {}

    const MirroredMemory memory;
};

} // namespace QTovelMixer

/// The counters and the memory that they count.
struct BLRINGBUFFER : QTovelMixer::RingMemory, QTovelMixer::RingCounters<>
{
    BLRINGBUFFER(size_t bytes, QTovelMixer::MirroredMemory::Way preferred,
                 QTovelMixer::MirroredMemory::Paging paging)
        : RingMemory(bytes, preferred, paging), RingCounters(bytes, memory.size(), memory.data())
    {}

    BLRINGBUFFER_Slice writeSlice() QTOVELMIXER_NONBLOCKING { return slice(lookToWrite()); }
    BLRINGBUFFER_Slice readSlice() QTOVELMIXER_NONBLOCKING { return slice(lookToRead()); }
    void produce(quint64 bytes) QTOVELMIXER_NONBLOCKING
    {
        if (memory.isMirrored()) [[likely]]
            RingCounters::produce(bytes);
        else
            mirrorAndProduce(bytes);
    }

private:
    static BLRINGBUFFER_Slice slice(const Look &look) QTOVELMIXER_NONBLOCKING
    {
        return {look.position, reinterpret_cast<char *>(static_cast<quintptr>(look.address)),
                static_cast<qint32>(look.bytes)};
    }

    /// Copies fresh bytes to their other place where the system does not do it. Out of the way of
    /// nearly all rings.
    void mirrorAndProduce(quint64 bytes) QTOVELMIXER_NONBLOCKING;
};

namespace QTovelMixer {

/// As `BLRINGBUFFER_NewEx`, with a choice of how the memory is mirrored and when its page faults
/// are taken, and without a word when there is none.
BLRINGBUFFER *createRing(qint32 bytes, MirroredMemory::Way preferred,
                         MirroredMemory::Paging paging = MirroredMemory::Present);

} // namespace QTovelMixer

#endif
