// SPDX-License-Identifier: MIT
#include <mixer/engine/gain_matrix_p.h>

#include <dsp/kernels_p.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace QTovelMixer {

namespace {

// Below, copying the inputs into a tile costs more than the dense kernel saves.
constexpr int fewestDenseInputs = 4;

constexpr std::size_t roundedToGroup(std::size_t frames)
{
    return (frames + 3) / 4 * 4;
}

} // namespace

void MixPlan::Shadow::copy(const GainMatrix &matrix, int rowCount, int columnCount) noexcept
{
    rows = rowCount;
    columns = columnCount;
    stride = (std::size_t(columns) + 7) / 8 * 8;
    const std::size_t rowBytes = std::size_t(columns) * sizeof(float);
    for (int j = 0; j < rows; ++j) {
        std::memcpy(gain + std::size_t(j) * stride, matrix.gain[j], rowBytes);
        std::memcpy(enable + std::size_t(j) * stride, matrix.enable[j], rowBytes);
    }
}

bool MixPlan::Shadow::equals(const GainMatrix &matrix, int rowCount, int columnCount) const noexcept
{
    if (rowCount != rows || columnCount != columns)
        return false;
    return Kernels::sameBits(matrix.gain[0], limit, gain, stride, std::size_t(rows),
                             std::size_t(columns)) &&
           Kernels::sameBits(matrix.enable[0], limit, enable, stride, std::size_t(rows),
                             std::size_t(columns));
}

void MixPlan::watchCells()
{
    if (watchesCells())
        return;
    auto fresh = std::make_unique<Shadow>();
    Shadow *none = nullptr;
    if (shadow.compare_exchange_strong(none, fresh.get()))
        fresh.release();
}

void MixPlan::rebuild(const GainMatrix &matrix, int rows, int columns) noexcept
{
    plan(matrix, rows, columns, nullptr);
}

void MixPlan::rebuildFor(const GainMatrix &matrix, int rows, int columns,
                         const Change &change) noexcept
{
    plan(matrix, rows, columns, &change);
}

void MixPlan::plan(const GainMatrix &matrix, int rows, int columns, const Change *change) noexcept
{
    plannedChanges = matrix.changes + (change ? 1 : 0);
    plannedRows = std::clamp(rows, 0, limit);
    plannedColumns = std::clamp(columns, 0, limit);
    setCount = 0;
    groupCount = 0;
    const bool isChangePlanned =
        change && int(change->row) < plannedRows && int(change->column) < plannedColumns;
    if (Shadow *const watched = shadow.load(std::memory_order_acquire)) {
        watched->copy(matrix, plannedRows, plannedColumns);
        if (isChangePlanned)
            watched->setGain(int(change->row), int(change->column), change->gain);
    }

    quint64 used[limit][2] = {}; // by output: bit j stands for input j
    int inputCounts[limit] = {}; // by output
    float changedRow[limit];
    for (int j = 0; j < plannedRows; ++j) {
        const float *cells = matrix.gain[j];
        if (isChangePlanned && j == int(change->row)) {
            std::copy_n(cells, plannedColumns, changedRow);
            changedRow[change->column] = change->gain;
            cells = changedRow;
        }
        for (int k = 0; k < plannedColumns; ++k) {
            const float gain = cells[k] * matrix.enable[j][k];
            if (gain != 0.0f) {
                used[k][j / 64] |= quint64(1) << (j % 64);
                gains[k][inputCounts[k]++] = gain;
            }
        }
    }

    std::fill_n(planned, plannedColumns, false);
    for (int k = 0; k < plannedColumns; ++k) {
        if (!planned[k])
            addSet(k, used);
    }
}

void MixPlan::addSet(int column, const quint64 (*used)[2]) noexcept
{
    const int index = setCount++;
    Set &set = sets[index];
    set.inputCount = 0;
    for (int j = 0; j < plannedRows; ++j) {
        if ((used[column][j / 64] >> (j % 64)) & 1)
            set.inputs[set.inputCount++] = quint8(j);
    }

    set.outputCount = 0;
    for (int k = column; k < plannedColumns; ++k) {
        if (used[k][0] != used[column][0] || used[k][1] != used[column][1])
            continue;
        planned[k] = true;
        setOf[k] = quint8(index);
        placeOf[k] = quint8(set.outputCount);
        set.outputs[set.outputCount++] = quint8(k);
    }

    set.groups = set.inputCount < fewestDenseInputs ? 0 : set.outputCount / groupWidth;
    set.firstGroup = groupCount;
    for (int g = 0; g < set.groups; ++g, ++groupCount) {
        for (int i = 0; i < set.inputCount; ++i) {
            for (int o = 0; o < groupWidth; ++o)
                packed[groupCount][i][o] = gains[set.outputs[g * groupWidth + o]][i];
        }
    }
}

bool MixPlan::follow(const GainMatrix &matrix, unsigned row, unsigned column) noexcept
{
    if (plannedChanges + 1 != matrix.changes)
        return false;
    if (int(row) < plannedRows && int(column) < plannedColumns) {
        const float gain = matrix.gain[row][column] * matrix.enable[row][column];
        const Set &set = sets[setOf[column]];
        const quint8 *const end = set.inputs + set.inputCount;
        const quint8 *const input = std::lower_bound(set.inputs, end, quint8(row));
        const bool isHeard = input != end && *input == row;
        if (isHeard != (gain != 0.0f))
            return false;
        if (isHeard) {
            const auto place = input - set.inputs;
            const int output = placeOf[column];
            gains[column][place] = gain;
            if (output < set.groups * groupWidth)
                packed[set.firstGroup + output / groupWidth][place][output % groupWidth] = gain;
        }
        Shadow *const watched = shadow.load(std::memory_order_acquire);
        if (watched && watched->rows == plannedRows && watched->columns == plannedColumns)
            watched->setGain(int(row), int(column), matrix.gain[row][column]);
    }
    plannedChanges = matrix.changes;
    return true;
}

bool MixPlan::matches(const GainMatrix &matrix, int rows, int columns) const noexcept
{
    const Shadow *const watched = shadow.load(std::memory_order_acquire);
    return watched && watched->equals(matrix, rows, columns);
}

void MixPlan::mix(const aligned_vector<float, 16> *inputs, int rows,
                  aligned_vector<float, 16> *outputs, int columns, qsizetype frames) const noexcept
{
    if (rows <= 0) {
        for (int k = 0; k < columns; ++k)
            outputs[k].zero();
        return;
    }
    Q_ASSERT(rows == plannedRows && columns == plannedColumns);
    const std::size_t samples = roundedToGroup(std::size_t(std::max<qsizetype>(frames, 0)));
    if (!fits(inputs, outputs, samples)) {
        mixPlainly(inputs, outputs, std::size_t(std::max<qsizetype>(frames, 0)));
        return;
    }
    for (int s = 0; s < setCount; ++s)
        mixSet(sets[s], inputs, outputs, samples);
}

bool MixPlan::fits(const aligned_vector<float, 16> *inputs,
                   const aligned_vector<float, 16> *outputs, std::size_t frames) const noexcept
{
    for (int j = 0; j < plannedRows; ++j) {
        if (inputs[j].capacity() < frames)
            return false;
    }
    for (int k = 0; k < plannedColumns; ++k) {
        if (outputs[k].capacity() < frames)
            return false;
    }
    return true;
}

void MixPlan::mixSet(const Set &set, const aligned_vector<float, 16> *inputs,
                     aligned_vector<float, 16> *outputs, std::size_t frames) const noexcept
{
    const std::size_t count = std::size_t(set.inputCount);
    const float *in[limit];
    for (std::size_t i = 0; i < count; ++i)
        in[i] = inputs[set.inputs[i]].constData();
    float *out[limit];
    for (int o = 0; o < set.outputCount; ++o)
        out[o] = outputs[set.outputs[o]].data();

    if (set.groups > 0) {
        Kernels::mixDense(out, std::size_t(set.groups), in, packed[set.firstGroup][0],
                          std::size_t(limit) * groupWidth, count, frames);
    }
    int o = set.groups * groupWidth;
    for (; o + 2 <= set.outputCount && count > 1; o += 2) {
        Kernels::mixPair(out[o], out[o + 1], in, gains[set.outputs[o]], gains[set.outputs[o + 1]],
                         count, frames);
    }
    for (; o < set.outputCount; ++o)
        Kernels::mix(out[o], in, gains[set.outputs[o]], count, frames);
}

/// For buffers of other sizes than the block's: every operation ends at the capacities.
void MixPlan::mixPlainly(const aligned_vector<float, 16> *inputs,
                         aligned_vector<float, 16> *outputs, std::size_t frames) const noexcept
{
    for (int s = 0; s < setCount; ++s) {
        const Set &set = sets[s];
        for (int o = 0; o < set.outputCount; ++o) {
            aligned_vector<float, 16> &out = outputs[set.outputs[o]];
            const std::size_t room = std::min(frames, out.capacity());
            std::fill_n(out.data(), room, 0.0f);
            for (int i = 0; i < set.inputCount; ++i) {
                const aligned_vector<float, 16> &in = inputs[set.inputs[i]];
                Kernels::multiplyAdd(out.data(), gains[set.outputs[o]][i], in.constData(),
                                     std::min(room, in.capacity()));
            }
        }
    }
}

} // namespace QTovelMixer
