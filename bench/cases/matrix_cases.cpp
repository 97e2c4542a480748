// SPDX-License-Identifier: MIT
// The matrix mix, beside the loop over the cells, a matrix product, and what other mixers reach.
#include "cases/cases.h"
#include "peers/plain.h"
#include "peers/rematrix.h"

#include <mixer/aligned_vector.h>
#include <mixer/engine/gain_matrix_p.h>

#include <hwy/targets.h>

#include <memory>
#include <random>

#ifdef QTOVELMIXER_BENCH_OPENBLAS
#include <cblas.h>
#endif

using namespace QTovelMixer;

namespace Bench {

namespace {

using FloatVector = aligned_vector<float, 16>;

enum class Cells { Diagonal, Dense, Sparse };

struct Shape
{
    const char *name;
    int rows;
    int columns;
    int frames;
    Cells cells;
};

struct Work
{
    std::unique_ptr<GainMatrix> matrix = std::make_unique<GainMatrix>();
    std::unique_ptr<MixPlan> plan = std::make_unique<MixPlan>();
    std::vector<FloatVector> inputs;
    std::vector<FloatVector> outputs;
    std::vector<const float *> in;
    std::vector<float *> out;
    Shape shape;
    long used = 0;
    // For a matrix product: the same rows without gaps.
    std::vector<float> gains;
    std::vector<float> rows;
    std::vector<float> products;

    explicit Work(const Shape &wanted) : shape(wanted)
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> value(-1.0f, 1.0f);
        std::bernoulli_distribution sparse(0.02);
        for (int j = 0; j < shape.rows; ++j) {
            inputs.emplace_back(size_t(shape.frames));
            in.push_back(inputs.back().constData());
            for (float &x : inputs.back())
                x = value(random);
            for (int k = 0; k < shape.columns; ++k) {
                const bool on =
                    shape.cells == Cells::Dense ||
                    (shape.cells == Cells::Diagonal ? j % shape.columns == k : sparse(random));
                matrix->gain[j][k] = on ? value(random) : 0.0f;
                used += on;
            }
        }
        for (int k = 0; k < shape.columns; ++k) {
            outputs.emplace_back(size_t(shape.frames));
            out.push_back(outputs.back().data());
        }
        plan->rebuild(*matrix, shape.rows, shape.columns);
        gains.assign(size_t(shape.rows * shape.columns), 0.5f);
        rows.assign(size_t(shape.rows * shape.frames), 0.25f);
        products.assign(size_t(shape.columns * shape.frames), 0.0f);
    }

    void mix()
    {
        plan->mix(inputs.data(), shape.rows, outputs.data(), shape.columns, shape.frames);
    }
    long eights() const { return used * shape.frames / 8; }
};

using WorkPointer = std::shared_ptr<Work>;

Case start(const WorkPointer &work)
{
    Case result(QStringLiteral("A. Gain-matrix mix"), QString::fromUtf8(work->shape.name));
    result.ours([work] { work->mix(); });
    result.add(QStringLiteral("plain loop"), [work] {
        Plain::mix(work->matrix->gain, work->matrix->enable, work->in.data(), work->shape.rows,
                   work->out.data(), work->shape.columns, work->shape.frames);
    });
    return result;
}

void addProduct([[maybe_unused]] Case &to, [[maybe_unused]] const WorkPointer &work)
{
#ifdef QTOVELMIXER_BENCH_OPENBLAS
    openblas_set_num_threads(1);
    to.add(QStringLiteral("OpenBLAS sgemm"), [work] {
        const Shape &s = work->shape;
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.columns, s.frames, s.rows, 1.0f,
                    work->gains.data(), s.rows, work->rows.data(), s.frames, 0.0f,
                    work->products.data(), s.frames);
    });
#endif
}

void addPeak([[maybe_unused]] Case &to, [[maybe_unused]] const WorkPointer &work,
             [[maybe_unused]] bool narrow)
{
#ifdef __x86_64__
    to.add(QStringLiteral("arithmetic limit"),
           [work, narrow] { Limits::multiplyAndAdd(work->eights(), narrow); });
#endif
}

void addRead(Case &to, const WorkPointer &work)
{
    to.add(QStringLiteral("reading the inputs"), [work] {
        for (const float *row : work->in)
            Limits::read(row, work->shape.frames);
    });
}

const QString plain = QStringLiteral("plain loop");
const QString blas = QStringLiteral("OpenBLAS sgemm");
const QString peak = QStringLiteral("arithmetic limit");

Case fourToTwo()
{
    const auto work = std::make_shared<Work>(
        Shape{"A1 4 rows → 2, diagonal, 256 frames", 4, 2, 256, Cells::Diagonal});
    Case result = start(work);
    addRematrix(result, work->in, work->out, work->matrix->gain, work->shape.frames);
    return result.mustBeat(QStringLiteral("libswresample"), 1.5);
}

Case manyToTwo()
{
    const auto work = std::make_shared<Work>(
        Shape{"A2 64 → 2, diagonal, 256 frames", 64, 2, 256, Cells::Diagonal});
    Case result = start(work);
    addRead(result, work);
    return result.mustBeat(QStringLiteral("reading the inputs"), 0.70);
}

Case manyToTwoDense()
{
    const auto work =
        std::make_shared<Work>(Shape{"A2b 64 → 2, dense, 256 frames", 64, 2, 256, Cells::Dense});
    Case result = start(work);
    addProduct(result, work);
    return result.mustBeat(blas, 0.55);
}

Case dense(const Shape &shape)
{
    const auto work = std::make_shared<Work>(shape);
    Case result = start(work);
    addProduct(result, work);
    addPeak(result, work, false);
    return result.mustBeat(blas, 0.90).mustBeat(peak, 0.75);
}

/// On the oldest vectors that the library has code for.
Case denseBaseline()
{
    const auto work = std::make_shared<Work>(
        Shape{"A4 128 × 128, dense, 1024 frames, 128-bit vectors", 128, 128, 1024, Cells::Dense});
    Case result = start(work);
    addPeak(result, work, true);
    result.target = HWY_SSSE3;
    return result.mustBeat(peak, 0.55).mustBeat(plain, 1.3);
}

Case sparse(const Shape &shape, double plainly)
{
    const auto work = std::make_shared<Work>(shape);
    return start(work).mustBeat(plain, plainly);
}

/// What it costs to see in every block that no cell was changed.
Case lookAtCells(int rows, int columns, double most)
{
    const QString name = QStringLiteral("seeing that %1 × %2 cells stayed").arg(rows).arg(columns);
    const auto work = std::make_shared<Work>(Shape{"", rows, columns, 256, Cells::Dense});
    work->plan->watchCells();
    work->plan->rebuild(*work->matrix, rows, columns);
    return Case(QStringLiteral("A. Gain-matrix mix"), name)
        .ours([work] {
            keep(work->plan->matches(*work->matrix, work->shape.rows, work->shape.columns));
        })
        .mustTakeAtMost(most);
}

} // namespace

void addMatrixCases(Suite &suite)
{
    const QString section = QStringLiteral("A. Gain-matrix mix");
    suite.add(section, fourToTwo);
    suite.add(section, manyToTwo);
    suite.add(section, manyToTwoDense);
    suite.add(section, [] {
        return dense({"A3 64 × 64, dense, 512 frames", 64, 64, 512, Cells::Dense});
    });
    suite.add(section, [] {
        return dense({"A4 128 × 128, dense, 1024 frames", 128, 128, 1024, Cells::Dense});
    });
    suite.add(section, [] {
        return dense({"A4b 128 × 128, dense, 256 frames", 128, 128, 256, Cells::Dense});
    });
#ifdef __x86_64__
    suite.add(section, denseBaseline);
#endif
    suite.add(section, [] {
        return sparse({"A5 128 × 128, 2 %, 1024 frames", 128, 128, 1024, Cells::Sparse}, 2.3);
    });
    suite.add(section, [] {
        return sparse({"A5b 128 × 128, 2 %, 256 frames", 128, 128, 256, Cells::Sparse}, 4.0);
    });
    suite.add(section, [] { return lookAtCells(64, 2, 150.0); });
    suite.add(section, [] { return lookAtCells(64, 64, 720.0); });
    suite.add(section, [] { return lookAtCells(128, 128, 2300.0); });
}

} // namespace Bench
