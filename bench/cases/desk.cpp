// SPDX-License-Identifier: MIT
#include "cases/desk.h"

#include <cstring>
#include <random>

using namespace QTovelMixer;

namespace Bench {

ClipSource::ClipSource(Engine *engine, unsigned clipFrames, unsigned seed)
    : Source(engine, 48000, 2, 5.0f), m_clip(size_t(clipFrames) * 2)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    for (float &sample : m_clip)
        sample = value(random);
    auto &data = SourceAccess::data(*this);
    m_ring = &data.ringOwner.emplace(clipFrames, 2);
    std::memcpy(m_ring->writeSlice().data, m_clip.data(), m_clip.size() * sizeof(float));
    m_ring->produce(clipFrames);
    data.ring = m_ring;
    data.running = 1;
    setGain(0.5f);
}

void ClipSource::refill(qint64 frames)
{
    m_ring->produce(frames);
}

ClipSource::~ClipSource()
{
    SourceAccess::data(*this).running = 0;
}

Desk::Desk(int sourceCount, unsigned clipFrames, unsigned inputs, unsigned outputs, unsigned frames,
           bool metered)
    : m_frames(frames)
{
    Engine::Data &data = EngineAccess::shipped(engine);
    data.active = true;
    data.timeline->setLimits(0.0, 1.0e6);
    data.masterOutputGain = 0.8f;
    data.masterOutputGainApplied = 0.8f;
    data.numInputChannels = inputs;
    data.numOutputChannels = outputs;
    data.inputBuses = Engine::Data::makeBuses(inputs + unsigned(sourceCount) * 2, frames);
    data.outputBuses = Engine::Data::makeBuses(outputs, frames);
    input = aligned_vector<float, 16>(size_t(inputs) * frames);
    input = 0.25f;
    output = aligned_vector<float, 16>(size_t(outputs) * frames);
    m_refilled = clipFrames / 2;
    for (int i = 0; i < sourceCount; ++i) {
        sources.push_back(std::make_unique<ClipSource>(&engine, clipFrames, unsigned(i)));
        sources.back()->setTimeline(data.timeline);
        data.sources.push_back(sources.back().get());
        for (unsigned channel = 0; channel < 2; ++channel)
            data.matrix.setCell(inputs + unsigned(i) * 2 + channel, channel, 0.5f);
    }
    if (metered) {
        // A parent keeps it on this thread, whose events nobody handles: it only takes blocks.
        m_meter =
            std::make_unique<Meter>(Type::Output, 48000, int(outputs), MeterConfig(), &engine);
        m_meter->start();
        m_meterRing = MeterAccess::data(*m_meter).ringBuffer.get();
        data.outputMeter = m_meter.get();
    }
    plan();
}

void Desk::plan()
{
    EngineAccess::shipped(engine).planMix();
}

Desk::~Desk()
{
    Engine::Data &data = EngineAccess::shipped(engine);
    data.sources.clear();
    data.outputMeter = nullptr;
    data.active = false;
}

void Desk::refill()
{
    for (const auto &source : sources)
        source->refill(m_taken);
    m_taken = 0;
}

} // namespace Bench
