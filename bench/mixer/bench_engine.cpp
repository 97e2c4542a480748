// SPDX-License-Identifier: MIT
// The whole block callback, with everything that a device's thread does in it, and what it
// allocates (nothing).
#include "noise_source.h"

#include <mixer/engine_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>

#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

using namespace QTovelMixer;

namespace {

constexpr unsigned blockFrames = 256;
thread_local long allocations = 0; // of the thread that runs the blocks

class FixedRateEngine : public Engine
{
public:
    FixedRateEngine() : Engine(nullptr) {}
    unsigned int sampleRate() const override { return 48000; }
};

/// An engine without a device whose buses and sources are made by hand.
struct Desk
{
    Desk(int sourceCount, unsigned inputs, unsigned outputs)
    {
        Engine::Data &data = EngineAccess::data(engine);
        data.active = true;
        data.numInputChannels = inputs;
        data.numOutputChannels = outputs;
        data.inputBuses = Engine::Data::makeBuses(inputs + unsigned(sourceCount) * 2, blockFrames);
        data.outputBuses = Engine::Data::makeBuses(outputs, blockFrames);
        input = aligned_vector<float, 16>(size_t(inputs) * blockFrames);
        input = 0.25f;
        output = aligned_vector<float, 16>(size_t(outputs) * blockFrames);
        for (int i = 0; i < sourceCount; ++i) {
            sources.push_back(std::make_unique<NoiseSource>(&engine));
            sources.back()->setGain(0.5f);
            data.sources.push_back(sources.back().get());
            sources.back()->start(QThread::InheritPriority);
            sources.back()->prime();
            for (unsigned channel = 0; channel < 2; ++channel)
                data.matrix.setCell(inputs + unsigned(i) * 2 + channel, channel, 0.5f);
        }
    }
    ~Desk()
    {
        EngineAccess::data(engine).sources.clear();
        for (auto &source : sources)
            SourceAccess::endAndWait(*source);
    }

    bool buffered() const
    {
        for (const auto &source : sources) {
            if (SourceAccess::data(*source).ring.load()->readSlice().frames < blockFrames)
                return false;
        }
        return true;
    }

    FixedRateEngine engine;
    aligned_vector<float, 16> input;
    aligned_vector<float, 16> output;
    std::vector<std::unique_ptr<NoiseSource>> sources;
};

void run(benchmark::State &state, Desk &desk)
{
    const long before = allocations;
    for (auto _ : state) {
        if (!desk.buffered()) {
            state.PauseTiming();
            while (!desk.buffered())
                QThread::yieldCurrentThread();
            state.ResumeTiming();
        }
        desk.engine.mixerCallback(desk.input, desk.output, blockFrames, 0.0, 0x4);
        benchmark::ClobberMemory();
    }
    state.counters["allocations"] = double(allocations - before);
}

void emptyCallback(benchmark::State &state)
{
    Desk desk(0, 0, 2);
    run(state, desk);
}

void sources(benchmark::State &state)
{
    Desk desk(int(state.range(0)), 0, 2);
    run(state, desk);
    state.counters["ns_per_source"] =
        benchmark::Counter(double(state.range(0)), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

void denseMatrix(benchmark::State &state)
{
    Desk desk(0, 128, 128);
    Engine::Data &data = EngineAccess::data(desk.engine);
    for (unsigned row = 0; row < 128; ++row) {
        for (unsigned column = 0; column < 128; ++column)
            data.matrix.setCell(row, column, 1.0f / 128.0f);
    }
    run(state, desk);
}

BENCHMARK(emptyCallback)->Name("callback/no_sources");
// Blocks are taken far faster than workers refill their rings: a fixed number of them.
BENCHMARK(sources)->Name("callback/stereo_sources")->Arg(2)->Arg(32)->Arg(63)->Iterations(10000);
BENCHMARK(denseMatrix)->Name("callback/dense_128x128");

} // namespace

void *operator new(std::size_t size)
{
    ++allocations;
    if (void *memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
