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

std::vector<Engine::Data::Bus> Engine::Data::makeBuses(unsigned count, unsigned frames)
{
    std::vector<Engine::Data::Bus> buses;
    buses.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
        buses.emplace_back(frames);
        buses.back().zero();
    }
    return buses;
}

unsigned Engine::Data::rowOf(const Source *source) const
{
    return firstBus(sources, numInputChannels, inputBuses.size(), source);
}

unsigned Engine::Data::columnOf(const Sink *sink) const
{
    return firstBus(sinks, numOutputChannels, outputBuses.size(), sink);
}

bool Engine::Data::contains(const Source *source) const
{
    return std::find(sources.begin(), sources.end(), source) != sources.end();
}

bool Engine::Data::contains(const Sink *sink) const
{
    return std::find(sinks.begin(), sinks.end(), sink) != sinks.end();
}

// A sink's table is always that for inputs: on a device without outputs it may begin at column 0,
// where `set_mixer_gains` would choose the one for outputs.
std::vector<float> Engine::Data::initialGains(const Source *, unsigned channels,
                                              Device *output) const
{
    const Route route = Store::store()->findRoute(nullptr, int(channels), output);
    std::vector<float> table = gainTable(route, channels, numOutputChannels);
    if (table.empty())
        table = builtIn(Gains::outputMixerGains, channels, numOutputChannels);
    return table;
}

std::vector<float> Engine::Data::initialGains(const Sink *, unsigned channels, Device *input) const
{
    const Route route = Store::store()->findRoute(input, int(channels), nullptr);
    std::vector<float> table = gainTable(route, numInputChannels, channels);
    if (table.empty())
        table = builtIn(Gains::inputMixerGains, numInputChannels, channels);
    return table;
}

void Engine::Data::writeGains(const Source *source, unsigned row, float gain,
                              const std::vector<float> &table)
{
    if (!table.empty())
        set_mixer_gains(row, busesOf(source), 0, numOutputChannels, gain, table.data());
}

void Engine::Data::writeGains(const Sink *sink, unsigned column, float gain,
                              const std::vector<float> &table)
{
    if (!table.empty())
        set_mixer_gains(0, numInputChannels, column, busesOf(sink), gain, table.data());
}

void Engine::Data::writeInputGains(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                                   float gain)
{
    std::vector<float> table(size_t(rows) * cols);
    const float *gains = Gains::inputMixerGains(int(rows), int(cols), table.data());
    if (gains)
        set_mixer_gains(row0, rows, col0, cols, gain, gains);
}

bool Engine::Data::writeRoute(const Source *source, const Sink *sink, float gain)
{
    const unsigned row = rowOf(source);
    const unsigned column = columnOf(sink);
    const unsigned rows = busesOf(source);
    const unsigned columns = busesOf(sink);
    if (row + rows > inputBuses.size() || column + columns > outputBuses.size())
        return false;
    writeInputGains(row, rows, column, columns, gain);
    return true;
}

void Engine::Data::writeMonitorGains(bool on)
{
    const unsigned rows = numInputChannels;
    const unsigned columns = numOutputChannels;
    std::vector<float> table(size_t(rows) * columns);
    const float *gains = Gains::outputMixerGains(int(rows), int(columns), table.data());
    if (gains)
        set_mixer_gains(0, rows, 0, columns, on ? 1.0f : 0.0f, gains);
}

void Engine::Data::writeMask(const Source *source, quint64 mask)
{
    const unsigned row = rowOf(source);
    const unsigned channels = busesOf(source);
    if (row + channels <= inputBuses.size())
        set_input_mask(row, channels, 0, numOutputChannels,
                       channels < 64 ? mask & ((1ull << channels) - 1) : mask);
}

// A device may lack the channel, and an object without buses has no cells: its first row or column
// is one past the last.
bool Engine::Data::cellOf(const HostGains::Cell &cell, unsigned &row, unsigned &column) const
{
    if ((!cell.source && cell.row >= numInputChannels) ||
        (!cell.sink && cell.column >= numOutputChannels))
        return false;
    row = cell.source ? rowOf(cell.source) + cell.row : cell.row;
    column = cell.sink ? columnOf(cell.sink) + cell.column : cell.column;
    return row < std::min<size_t>(inputBuses.size(), maxChannels) &&
           column < std::min<size_t>(outputBuses.size(), maxChannels);
}

void Engine::Data::writeHostGains()
{
    for (const auto &[pair, gain] : hostGains.routes())
        writeRoute(pair.first, pair.second, gain);
    for (const auto &[cell, gain] : hostGains.cells()) {
        unsigned row = 0;
        unsigned column = 0;
        if (cellOf(cell, row, column))
            matrix.setCell(row, column, gain);
    }
    for (const auto &[source, mask] : hostGains.masks())
        writeMask(source, mask);
}

// After the device was opened anew: its channels come first, then one bus per channel of
// everything that is attached, with its rows and columns. Called under the update lock.
void Engine::Data::rebuildBuses(Device *output, Device *input)
{
    const unsigned busFrames = blockFrames;
    inputBuses = makeBuses(numInputChannels, busFrames);
    outputBuses = makeBuses(numOutputChannels, busFrames);
    inputBuses.reserve(maxChannels);
    outputBuses.reserve(maxChannels);
    inputReplacementTold = false;
    outputReplacementTold = false;
    resetGainMatrix();
    const auto append = [busFrames](std::vector<Bus> &buses, unsigned channels) {
        if (buses.size() + channels > maxChannels)
            return false;
        std::vector<Bus> added = makeBuses(channels, busFrames);
        std::move(added.begin(), added.end(), std::back_inserter(buses));
        return true;
    };
    Snapshot<Source> silentSources;
    Snapshot<Sink> deafSinks;
    for (Source *source : sources) {
        const unsigned row = unsigned(inputBuses.size());
        if (append(inputBuses, busesOf(source)))
            writeGains(source, row, sourceLinks[source].gain,
                       initialGains(source, busesOf(source), output));
        else
            silentSources.append(source);
    }
    for (Sink *sink : sinks) {
        const unsigned column = unsigned(outputBuses.size());
        if (append(outputBuses, busesOf(sink)))
            writeGains(sink, column, sinkLinks[sink].gain,
                       initialGains(sink, busesOf(sink), input));
        else
            deafSinks.append(sink);
    }
    // Their hosts' hooks may delete others.
    for (Source *source : silentSources) {
        if (contains(source))
            source->stop(StopReason::DeviceListChanged);
    }
    for (Sink *sink : deafSinks) {
        if (contains(sink))
            sink->stop(StopReason::DeviceListChanged);
    }
    removeUnstarted();
    writeHostGains();
    if (monitoring)
        writeMonitorGains(true);
    planMix();
}

} // namespace QTovelMixer
