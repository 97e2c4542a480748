// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_GAIN_MATRIX_P_H
#define QTOVELMIXER_MIXER_ENGINE_GAIN_MATRIX_P_H

#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>

#include <QtCore/QtGlobal>

#include <atomic>
#include <cstddef>

namespace QTovelMixer {

/// The gains from mixer inputs (rows) to mixer outputs (columns), and which of them count.
/// A cell is worth gain × enable. Blocks that pass the edge are cut off there.
struct GainMatrix
{
    static constexpr unsigned size = 128;

    alignas(64) float gain[size][size];
    alignas(64) float enable[size][size];

    quint64 changes = 0; ///< by the functions below

    GainMatrix() noexcept { reset(); }

    /// Every gain 0, every cell enabled.
    void reset() noexcept;
    /// Writes `table` (rows × columns, row-major) × `factor` and enables the cells. A product that
    /// is not finite counts as 0: tables come from hosts.
    void set(unsigned row0, unsigned rows, unsigned column0, unsigned columns, float factor,
             const float *table) noexcept;
    /// Enables (bit set) or disables row r of the block by bit r of `mask`. Does nothing when rows
    /// or columns are not in 1 … 32 or more than 32 bits are set.
    void setMask(unsigned row0, unsigned rows, unsigned column0, unsigned columns,
                 quint64 mask) noexcept;
    /// Closes the gap that `count` rows from `first` leave; the enabling stays where it is.
    void removeRows(unsigned first, unsigned count) noexcept;
    /// Closes the gap that `count` columns from `first` leave; the enabling stays where it is.
    void removeColumns(unsigned first, unsigned count) noexcept;
    /// Writes one gain; the enabling stays. Ignored outside the matrix.
    void setCell(unsigned row, unsigned column, float value) noexcept;
};

/// What a matrix comes down to: per output the inputs that reach it, sorted into the kernels that
/// mix them fastest. All storage is inside, so everything but `watchCells` is real-time.
class MixPlan
{
public:
    MixPlan() = default;
    ~MixPlan() { delete shadow.load(); }
    Q_DISABLE_COPY_MOVE(MixPlan)

    /// Keeps a copy of every planned cell from the next `rebuild` on, for `matches`: 128 KiB, once.
    /// Allowed while another thread plans and mixes.
    void watchCells();
    bool watchesCells() const noexcept QTOVELMIXER_NONBLOCKING
    {
        return shadow.load(std::memory_order_acquire) != nullptr;
    }

    /// A cell and the gain that it is about to get.
    struct Change
    {
        unsigned row;
        unsigned column;
        float gain;
    };

    /// Plans the first rows × columns cells (each at most 128).
    void rebuild(const GainMatrix &matrix, int rows, int columns) noexcept QTOVELMIXER_NONBLOCKING;
    /// Plans them for the time after `GainMatrix::setCell` with this change.
    void rebuildFor(const GainMatrix &matrix, int rows, int columns, const Change &change) noexcept;

    /// Follows `GainMatrix::setCell`, which was called for this cell since the plan stood for the
    /// matrix. Returns false, and leaves the plan as it is, when other inputs are heard than
    /// before.
    bool follow(const GainMatrix &matrix, unsigned row, unsigned column) noexcept;

    /// Whether the plan stands for the first rows × columns cells of the matrix, as its functions
    /// left them.
    bool isFor(const GainMatrix &matrix, int rows,
               int columns) const noexcept QTOVELMIXER_NONBLOCKING
    {
        return rows == plannedRows && columns == plannedColumns && matrix.changes == plannedChanges;
    }

    /// True while the plan stands for the first rows × columns cells of `matrix`, which it
    /// compares: for cells that somebody writes past its functions. False until a plan was made
    /// with its cells watched.
    bool matches(const GainMatrix &matrix, int rows,
                 int columns) const noexcept QTOVELMIXER_NONBLOCKING;

    /// Overwrites `frames` samples of every output with the sum of its inputs, to the bit what
    /// clearing it and a `madd` per input in ascending order gives. Inputs behind a zero cell are
    /// not read. Samples past `frames` up to a whole group of four may be touched. `rows` and
    /// `columns` are those of the plan, or `rows` is 0: then every output is cleared.
    void mix(const aligned_vector<float, 16> *inputs, int rows, aligned_vector<float, 16> *outputs,
             int columns, qsizetype frames) const noexcept QTOVELMIXER_NONBLOCKING;

private:
    static constexpr int limit = int(GainMatrix::size);
    static constexpr int groupWidth = 6; // outputs of one dense group

    /// Outputs that hear the same inputs: `groups` whole groups of `groupWidth`, then a rest.
    struct Set
    {
        int outputCount;
        int groups;
        int firstGroup;
        int inputCount;
        quint8 outputs[limit];
        quint8 inputs[limit];
    };

    /// What was planned, in rows as short as can be.
    struct Shadow
    {
        int rows = -1; // nothing yet
        int columns = -1;
        std::size_t stride = 0;
        alignas(64) float gain[limit * limit];
        alignas(64) float enable[limit * limit];

        void copy(const GainMatrix &matrix, int rowCount,
                  int columnCount) noexcept QTOVELMIXER_NONBLOCKING;
        bool equals(const GainMatrix &matrix, int rowCount,
                    int columnCount) const noexcept QTOVELMIXER_NONBLOCKING;
        void setGain(int row, int column, float value) noexcept
        {
            gain[std::size_t(row) * stride + std::size_t(column)] = value;
        }
    };

    void plan(const GainMatrix &matrix, int rows, int columns,
              const Change *change) noexcept QTOVELMIXER_NONBLOCKING;

    void addSet(int column, const quint64 (*used)[2]) noexcept QTOVELMIXER_NONBLOCKING;
    bool fits(const aligned_vector<float, 16> *inputs, const aligned_vector<float, 16> *outputs,
              std::size_t frames) const noexcept QTOVELMIXER_NONBLOCKING;
    void mixSet(const Set &set, const aligned_vector<float, 16> *inputs,
                aligned_vector<float, 16> *outputs,
                std::size_t frames) const noexcept QTOVELMIXER_NONBLOCKING;
    void mixPlainly(const aligned_vector<float, 16> *inputs, aligned_vector<float, 16> *outputs,
                    std::size_t frames) const noexcept QTOVELMIXER_NONBLOCKING;

    quint64 plannedChanges = 0;
    int plannedRows = 0;
    int plannedColumns = 0;
    int setCount = 0;
    int groupCount = 0;
    Set sets[limit];
    bool planned[limit];                   // while rebuilding: the output has its set
    quint8 setOf[limit];                   // by output
    quint8 placeOf[limit];                 // by output: its place among its set's
    alignas(64) float gains[limit][limit]; // by output, then by place among its inputs
    alignas(64) float packed[limit / groupWidth][limit][groupWidth];
    std::atomic<Shadow *> shadow{nullptr}; // owned
};

} // namespace QTovelMixer

#endif
