// SPDX-License-Identifier: MIT
#include <mixer/host_gains_p.h>

namespace QTovelMixer {

void HostGains::setCell(const Cell &cell, float gain)
{
    m_cells[cell] = gain;
}

void HostGains::setRoute(const Source *source, const Sink *sink, float gain)
{
    m_routes[{source, sink}] = gain;
    std::erase_if(m_cells, [=](const auto &entry) {
        return entry.first.source == source && entry.first.sink == sink;
    });
}

void HostGains::setMask(const Source *source, quint64 mask)
{
    m_masks[source] = mask;
}

void HostGains::forget(const Source *source) noexcept
{
    m_masks.erase(source);
    std::erase_if(m_routes, [=](const auto &entry) { return entry.first.first == source; });
    std::erase_if(m_cells, [=](const auto &entry) { return entry.first.source == source; });
}

void HostGains::forget(const Sink *sink) noexcept
{
    std::erase_if(m_routes, [=](const auto &entry) { return entry.first.second == sink; });
    std::erase_if(m_cells, [=](const auto &entry) { return entry.first.sink == sink; });
}

} // namespace QTovelMixer
