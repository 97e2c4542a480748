// SPDX-License-Identifier: MIT
// The block callback: its steps in their order, then the callback that calls them. They run on the
// audio thread: no allocation, no lock but the update lock (and a free-wheeling block's), no log,
// no signal.
#include <mixer/engine/engine_p.h>

#include <base/clock_p.h>
#include <base/denormals_p.h>
#include <base/nonblocking_p.h>
#include <dsp/kernels_p.h>
#include <mixer/buffer_ops.h>
#include <mixer/engine/block_lock_p.h>
#include <mixer/engine/buffer_access_p.h>
#include <mixer/io/effect_p.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>
#include <mixer/io/timeline_p.h>
#include <mixer/meter/meter.h>

#include <QtCore/QThread>

#include <algorithm>
#include <utility>

namespace QTovelMixer {

unsigned busesOf(const Source *source) noexcept
{
    return SourceAccess::buses(*source);
}

unsigned busesOf(const Sink *sink) noexcept
{
    return SinkAccess::buses(*sink);
}

namespace {

using Bus = aligned_vector<float, 16>;

/// What the steps of one block have in common.
struct Block
{
    unsigned frames;
    unsigned inputs;  ///< device channels that are mixed
    unsigned outputs; ///< the same
    bool mixing;      ///< false while the mix is suspended: no sources, no sinks, no clock
    qint64 now;       ///< the clock at the first frame
};

// Step 1: nothing changes the mix, and no worker ends, during the block ---------------------------

/// Tells workers that end whether a block may still be calling what their hosts override.
class BlockPresence
{
public:
    explicit BlockPresence(std::atomic<unsigned> &blockNumber) noexcept : number(blockNumber)
    {
        // Before the block looks at any worker's state, which workers change before they look here.
        number.store(number.load(std::memory_order_relaxed) + 1);
    }
    ~BlockPresence()
    {
        number.store(number.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    Q_DISABLE_COPY_MOVE(BlockPresence)

private:
    std::atomic<unsigned> &number;
};

/// Under the update lock there is one writer, who needs no locked addition.
void countCallback(Engine::Data &d) noexcept
{
    d.callbackCount.store(d.callbackCount.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
}

int dropBlock(Engine::Data &d) noexcept
{
    d.droppedBlocks.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

/// The block stays with the backend until the workers have what it needs.
int postponeBlock(Engine::Data &d) noexcept
{
    // For the watchdog: the backend is alive.
    countCallback(d);
    return Engine::BlockNotReady;
}

// Step 2: the block and its buses get one length --------------------------------------------------

/// False when the backend's blocks are smaller than the open device's.
bool fits(const Engine::Data &d, const Bus &input, const Bus &output, unsigned frames) noexcept
{
    return input.size() >= size_t(d.numInputChannels) * frames &&
           output.size() >= size_t(d.numOutputChannels) * frames;
}

/// Frames that a bus has room for: its capacity without the spare samples past its end.
size_t room(const Bus &bus) noexcept
{
    constexpr size_t spare = 32;
    return bus.capacity() > spare ? bus.capacity() - spare : bus.capacity();
}

Block beginBlock(Engine::Data &d, unsigned frames) noexcept
{
    // Buses are made for the device's block, but work in the length of this one, so that what
    // sources render and what the clock advances are the same number of frames.
    for (std::vector<Bus> *buses : {&d.inputBuses, &d.outputBuses}) {
        for (Bus &bus : *buses) {
            if (bus.size() != frames)
                BufferAccess::setSize(bus, std::min<size_t>(frames, room(bus)));
        }
    }
    return {frames, std::min<unsigned>(d.numInputChannels, unsigned(d.inputBuses.size())),
            std::min<unsigned>(d.numOutputChannels, unsigned(d.outputBuses.size())),
            d.holdCount.load() == 0 && d.resuming.load() == 0,
            d.mixTime.load(std::memory_order_relaxed)};
}

// Step 3: the device's input goes into the first input buses --------------------------------------

/// Gives a block of the backend's the size that this callback asks for, for its duration: a
/// device may deliver less than the block was made for, and meters take whole blocks.
class BlockSize
{
public:
    BlockSize(Bus &block, size_t size) noexcept : bus(block), original(block.size())
    {
        BufferAccess::setSize(bus, size);
    }
    ~BlockSize() { BufferAccess::setSize(bus, original); }
    Q_DISABLE_COPY_MOVE(BlockSize)

private:
    Bus &bus;
    size_t original;
};

/// Returns how many samples were not finite then, and were replaced by 0.
size_t multiply(Bus &block, unsigned frames, unsigned channels, float &applied,
                float target) noexcept
{
    if (applied == target) {
        const bool finite = target == 1.0f
                                ? Kernels::isFinite(block.data(), block.size())
                                : Kernels::multiplyFinite(block.data(), block.size(), target);
        if (finite) [[likely]]
            return 0;
    } else {
        if (frames > 0)
            Kernels::rampGain(block.data(), frames, channels, applied, target);
        applied = target;
    }
    return Kernels::replaceNotFinite(block.data(), block.size());
}

[[gnu::cold, gnu::noinline]] void countReplaced(Engine::Data &d, size_t samples, bool &told,
                                                const char *place) noexcept
{
    d.replacedSamples.fetch_add(samples, std::memory_order_relaxed);
    if (std::exchange(told, true))
        return;
    // Inside a callback it goes the way of trace lines.
    assumeNonblocking([place] {
        BLDEBUG_Error(-1, "QTovelMixer::Engine: Samples that are not finite count as 0 (%s)!!",
                      place);
    });
}

/// What is not finite counts as 0 from here on.
void applyMasterGain(Engine::Data &d, Bus &device, unsigned frames, unsigned channels,
                     float &applied, const std::atomic<float> &target, bool &told,
                     const char *place) noexcept
{
    const size_t replaced =
        multiply(device, frames, channels, applied, target.load(std::memory_order_relaxed));
    if (replaced > 0) [[unlikely]]
        countReplaced(d, replaced, told, place);
}

void takeDeviceInput(Engine::Data &d, const Block &block, Bus &input) noexcept
{
    if (block.inputs == 0)
        return;
    const BlockSize size(input, size_t(block.inputs) * block.frames);
    applyMasterGain(d, input, block.frames, block.inputs, d.masterInputGainApplied,
                    d.masterInputGain, d.inputReplacementTold, "device input");
    if (d.inputMeter)
        d.inputMeter->fill(input);
    if (d.inputEffect && d.inputEffectBypass.load(std::memory_order_relaxed) == 0)
        EffectAccess::run(*d.inputEffect, input.data(), int(block.inputs), int(block.frames));
    de_interleave(input, d.inputBuses.data(), int(block.inputs));
}

// Step 4: every source renders into the buses behind them -----------------------------------------

void runWithoutSamples(Effect *effect, unsigned frames) noexcept
{
    if (effect)
        effect->process(nullptr, int(effect->numChannels()), int(frames));
}

/// Returns the number of input buses that hold something.
unsigned renderSources(Engine::Data &d, const Block &block) noexcept
{
    Effect *effect =
        d.outputEffectBypass.load(std::memory_order_relaxed) == 0 ? d.outputEffect : nullptr;
    if (!block.mixing || d.sources.empty()) {
        runWithoutSamples(effect, block.frames);
        return block.mixing ? block.inputs : 0;
    }
    TimelineAccess::remember(*d.timeline, d.seconds(block.now));
    Bus *const buses = d.inputBuses.data();
    const size_t room = d.inputBuses.size();
    unsigned busCount = block.inputs;
    for (Source *source : d.sources) {
        const unsigned channels = busesOf(source);
        // A source for which the device left no room has no buses.
        if (busCount + channels > room)
            continue;
        source->mixer_callback(buses + busCount, int(channels), block.now, effect);
        effect = nullptr;
        busCount += channels;
    }
    return busCount;
}

// Step 5: the gain matrix mixes the input buses into the output buses -----------------------------

void mixMatrix(Engine::Data &d, unsigned busCount) noexcept
{
    // A device may have more channels than the mix.
    const int rows = int(std::min(busCount, EngineMix::maxChannels));
    const int columns = int(std::min<size_t>(d.outputBuses.size(), EngineMix::maxChannels));
    if (columns == 0)
        return;
    const bool isPlanned = d.plan->watchesCells() ? d.plan->matches(d.matrix, rows, columns)
                                                  : d.plan->isFor(d.matrix, rows, columns);
    // While suspended nothing is mixed, and the plan stays for afterwards.
    if (rows > 0 && !isPlanned)
        d.plan->rebuild(d.matrix, rows, columns);
    d.plan->mix(d.inputBuses.data(), rows, d.outputBuses.data(), columns,
                qsizetype(d.outputBuses[0].size()));
}

// Step 6: every sink takes the output buses behind the device's -----------------------------------

void feedSinks(Engine::Data &d, const Block &block) noexcept
{
    if (!block.mixing)
        return;
    unsigned offset = block.outputs;
    for (Sink *sink : d.sinks) {
        const unsigned channels = busesOf(sink);
        if (offset + channels > d.outputBuses.size())
            continue;
        Bus *const buses = d.outputBuses.data() + offset;
        if (SinkAccess::isRunning(*sink))
            sink->mixer_callback(buses, int(channels), block.now);
        else
            sink->Sink::mixer_callback(buses, int(channels), block.now); // the subclass may be gone
        offset += channels;
    }
}

// Step 7: the first output buses become the device's block ----------------------------------------

void giveDeviceOutput(Engine::Data &d, const Block &block, Bus &output) noexcept
{
    if (block.outputs == 0)
        return;
    const BlockSize size(output, size_t(block.outputs) * block.frames);
    const size_t length = d.outputBuses[0].size();
    interleave(d.outputBuses.data(), output, int(block.outputs));
    if (length < block.frames)
        output.zero(length * block.outputs, output.size());
    applyMasterGain(d, output, block.frames, block.outputs, d.masterOutputGainApplied,
                    d.masterOutputGain, d.outputReplacementTold, "device output");
    if (d.outputMeter)
        d.outputMeter->fill(output);
}

// Step 8: the clock goes on, and the block is counted ---------------------------------------------

void endBlock(Engine::Data &d, const Block &block) noexcept
{
    if (block.mixing)
        d.mixTime.store(block.now + block.frames, std::memory_order_relaxed);
    countCallback(d);
}

/// `nanoseconds`: of the whole callback, with its wait for the lock.
void countLoad(Engine::Data &d, qint64 nanoseconds) noexcept
{
    const qint64 load = nanoseconds / 100000;
    d.lastCallbackLoad.store(load, std::memory_order_relaxed);
    d.peakCallbackLoad.store(std::max(d.peakCallbackLoad.load(std::memory_order_relaxed), load),
                             std::memory_order_relaxed);
    d.averageCallbackLoad.store(d.averageCallbackLoad.load(std::memory_order_relaxed) * 0.999 +
                                    double(load) * 0.001,
                                std::memory_order_relaxed);
}

} // namespace

int Engine::Data::mixerCallback(Bus &input, Bus &output, unsigned frames, unsigned status,
                                bool onlyWhenReady) noexcept
{
    const qint64 begin = monotonicNanoseconds();
    Kernels::cleanVectorState();
    const DenormalsAsZero fast;
    {
        const BlockLock lock(updateLock, (status & BlockMustNotWait) == 0,
                             onlyWhenReady ? &freewheelLock : nullptr);
        if (!lock.isLocked())
            return dropBlock(*this);
        const BlockPresence presence(blockNumber);
        if (onlyWhenReady && !blockReady(frames))
            return postponeBlock(*this);
        if (!fits(*this, input, output, frames))
            return dropBlock(*this);

        const Block block = beginBlock(*this, frames);
        takeDeviceInput(*this, block, input);
        const unsigned busCount = renderSources(*this, block);
        mixMatrix(*this, busCount);
        feedSinks(*this, block);
        giveDeviceOutput(*this, block, output);
        endBlock(*this, block);
    }
    countLoad(*this, monotonicNanoseconds() - begin);
    return 0;
}

// Short looks: a block lasts a few milliseconds at most, and few workers end inside one.
void Engine::waitForBlock() const
{
    constexpr unsigned long pause = 50; // µs
    const unsigned number = d->blockNumber.load();
    while ((number & 1) != 0 && d->blockNumber.load() == number)
        QThread::usleep(pause);
}

int Engine::mixerCallback(Bus &input, Bus &output, unsigned int frames, double streamTime,
                          unsigned int status) noexcept
{
    Q_UNUSED(streamTime)
    return d->mixerCallback(input, output, frames, status);
}

quint64 Engine::droppedBlocks() const
{
    return d->droppedBlocks;
}

quint64 Engine::replacedSamples() const
{
    return d->replacedSamples.load(std::memory_order_relaxed);
}

} // namespace QTovelMixer
