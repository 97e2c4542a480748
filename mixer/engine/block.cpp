// SPDX-License-Identifier: MIT
// The block callback. Everything here runs on the audio thread: no allocation, no lock but the
// update lock, no log, no signal.
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

/// Frames that a bus has room for: its capacity without the spare samples past its end.
size_t room(const Bus &bus) noexcept
{
    constexpr size_t spare = 32;
    return bus.capacity() > spare ? bus.capacity() - spare : bus.capacity();
}

/// Answers how many samples were not finite then, and were replaced by 0.
size_t applyMasterGain(Bus &block, unsigned frames, unsigned channels, float &applied,
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

void runWithoutSamples(Effect *effect, unsigned frames) noexcept
{
    if (effect)
        effect->process(nullptr, int(effect->numChannels()), int(frames));
}

} // namespace

int Engine::Data::mixerCallback(Bus &input, Bus &output, unsigned frames, unsigned status,
                                bool onlyWhenReady) noexcept
{
    const qint64 begin = monotonicNanoseconds();
    Kernels::cleanVectorState();
    const DenormalsAsZero fast;
    {
        const BlockLock lock(updateLock, (status & 0x4) == 0, onlyWhenReady ? &holdLock : nullptr);
        if (!lock.isLocked()) {
            droppedBlocks.fetch_add(1, std::memory_order_relaxed);
            return 0;
        }
        const BlockPresence presence(blockNumber);
        if (onlyWhenReady && !blockReady(frames)) {
            // For the watchdog: the backend is alive.
            countCallback();
            return BlockNotReady;
        }
        const unsigned inCh = std::min<unsigned>(numInputChannels, unsigned(inputBuses.size()));
        const unsigned outCh = std::min<unsigned>(numOutputChannels, unsigned(outputBuses.size()));
        if (input.size() < size_t(numInputChannels) * frames ||
            output.size() < size_t(numOutputChannels) * frames) {
            droppedBlocks.fetch_add(1, std::memory_order_relaxed);
            return 0;
        }

        const bool mixing = holdCount.load() == 0 && resuming.load() == 0;
        const qint64 now = mixTime.load(std::memory_order_relaxed);
        setBlockLength(frames);

        if (inCh > 0) {
            const BlockSize size(input, size_t(inCh) * frames);
            const size_t replaced =
                applyMasterGain(input, frames, inCh, masterInputGainApplied,
                                masterInputGain.load(std::memory_order_relaxed));
            if (replaced > 0) [[unlikely]]
                countReplaced(replaced, inputReplacementTold, "device input");
            if (inputMeter)
                inputMeter->fill(input);
            if (inputEffect && inputEffectBypass.load(std::memory_order_relaxed) == 0)
                EffectAccess::run(*inputEffect, input.data(), int(inCh), int(frames));
            de_interleave(input, inputBuses.data(), int(inCh));
        }

        const unsigned busCount = mixSources(inCh, mixing, frames, now);
        mixMatrix(busCount);
        if (mixing)
            feedSinks(outCh, now);

        if (outCh > 0) {
            const BlockSize size(output, size_t(outCh) * frames);
            const size_t length = outputBuses[0].size();
            interleave(outputBuses.data(), output, int(outCh));
            if (length < frames)
                output.zero(length * outCh, output.size());
            const size_t replaced =
                applyMasterGain(output, frames, outCh, masterOutputGainApplied,
                                masterOutputGain.load(std::memory_order_relaxed));
            if (replaced > 0) [[unlikely]]
                countReplaced(replaced, outputReplacementTold, "device output");
            if (outputMeter)
                outputMeter->fill(output);
        }

        if (mixing)
            mixTime.store(now + frames, std::memory_order_relaxed);
        countCallback();
    }
    const qint64 load = (monotonicNanoseconds() - begin) / 100000;
    lastCallbackLoad.store(load, std::memory_order_relaxed);
    peakCallbackLoad.store(std::max(peakCallbackLoad.load(std::memory_order_relaxed), load),
                           std::memory_order_relaxed);
    averageCallbackLoad.store(averageCallbackLoad.load(std::memory_order_relaxed) * 0.999 +
                                  double(load) * 0.001,
                              std::memory_order_relaxed);
    return 0;
}

// Under the update lock there is one writer, who needs no locked addition.
void Engine::Data::countCallback() noexcept
{
    callbackCount.store(callbackCount.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
}

[[gnu::cold]] void Engine::Data::countReplaced(size_t samples, bool &told,
                                               const char *place) noexcept
{
    replacedSamples.fetch_add(samples, std::memory_order_relaxed);
    if (std::exchange(told, true))
        return;
    // Inside a callback it goes the way of trace lines.
    assumeNonblocking([place] {
        BLDEBUG_Error(-1, "QTovelMixer::Engine: Samples that are not finite count as 0 (%s)!!",
                      place);
    });
}

// Buses are made for the device's block, but work in the length of this one, so that what
// sources render and what the clock advances are the same number of frames.
void Engine::Data::setBlockLength(unsigned frames) noexcept
{
    for (std::vector<Bus> *buses : {&inputBuses, &outputBuses}) {
        for (Bus &bus : *buses) {
            if (bus.size() != frames)
                BufferAccess::setSize(bus, std::min<size_t>(frames, room(bus)));
        }
    }
}

unsigned Engine::Data::mixSources(unsigned firstBus, bool mixing, unsigned frames,
                                  qint64 now) noexcept
{
    Effect *effect =
        outputEffectBypass.load(std::memory_order_relaxed) == 0 ? outputEffect : nullptr;
    if (!mixing || sources.empty()) {
        runWithoutSamples(effect, frames);
        return mixing ? firstBus : 0;
    }
    TimelineAccess::remember(*timeline, seconds(now));
    Bus *const buses = inputBuses.data();
    const size_t room = inputBuses.size();
    unsigned busCount = firstBus;
    for (Source *source : sources) {
        const unsigned channels = busesOf(source);
        // A source for which the device left no room has no buses.
        if (busCount + channels > room)
            continue;
        source->mixer_callback(buses + busCount, int(channels), now, effect);
        effect = nullptr;
        busCount += channels;
    }
    return busCount;
}

void Engine::Data::mixMatrix(unsigned busCount) noexcept
{
    // A device may have more channels than the mix.
    const int rows = int(std::min(busCount, maxChannels));
    const int columns = int(std::min<size_t>(outputBuses.size(), maxChannels));
    if (columns == 0)
        return;
    const bool isPlanned = plan->watchesCells() ? plan->matches(matrix, rows, columns)
                                                : plan->isFor(matrix, rows, columns);
    // While suspended nothing is mixed, and the plan stays for afterwards.
    if (rows > 0 && !isPlanned)
        plan->rebuild(matrix, rows, columns);
    plan->mix(inputBuses.data(), rows, outputBuses.data(), columns,
              qsizetype(outputBuses[0].size()));
}

void Engine::Data::feedSinks(unsigned firstBus, qint64 now) noexcept
{
    unsigned offset = firstBus;
    for (Sink *sink : sinks) {
        const unsigned channels = busesOf(sink);
        if (offset + channels > outputBuses.size())
            continue;
        Bus *const buses = outputBuses.data() + offset;
        if (SinkAccess::isRunning(*sink))
            sink->mixer_callback(buses, int(channels), now);
        else
            sink->Sink::mixer_callback(buses, int(channels), now); // the subclass may be gone
        offset += channels;
    }
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

} // namespace QTovelMixer
