// SPDX-License-Identifier: MIT
// The matrix mix, the change of layouts and the conversion of samples, beside what each is made of:
// the literal loop over the cells, a matrix product of a library, a copy of the same bytes.
#include <mixer/aligned_vector.h>
#include <mixer/buffer_ops.h>
#include <mixer/gain_matrix_p.h>

#include <benchmark/benchmark.h>
#include <hwy/targets.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#ifdef QTOVELMIXER_BENCH_OPENBLAS
#include <cblas.h>
#endif

using namespace QTovelMixer;

using FloatVector = aligned_vector<float, 16>;
using ShortVector = aligned_vector<short, 16>;

namespace {

enum class Cells { Diagonal, Dense, Sparse };

struct Case
{
    const char *name;
    int rows;
    int columns;
    int frames;
    Cells cells;
};

constexpr Case cases[] = {
    {"4x2 diagonal, 256 frames", 4, 2, 256, Cells::Diagonal},
    {"64x2 diagonal, 256 frames", 64, 2, 256, Cells::Diagonal},
    {"64x2 dense, 256 frames", 64, 2, 256, Cells::Dense},
    {"64x64 dense, 512 frames", 64, 64, 512, Cells::Dense},
    {"128x128 dense, 1024 frames", 128, 128, 1024, Cells::Dense},
    {"128x128 dense, 256 frames", 128, 128, 256, Cells::Dense},
    {"128x128 sparse, 1024 frames", 128, 128, 1024, Cells::Sparse},
    {"128x128 sparse, 256 frames", 128, 128, 256, Cells::Sparse},
};

struct Bench
{
    std::unique_ptr<GainMatrix> matrix = std::make_unique<GainMatrix>();
    std::unique_ptr<MixPlan> plan = std::make_unique<MixPlan>();
    std::vector<FloatVector> inputs;
    std::vector<FloatVector> outputs;
    const Case &c;
    int used = 0;

    explicit Bench(const Case &which) : c(which)
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> value(-1.0f, 1.0f);
        std::bernoulli_distribution sparse(0.02);
        for (int j = 0; j < c.rows; ++j) {
            inputs.emplace_back(std::size_t(c.frames));
            for (float &x : inputs.back())
                x = value(random);
            for (int k = 0; k < c.columns; ++k) {
                const bool on = c.cells == Cells::Dense ||
                                (c.cells == Cells::Diagonal ? j % c.columns == k : sparse(random));
                matrix->gain[j][k] = on ? value(random) : 0.0f;
                used += on;
            }
        }
        for (int k = 0; k < c.columns; ++k)
            outputs.emplace_back(std::size_t(c.frames));
        plan->rebuild(*matrix, c.rows, c.columns);
    }

    void report(benchmark::State &state) const
    {
        state.counters["FLOP/s"] = benchmark::Counter(
            2.0 * used * c.frames, benchmark::Counter::kIsIterationInvariantRate);
    }
};

void planned(benchmark::State &state, const Case &c)
{
    Bench bench(c);
    for (auto _ : state) {
        bench.plan->mix(bench.inputs.data(), c.rows, bench.outputs.data(), c.columns, c.frames);
        benchmark::ClobberMemory();
    }
    bench.report(state);
}

void literal(benchmark::State &state, const Case &c)
{
    Bench bench(c);
    for (auto _ : state) {
        for (int k = 0; k < c.columns; ++k) {
            FloatVector &out = bench.outputs[std::size_t(k)];
            out.zero();
            for (int j = 0; j < c.rows; ++j) {
                const float gain = bench.matrix->gain[j][k] * bench.matrix->enable[j][k];
                if (gain != 0.0f)
                    out.madd(gain, bench.inputs[std::size_t(j)]);
            }
        }
        benchmark::ClobberMemory();
    }
    bench.report(state);
}

#ifdef QTOVELMIXER_BENCH_OPENBLAS
void product(benchmark::State &state, const Case &c)
{
    openblas_set_num_threads(1);
    const std::vector<float> gains(std::size_t(c.rows * c.columns), 0.5f);
    const std::vector<float> in(std::size_t(c.rows * c.frames), 0.25f);
    std::vector<float> out(std::size_t(c.columns * c.frames));
    for (auto _ : state) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, c.columns, c.frames, c.rows, 1.0f,
                    gains.data(), c.rows, in.data(), c.frames, 0.0f, out.data(), c.frames);
        benchmark::ClobberMemory();
    }
    state.counters["FLOP/s"] = benchmark::Counter(2.0 * c.rows * c.columns * c.frames,
                                                  benchmark::Counter::kIsIterationInvariantRate);
}
#endif

void matches(benchmark::State &state, const Case &c)
{
    Bench bench(c);
    for (auto _ : state)
        benchmark::DoNotOptimize(bench.plan->matches(*bench.matrix, c.rows, c.columns));
}

void rebuild(benchmark::State &state, const Case &c)
{
    Bench bench(c);
    for (auto _ : state) {
        bench.plan->rebuild(*bench.matrix, c.rows, c.columns);
        benchmark::ClobberMemory();
    }
}

constexpr std::size_t layoutFrames = 256;

void split(benchmark::State &state)
{
    const int channels = int(state.range(0));
    FloatVector block(layoutFrames * std::size_t(channels));
    std::vector<FloatVector> planes;
    for (int c = 0; c < channels; ++c)
        planes.emplace_back(layoutFrames);
    for (auto _ : state) {
        de_interleave(block, planes.data(), channels);
        benchmark::ClobberMemory();
    }
}

void merge(benchmark::State &state)
{
    const int channels = int(state.range(0));
    FloatVector block(layoutFrames * std::size_t(channels));
    std::vector<FloatVector> planes;
    for (int c = 0; c < channels; ++c)
        planes.emplace_back(layoutFrames);
    for (auto _ : state) {
        interleave(planes.data(), block, channels);
        benchmark::ClobberMemory();
    }
}

void copy(benchmark::State &state)
{
    const std::size_t samples = layoutFrames * std::size_t(state.range(0));
    FloatVector from(samples);
    FloatVector to(samples);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), samples * sizeof(float));
        benchmark::ClobberMemory();
    }
}

constexpr std::size_t converted = 4096;

void toShort(benchmark::State &state)
{
    FloatVector from(converted);
    for (std::size_t i = 0; i < converted; ++i)
        from[int(i)] = float(i) / 2048.0f - 1.0f;
    ShortVector to(converted);
    for (auto _ : state) {
        float_to_short(from, to);
        benchmark::ClobberMemory();
    }
}

void toFloat(benchmark::State &state)
{
    ShortVector from(converted);
    FloatVector to(converted);
    for (auto _ : state) {
        short_to_float(from, to);
        benchmark::ClobberMemory();
    }
}

void addAll()
{
    for (const Case &c : cases) {
        const std::string name = c.name;
        benchmark::RegisterBenchmark(("plan: " + name).c_str(), planned, c);
        benchmark::RegisterBenchmark(("literal: " + name).c_str(), literal, c);
#ifdef QTOVELMIXER_BENCH_OPENBLAS
        if (c.cells == Cells::Dense)
            benchmark::RegisterBenchmark(("product: " + name).c_str(), product, c);
#endif
    }
    for (const Case &c : {cases[1], cases[3], cases[4]}) {
        benchmark::RegisterBenchmark((std::string("matches: ") + c.name).c_str(), matches, c);
        benchmark::RegisterBenchmark((std::string("rebuild: ") + c.name).c_str(), rebuild, c);
    }
    for (const int channels : {2, 8, 32}) {
        benchmark::RegisterBenchmark("de_interleave", split)->Arg(channels);
        benchmark::RegisterBenchmark("interleave", merge)->Arg(channels);
        benchmark::RegisterBenchmark("memcpy of the same bytes", copy)->Arg(channels);
    }
    benchmark::RegisterBenchmark("float_to_short, 4096 samples", toShort);
    benchmark::RegisterBenchmark("short_to_float, 4096 samples", toFloat);
}

/// QTOVELMIXER_BENCH_TARGET=SSSE3 (or another name) holds the library to these instructions.
void chooseTarget()
{
    const char *wanted = std::getenv("QTOVELMIXER_BENCH_TARGET");
    for (int bit = 0; wanted && bit < 63; ++bit) {
        const int64_t target = int64_t(1) << bit;
        if ((hwy::SupportedTargets() & target) && wanted == std::string(hwy::TargetName(target))) {
            hwy::SetSupportedTargetsForTest(target);
            hwy::GetChosenTarget().Update(hwy::SupportedTargets());
            return;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    chooseTarget();
    addAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
