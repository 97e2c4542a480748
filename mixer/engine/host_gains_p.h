// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_HOST_GAINS_P_H
#define QTOVELMIXER_MIXER_ENGINE_HOST_GAINS_P_H

#include <mixer/types.h>

#include <compare>
#include <map>
#include <utility>

namespace QTovelMixer {

/// What the host has wired by hand, by source and sink: the gain matrix is made anew for every
/// device that is opened, and loses it. Channels are those of the object, or of the device, so that
/// they stand for the same thing wherever the object's rows and columns are.
class HostGains
{
public:
    /// One gain. Null stands for the device.
    struct Cell
    {
        const Source *source;
        const Sink *sink;
        unsigned row;
        unsigned column;

        friend auto operator<=>(const Cell &, const Cell &) = default;
    };
    using Pair = std::pair<const Source *, const Sink *>;

    /// Takes memory for a new cell.
    void setCell(const Cell &cell, float gain);

    // One wish, made before the update lock is taken.
    /// The default wiring of a source into a sink, in place of the cells between the two.
    static HostGains route(const Source *source, const Sink *sink, float gain);
    static HostGains mask(const Source *source, quint64 mask);

    /// Remembers the wishes. What they replace is in `wishes` afterwards: memory is neither taken
    /// nor given back.
    void adopt(HostGains &wishes) noexcept;
    /// Forgets everything that has to do with an object, and answers it: memory is neither taken
    /// nor given back.
    HostGains take(const Source *source) noexcept;
    HostGains take(const Sink *sink) noexcept;

    // To be applied in this order.
    const std::map<Pair, float> &routes() const { return m_routes; }
    const std::map<Cell, float> &cells() const { return m_cells; }
    const std::map<const Source *, quint64> &masks() const { return m_masks; }

private:
    std::map<Pair, float> m_routes;
    std::map<Cell, float> m_cells;
    std::map<const Source *, quint64> m_masks;
};

} // namespace QTovelMixer

#endif
