// SPDX-License-Identifier: MIT
// One block of 256 stereo frames through the ring, beside the two copies that this contains.
#include <base/ringbuffer_p.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

using namespace QTovelMixer;

namespace {
constexpr int block = 256 * 2 * 4;
constexpr int capacity = 131072;

struct Blocks
{
    std::vector<char> in = std::vector<char>(block, 'a');
    std::vector<char> out = std::vector<char>(block);
};

void copyTwice(benchmark::State &state)
{
    Blocks blocks;
    std::vector<char> between(capacity);
    size_t offset = 0;
    for (auto _ : state) {
        std::memcpy(between.data() + offset, blocks.in.data(), block);
        benchmark::ClobberMemory();
        std::memcpy(blocks.out.data(), between.data() + offset, block);
        benchmark::ClobberMemory();
        offset = (offset + block) % capacity;
    }
}

void pushAndPop(benchmark::State &state, MirroredMemory::Way way)
{
    Blocks blocks;
    BLRINGBUFFER *ring = createRing(capacity, way);
    for (auto _ : state) {
        std::memcpy(BLRINGBUFFER_GetWriteSlice(ring).data, blocks.in.data(), block);
        benchmark::ClobberMemory();
        BLRINGBUFFER_Produce(ring, block);
        std::memcpy(blocks.out.data(), BLRINGBUFFER_GetReadSlice(ring).data, block);
        benchmark::ClobberMemory();
        BLRINGBUFFER_Consume(ring, block);
    }
    BLRINGBUFFER_Destroy(&ring);
}

void bookkeeping(benchmark::State &state)
{
    BLRINGBUFFER *ring = BLRINGBUFFER_NewEx(capacity, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(BLRINGBUFFER_GetWriteSlice(ring));
        BLRINGBUFFER_Produce(ring, block);
        benchmark::DoNotOptimize(BLRINGBUFFER_GetReadSlice(ring));
        BLRINGBUFFER_Consume(ring, block);
    }
    BLRINGBUFFER_Destroy(&ring);
}
} // namespace

BENCHMARK(copyTwice)->Name("two copies of 2 KiB (limit)");
BENCHMARK_CAPTURE(pushAndPop, mapped, MirroredMemory::Mapped);
BENCHMARK_CAPTURE(pushAndPop, copied, MirroredMemory::Copied);
BENCHMARK(bookkeeping);
BENCHMARK_MAIN();
