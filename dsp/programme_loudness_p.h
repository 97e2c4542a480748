// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_DSP_PROGRAMME_LOUDNESS_P_H
#define QTOVELMIXER_DSP_PROGRAMME_LOUDNESS_P_H

#include <dsp/loudness_gate_p.h>
#include <dsp/weighted_energy_p.h>

#include <cstdint>
#include <vector>

namespace QTovelMixer {

/// The loudness of a programme after ITU-R BS.1770-5, EBU R 128, Tech 3341 and Tech 3342:
/// momentary (400 ms), short-term (3 s), integrated, range, and the largest momentary and
/// short-term loudness with their places.
///
/// All windows move in hops of 5 ms, counted from the first frame, however the frames come. The
/// gates get a block every 20 hops, that is every 100 ms. Momentary and short-term loudness go on
/// all the time; everything else takes in only what comes while the measurement runs: no window of
/// it reaches back beyond the last start.
class ProgrammeLoudness
{
public:
    /// `sampleRate` is 1 … 1 536 000 Hz.
    explicit ProgrammeLoudness(int sampleRate);

    static constexpr int hopsPerSecond = 200;

    /// Measures channels with these weights (1 … 128 of them) from now on. The filters and windows
    /// start from silence, as after a pause; what was measured stays.
    void setChannels(const std::vector<double> &weights);

    /// Adds interleaved frames of as many channels as there are weights. Samples that are not
    /// finite count as 0. Real-time: yes.
    void add(const float *frames, int count) noexcept;

    bool isRunning() const noexcept { return m_running; }
    /// Starts, goes on, or pauses. What the hop under way holds from before a start is left out
    /// with that hop.
    void setRunning(bool running) noexcept;
    /// Forgets what was measured; a running measurement runs on from here.
    void reset() noexcept;

    /// The place of a largest value: the end of its window in seconds of measured time.
    struct Maximum
    {
        double lufs = -120.0;
        double seconds = 0.0;
    };

    double momentary() const noexcept; ///< LUFS
    double shortTerm() const noexcept; ///< LUFS
    Maximum maxMomentary() const noexcept;
    Maximum maxShortTerm() const noexcept;
    const LoudnessGate &gate() const noexcept { return m_gate; }
    /// Counts up with every block that the gates got, and with every reset.
    uint64_t gateRevision() const noexcept { return m_gateRevision; }
    /// Measured since the last reset, without pauses.
    double seconds() const noexcept { return double(m_measuredHops) / hopsPerSecond; }

private:
    struct Peak
    {
        double energy = 0.0;
        int64_t hop = 0;
    };

    void begin() noexcept;
    void addHop(double energy) noexcept;
    void measureHop() noexcept;
    double energyOf(int hops) const noexcept;
    Maximum maximum(const Peak &peak, int hops) const noexcept;

    WeightedEnergy m_energy;
    // Each hop stands twice, a ring's length apart, so that every window is one run.
    std::vector<double> m_energies;
    int m_next = 0;

    bool m_running = false;
    bool m_leavesHopOut = false;
    int64_t m_wholeHops = 0;    // since the last start
    int64_t m_measuredHops = 0; // since the last reset
    Peak m_maxMomentary;
    Peak m_maxShortTerm;
    LoudnessGate m_gate;
    uint64_t m_gateRevision = 0;
};

} // namespace QTovelMixer

#endif
