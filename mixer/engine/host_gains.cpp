// SPDX-License-Identifier: MIT
#include <mixer/engine/host_gains_p.h>

#include <iterator>

namespace QTovelMixer {

namespace {

template <typename Map, typename Condition>
void moveWhere(Map &from, Map &to, Condition condition) noexcept
{
    for (auto entry = from.begin(); entry != from.end();) {
        const auto next = std::next(entry);
        if (condition(entry->first))
            to.insert(from.extract(entry));
        entry = next;
    }
}

/// What is there already takes the new value, and the entry stays behind.
template <typename Map>
void moveAll(Map &from, Map &to) noexcept
{
    for (auto entry = from.begin(); entry != from.end();) {
        const auto next = std::next(entry);
        const auto known = to.find(entry->first);
        if (known != to.end())
            known->second = entry->second;
        else
            to.insert(from.extract(entry));
        entry = next;
    }
}

} // namespace

void HostGains::setCell(const Cell &cell, float gain)
{
    m_cells[cell] = gain;
}

HostGains HostGains::route(const Source *source, const Sink *sink, float gain)
{
    HostGains wish;
    wish.m_routes[{source, sink}] = gain;
    return wish;
}

HostGains HostGains::mask(const Source *source, quint64 mask)
{
    HostGains wish;
    wish.m_masks[source] = mask;
    return wish;
}

void HostGains::adopt(HostGains &wishes) noexcept
{
    moveAll(wishes.m_cells, m_cells);
    moveAll(wishes.m_masks, m_masks);
    for (const auto &[pair, gain] : wishes.m_routes) {
        moveWhere(m_cells, wishes.m_cells, [&pair = pair](const Cell &cell) {
            return cell.source == pair.first && cell.sink == pair.second;
        });
    }
    moveAll(wishes.m_routes, m_routes);
}

HostGains HostGains::take(const Source *source) noexcept
{
    HostGains taken;
    moveWhere(m_masks, taken.m_masks, [=](const Source *other) { return other == source; });
    moveWhere(m_routes, taken.m_routes, [=](const Pair &pair) { return pair.first == source; });
    moveWhere(m_cells, taken.m_cells, [=](const Cell &cell) { return cell.source == source; });
    return taken;
}

HostGains HostGains::take(const Sink *sink) noexcept
{
    HostGains taken;
    moveWhere(m_routes, taken.m_routes, [=](const Pair &pair) { return pair.second == sink; });
    moveWhere(m_cells, taken.m_cells, [=](const Cell &cell) { return cell.sink == sink; });
    return taken;
}

} // namespace QTovelMixer
