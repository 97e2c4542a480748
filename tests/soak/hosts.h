// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SOAK_HOSTS_H
#define QTOVELMIXER_TESTS_SOAK_HOSTS_H

#include "expectation.h"
#include "material.h"

#include <mixer/io/sink.h>
#include <mixer/io/source.h>

#include <array>
#include <cmath>

/// Plays the material of one slot. What it says of its length decides the limits of the timeline.
class SoakSource : public QTovelMixer::Source
{
public:
    SoakSource(QTovelMixer::Engine *engine, int slot, Ledger &ledger)
        : Source(engine, Material::rateOf(slot), 1, 5.0f), m_slot(slot), m_ledger(ledger)
    {}
    ~SoakSource() override
    {
        stop(QTovelMixer::NoReason);
        wait();
    }

    double contentStart() const override
    {
        return double(m_ledger.score.stretches.front().begin) / Material::mixerRate;
    }
    double contentDuration() const override
    {
        return double(m_ledger.score.stretches.back().end) / Material::mixerRate - contentStart();
    }
    bool acceptPause(QTovelMixer::PauseMode mode) override
    {
        return mode == QTovelMixer::PauseSoft;
    }

    // Between two blocks, and before any of them has reached a sink.
    void setTime(double time) override
    {
        Source::setTime(time);
        m_ledger.joined[size_t(m_slot)] = std::llround(time * Material::mixerRate);
    }

    int readSamples(float *buffer, int frames, int, double time) override
    {
        const int rate = sampleRate();
        // The planted fault: one chunk that begins a frame too late.
        const qint64 first =
            std::llround(time * rate) + (faultAfterChunks >= 0 && faultAfterChunks-- == 0 ? 1 : 0);
        if (rate == Material::mixerRate) {
            for (int frame = 0; frame < frames; ++frame)
                buffer[frame] = Material::ramp(m_slot, first + frame);
        } else {
            const Tones &tones = Material::tones(rate);
            for (int frame = 0; frame < frames; ++frame)
                buffer[frame] = tones.sample(m_slot, first + frame);
        }
        return frames;
    }

    int faultAfterChunks = -1;

private:
    using Tones = Material::Tones;

    const int m_slot;
    Ledger &m_ledger;
};

/// Compares what it records with what each of its channels expects.
class SoakSink : public QTovelMixer::Sink
{
public:
    static constexpr int channels = 2;

    SoakSink(QTovelMixer::Engine *engine, Ledger &ledger)
        : Sink(engine, 5.0f), m_ledger(ledger), m_expected{Expectation(ledger), Expectation(ledger)}
    {}
    ~SoakSink() override
    {
        stop(QTovelMixer::NoReason);
        wait();
    }

    Expectation &expected(int channel) { return m_expected[size_t(channel)]; }

    int numChannels() const override { return channels; }
    int sampleRate() const override { return Material::mixerRate; }

    // Between two hand-overs: of a jump the worker sees either nothing or all.
    void setTime(double time) override
    {
        Sink::setTime(time);
        m_next = std::llround(time * Material::mixerRate);
        for (Expectation &expectation : m_expected)
            expectation.jump(m_next);
    }

    void writeSamples(float *buffer, int frames, int, double time) override
    {
        const qint64 frame = std::llround(time * Material::mixerRate);
        if (frame != m_next)
            m_ledger.reportLoss(QStringLiteral("recorded %1 follows %2").arg(frame).arg(m_next - 1),
                                std::abs(frame - m_next) * channels);
        for (int channel = 0; channel < channels; ++channel)
            m_expected[size_t(channel)].verify(buffer + channel, frame, frames, channels);
        m_next = frame + frames;
        m_ledger.frames += frames;
    }

private:
    Ledger &m_ledger;
    std::array<Expectation, channels> m_expected;
    qint64 m_next = 0;
};

#endif
