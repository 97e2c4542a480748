// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_RINGBUFFER_P_H
#define QTOVELMIXER_BASE_RINGBUFFER_P_H

#include <base/mirrored_memory_p.h>
#include <base/ringbuffer.h>

namespace QTovelMixer {

/// As `BLRINGBUFFER_NewEx`, with a choice of how the memory is mirrored.
BLRINGBUFFER *createRing(qint32 bytes, MirroredMemory::Way preferred);

} // namespace QTovelMixer

#endif
