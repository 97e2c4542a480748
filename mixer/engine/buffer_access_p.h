// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_BUFFER_ACCESS_P_H
#define QTOVELMIXER_MIXER_ENGINE_BUFFER_ACCESS_P_H

#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>

#include <algorithm>
#include <cstddef>

namespace QTovelMixer {

/// What hosts may not do with a buffer.
struct BufferAccess
{
    /// Sets the number of samples in use, at most the capacity. Real-time: yes.
    static void setSize(aligned_vector<float, 16> &buffer,
                        std::size_t size) noexcept QTOVELMIXER_NONBLOCKING
    {
        buffer.block->size = std::min(size, buffer.block->capacity);
    }
};

} // namespace QTovelMixer

#endif
