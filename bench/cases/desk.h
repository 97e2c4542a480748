// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_CASES_DESK_H
#define QTOVELMIXER_BENCH_CASES_DESK_H

#include <mixer/engine_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_p.h>

#include <memory>
#include <vector>

namespace Bench {

inline constexpr unsigned blockFrames = 256;

/// A source whose ring holds its whole clip and never runs dry: what the mix has taken is committed
/// again, so that the clip plays in a loop. No worker runs.
class ClipSource : public QTovelMixer::Source
{
public:
    ClipSource(QTovelMixer::Engine *engine, unsigned clipFrames, unsigned seed);
    ~ClipSource() override;

    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 1.0e6; }
    bool acceptPause(QTovelMixer::PauseMode) override { return true; }
    int readSamples(float *, int, int, double) override { return 0; }

    /// Commits again what the mix has taken.
    void refill(qint64 frames);
    const float *clip() const { return m_clip.data(); }

private:
    QTovelMixer::FrameRing *m_ring;
    std::vector<float> m_clip;
};

class FixedRateEngine : public QTovelMixer::Engine
{
public:
    FixedRateEngine() : Engine(nullptr) {}
    unsigned int sampleRate() const override { return 48000; }
};

/// An engine without a device whose buses, sources and output meter are made by hand; its callback
/// is called as a device's thread does.
class Desk
{
public:
    Desk(int sourceCount, unsigned clipFrames, unsigned inputs = 0, unsigned outputs = 2,
         unsigned frames = blockFrames, bool metered = true);
    ~Desk();

    /// Plans what is in the matrix; it is then no longer compared in every block, as in a host's
    /// engine, whose own functions alone write it.
    void plan();

    /// One block.
    void mix()
    {
        engine.mixerCallback(input, output, m_frames, 0.0, 0x4);
        m_taken += m_frames;
        if (m_taken >= m_refilled)
            refill();
        if (m_meterRing)
            BLRINGBUFFER_Consume(m_meterRing, int32_t(output.size() * sizeof(float)));
    }

    FixedRateEngine engine;
    QTovelMixer::aligned_vector<float, 16> input;
    QTovelMixer::aligned_vector<float, 16> output;
    std::vector<std::unique_ptr<ClipSource>> sources;

private:
    /// Now and then, as workers do.
    void refill();

    const unsigned m_frames;
    unsigned m_taken = 0;
    unsigned m_refilled = 0; ///< frames at once
    std::unique_ptr<QTovelMixer::Meter> m_meter;
    BLRINGBUFFER *m_meterRing = nullptr;
};

} // namespace Bench

#endif
