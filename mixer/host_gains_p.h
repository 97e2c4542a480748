// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_HOST_GAINS_P_H
#define QTOVELMIXER_MIXER_HOST_GAINS_P_H

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

    void setCell(const Cell &cell, float gain);
    /// The default wiring of a source into a sink, in place of the cells between the two.
    void setRoute(const Source *source, const Sink *sink, float gain);
    void setMask(const Source *source, quint64 mask);
    /// Forgets everything that has to do with an object. Takes no memory.
    void forget(const Source *source) noexcept;
    void forget(const Sink *sink) noexcept;

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
