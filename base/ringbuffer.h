// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_RINGBUFFER_H
#define QTOVELMIXER_BASE_RINGBUFFER_H

#include <base/export.h>
#include <base/nonblocking.h>

#include <stdint.h>

/// A byte ring between one producing and one consuming thread. Whatever is readable, and whatever
/// is writable, lies in one contiguous run of memory. No call blocks; every call tolerates null.
struct BLRINGBUFFER;

/// One side of a ring at the time of the call.
/// Units: bytes.
struct BLRINGBUFFER_Slice
{
    uint64_t position; ///< consumed (read side) or produced (write side) since creation or the last
                       ///< flush
    char *data;        ///< first readable or writable byte; null for a ring of capacity 0
    int32_t length;    ///< readable or writable from `data` onward
};

extern "C" {

/// Creates an empty ring that holds exactly `bytes` bytes, all memory taken and touched. A size of
/// 0 or below gives a ring of capacity 0. `flag` is 1, the size of an element; nothing else is
/// defined. The caller owns the ring and ends it with `BLRINGBUFFER_Destroy`.
/// Errors: null, and one critical line, when there is no memory.
/// Threads: any. Real-time: no.
QTOVELMIXER_EXPORT BLRINGBUFFER *BLRINGBUFFER_NewEx(int32_t bytes, int32_t flag);

/// Where the producer may write; nothing is readable before `BLRINGBUFFER_Produce`.
/// Threads: the producer. Real-time: yes.
QTOVELMIXER_EXPORT BLRINGBUFFER_Slice BLRINGBUFFER_GetWriteSlice(BLRINGBUFFER *ring)
    QTOVELMIXER_NONBLOCKING;

/// Makes `bytes` bytes, written at the last write slice, readable; more than is writable counts as
/// all that is writable. A negative count withdraws that many of the youngest readable bytes (at
/// most all of them) and moves the write position back; neither side may run meanwhile.
/// Threads: the producer. Real-time: yes.
QTOVELMIXER_EXPORT void BLRINGBUFFER_Produce(BLRINGBUFFER *ring,
                                             int32_t bytes) QTOVELMIXER_NONBLOCKING;

/// What the consumer may read.
/// Threads: the consumer, or any while the consumer rests. Real-time: yes.
QTOVELMIXER_EXPORT BLRINGBUFFER_Slice BLRINGBUFFER_GetReadSlice(BLRINGBUFFER *ring)
    QTOVELMIXER_NONBLOCKING;

/// Releases `bytes` bytes from the read side; more than is readable counts as all that is readable,
/// a negative count as 0.
/// Threads: the consumer. Real-time: yes.
QTOVELMIXER_EXPORT void BLRINGBUFFER_Consume(BLRINGBUFFER *ring,
                                             int32_t bytes) QTOVELMIXER_NONBLOCKING;

/// The number of readable bytes.
/// Threads: any. Real-time: yes.
QTOVELMIXER_EXPORT int32_t BLRINGBUFFER_FillCount(BLRINGBUFFER *ring) QTOVELMIXER_NONBLOCKING;

/// Discards everything readable and sets the positions of both sides back to 0. The producer may
/// run meanwhile: what it commits later stays, at positions counted from here.
/// Threads: the consumer, or any while the consumer rests. Real-time: yes.
QTOVELMIXER_EXPORT void BLRINGBUFFER_Flush(BLRINGBUFFER *ring) QTOVELMIXER_NONBLOCKING;

/// Frees `*ring` and sets it to null. Neither side may run.
/// Threads: any. Real-time: no.
QTOVELMIXER_EXPORT void BLRINGBUFFER_Destroy(BLRINGBUFFER **ring);
}

#endif
