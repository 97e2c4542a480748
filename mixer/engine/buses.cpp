// SPDX-License-Identifier: MIT
// One bus per mixer channel: which belongs to whom, and the gains between them.
#include <mixer/engine/engine_p.h>

#include <mixer/api/api.h>
#include <mixer/gains.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/store/route.h>
#include <mixer/store/store.h>

#include <algorithm>
#include <iterator>

namespace QTovelMixer {

namespace {

/// The first bus of `wanted` (null: one past the last) among buses that begin with `device`
/// channels. An object for which there is no room has no buses.
template <typename T>
unsigned firstBus(const std::vector<T *> &objects, unsigned device, size_t buses, const T *wanted)
{
    unsigned bus = device;
    for (const T *object : objects) {
        const unsigned channels = busesOf(object);
        if (object == wanted)
            return bus + channels <= buses ? bus : unsigned(buses);
        if (bus + channels <= buses)
            bus += channels;
    }
    return bus;
}

/// The stored gains in the shape that is asked for: a route may come from a device with other
/// channel counts, or be capped. Empty for a route that holds nothing.
std::vector<float> gainTable(const Route &route, unsigned rows, unsigned columns)
{
    std::vector<float> table;
    if (!route.isValid())
        return table;
    table.reserve(size_t(rows) * columns);
    for (unsigned row = 0; row < rows; ++row) {
        for (unsigned column = 0; column < columns; ++column)
            table.push_back(route.gain(int(row), int(column)));
    }
    return table;
}

/// A copy of the default matrix; empty without rows or columns.
std::vector<float> builtIn(const float *(*choose)(int, int, float *), unsigned rows,
                           unsigned columns)
{
    std::vector<float> table(size_t(rows) * columns);
    const float *const gains = choose(int(rows), int(columns), table.data());
    if (!gains)
        table.clear();
    else if (gains != table.data())
        std::copy_n(gains, table.size(), table.begin());
    return table;
}

} // namespace

std::vector<EngineMix::Bus> EngineMix::makeBuses(unsigned count, unsigned frames)
{
    std::vector<Bus> buses;
    buses.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
        buses.emplace_back(frames);
        buses.back().zero();
    }
    return buses;
}

unsigned EngineMix::rowOf(const Source *source) const
{
    return firstBus(whole(*this).sources, numInputChannels, inputBuses.size(), source);
}

unsigned EngineMix::columnOf(const Sink *sink) const
{
    return firstBus(whole(*this).sinks, numOutputChannels, outputBuses.size(), sink);
}

// A sink's table is always that for inputs: on a device without outputs it may begin at column 0,
// where `set_mixer_gains` would choose the one for outputs.
std::vector<float> EngineMix::initialGains(const Source *, unsigned channels, Device *output) const
{
    const Route route = Store::store()->findRoute(nullptr, int(channels), output);
    std::vector<float> table = gainTable(route, channels, numOutputChannels);
    if (table.empty())
        table = builtIn(Gains::outputMixerGains, channels, numOutputChannels);
    return table;
}

std::vector<float> EngineMix::initialGains(const Sink *, unsigned channels, Device *input) const
{
    const Route route = Store::store()->findRoute(input, int(channels), nullptr);
    std::vector<float> table = gainTable(route, numInputChannels, channels);
    if (table.empty())
        table = builtIn(Gains::inputMixerGains, numInputChannels, channels);
    return table;
}

void EngineMix::writeGains(const Source *source, unsigned row, float gain,
                           const std::vector<float> &table)
{
    if (!table.empty())
        set_mixer_gains(row, busesOf(source), 0, numOutputChannels, gain, table.data());
}

void EngineMix::writeGains(const Sink *sink, unsigned column, float gain,
                           const std::vector<float> &table)
{
    if (!table.empty())
        set_mixer_gains(0, numInputChannels, column, busesOf(sink), gain, table.data());
}

bool EngineMix::writeRoute(const Source *source, const Sink *sink, float gain)
{
    const unsigned row = rowOf(source);
    const unsigned column = columnOf(sink);
    const unsigned rows = busesOf(source);
    const unsigned columns = busesOf(sink);
    if (row + rows > inputBuses.size() || column + columns > outputBuses.size())
        return false;
    const std::vector<float> table = builtIn(Gains::inputMixerGains, rows, columns);
    if (!table.empty())
        set_mixer_gains(row, rows, column, columns, gain, table.data());
    return true;
}

void EngineMix::writeMonitorGains(bool on)
{
    const unsigned rows = numInputChannels;
    const unsigned columns = numOutputChannels;
    const std::vector<float> table = builtIn(Gains::outputMixerGains, rows, columns);
    if (!table.empty())
        set_mixer_gains(0, rows, 0, columns, on ? 1.0f : 0.0f, table.data());
}

void EngineMix::writeMask(const Source *source, quint64 mask)
{
    const unsigned row = rowOf(source);
    const unsigned channels = busesOf(source);
    if (row + channels <= inputBuses.size())
        set_input_mask(row, channels, 0, numOutputChannels,
                       channels < 64 ? mask & ((1ull << channels) - 1) : mask);
}

// A device may lack the channel, and an object without buses has no cells: its first row or column
// is one past the last.
bool EngineMix::cellOf(const HostGains::Cell &cell, unsigned &row, unsigned &column) const
{
    if ((!cell.source && cell.row >= numInputChannels) ||
        (!cell.sink && cell.column >= numOutputChannels))
        return false;
    row = cell.source ? rowOf(cell.source) + cell.row : cell.row;
    column = cell.sink ? columnOf(cell.sink) + cell.column : cell.column;
    return row < std::min<size_t>(inputBuses.size(), maxChannels) &&
           column < std::min<size_t>(outputBuses.size(), maxChannels);
}

namespace {

void writeHostGains(EngineMix &mix)
{
    for (const auto &[pair, gain] : mix.hostGains.routes())
        mix.writeRoute(pair.first, pair.second, gain);
    for (const auto &[cell, gain] : mix.hostGains.cells()) {
        unsigned row = 0;
        unsigned column = 0;
        if (mix.cellOf(cell, row, column))
            mix.matrix.setCell(row, column, gain);
    }
    for (const auto &[source, mask] : mix.hostGains.masks())
        mix.writeMask(source, mask);
}

bool append(std::vector<EngineMix::Bus> &buses, unsigned channels, unsigned frames)
{
    if (buses.size() + channels > EngineMix::maxChannels)
        return false;
    std::vector<EngineMix::Bus> added = EngineMix::makeBuses(channels, frames);
    std::move(added.begin(), added.end(), std::back_inserter(buses));
    return true;
}

/// Buses and gains for all that is attached. Returns what the device left no room for.
template <typename T>
Snapshot<T> appendAll(EngineMix &mix, std::vector<EngineMix::Bus> &buses,
                      const std::vector<T *> &objects,
                      std::map<const T *, EngineAttached::Link> &links, Device *device)
{
    Snapshot<T> unheard;
    for (T *object : objects) {
        const unsigned first = unsigned(buses.size());
        const unsigned channels = busesOf(object);
        if (append(buses, channels, mix.blockFrames))
            mix.writeGains(object, first, links[object].gain,
                           mix.initialGains(object, channels, device));
        else
            unheard.append(object);
    }
    return unheard;
}

/// Ends what has no buses. The hosts' hooks may delete others.
template <typename T>
void stopAll(const EngineAttached &attached, const Snapshot<T> &objects)
{
    for (T *object : objects) {
        if (attached.contains(object))
            object->stop(StopReason::DeviceListChanged);
    }
}

} // namespace

// After the device was opened anew: its channels come first, then one bus per channel of
// everything that is attached, with its rows and columns. Called under the update lock.
void EngineMix::rebuildBuses(Device *output, Device *input)
{
    EngineAttached &attached = whole(*this);
    inputBuses = makeBuses(numInputChannels, blockFrames);
    outputBuses = makeBuses(numOutputChannels, blockFrames);
    inputBuses.reserve(maxChannels);
    outputBuses.reserve(maxChannels);
    inputReplacementTold = false;
    outputReplacementTold = false;
    resetGainMatrix();
    const auto silent =
        appendAll(*this, inputBuses, attached.sources, attached.sourceLinks, output);
    const auto deaf = appendAll(*this, outputBuses, attached.sinks, attached.sinkLinks, input);
    stopAll(attached, silent);
    stopAll(attached, deaf);
    attached.removeUnstarted();
    writeHostGains(*this);
    if (monitoring)
        writeMonitorGains(true);
    planMix();
}

} // namespace QTovelMixer
