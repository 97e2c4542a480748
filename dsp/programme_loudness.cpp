// SPDX-License-Identifier: MIT
#include <dsp/programme_loudness_p.h>

#include <dsp/loudness_window_p.h>

#include <algorithm>
#include <cstddef>

namespace QTovelMixer {

namespace {

constexpr int momentaryHops = 80;  // 400 ms
constexpr int shortTermHops = 600; // 3 s
constexpr int gateHops = 20;       // 100 ms: blocks of 400 ms overlap by 75 %
constexpr int shortTermEvery = 2;  // 10 ms, for the largest one
constexpr int ringHops = shortTermHops;

} // namespace

ProgrammeLoudness::ProgrammeLoudness(int sampleRate)
    : m_energy(sampleRate, hopsPerSecond), m_energies(2 * size_t(ringHops))
{}

void ProgrammeLoudness::setChannels(const std::vector<double> &weights)
{
    m_energy.setChannels(weights);
    std::fill(m_energies.begin(), m_energies.end(), 0.0);
    m_next = 0;
    begin();
}

void ProgrammeLoudness::add(const float *frames, int count) noexcept
{
    if (m_energy.channels() == 0)
        return;
    while (count > 0) {
        const int taken = m_energy.add(frames, count);
        frames += ptrdiff_t(taken) * m_energy.channels();
        count -= taken;
        // At rates below 200 Hz some hops have no frame.
        while (m_energy.missingFrames() == 0)
            addHop(m_energy.takeHop());
    }
}

void ProgrammeLoudness::addHop(double energy) noexcept
{
    m_energies[size_t(m_next)] = energy;
    m_energies[size_t(m_next + ringHops)] = energy;
    m_next = m_next + 1 == ringHops ? 0 : m_next + 1;
    if (!m_running)
        return;
    if (m_leavesHopOut)
        m_leavesHopOut = false;
    else
        measureHop();
}

void ProgrammeLoudness::measureHop() noexcept
{
    ++m_wholeHops;
    ++m_measuredHops;
    const auto reach = [this](int hops) { return int(std::min<int64_t>(hops, m_wholeHops)); };
    const bool gateIsDue = m_wholeHops % gateHops == 0;

    const double momentary = energyOf(reach(momentaryHops));
    if (momentary > m_maxMomentary.energy)
        m_maxMomentary = {momentary, m_measuredHops};
    if (gateIsDue && m_wholeHops >= momentaryHops) {
        m_gate.addBlock(m_energy.meanSquare(momentary, momentaryHops));
        ++m_gateRevision;
    }

    if (m_wholeHops % shortTermEvery != 0)
        return;
    const double shortTerm = energyOf(reach(shortTermHops));
    if (shortTerm > m_maxShortTerm.energy)
        m_maxShortTerm = {shortTerm, m_measuredHops};
    if (gateIsDue && m_wholeHops >= shortTermHops)
        m_gate.addShortTerm(m_energy.meanSquare(shortTerm, shortTermHops));
}

void ProgrammeLoudness::begin() noexcept
{
    m_wholeHops = 0;
    m_leavesHopOut = m_energy.isInsideHop();
}

void ProgrammeLoudness::setRunning(bool running) noexcept
{
    if (running && !m_running)
        begin();
    m_running = running;
}

void ProgrammeLoudness::reset() noexcept
{
    begin();
    m_measuredHops = 0;
    m_maxMomentary = {};
    m_maxShortTerm = {};
    m_gate.clear();
    ++m_gateRevision;
}

double ProgrammeLoudness::energyOf(int hops) const noexcept
{
    return sumOf(m_energies.data() + m_next + ringHops - hops, hops);
}

ProgrammeLoudness::Maximum ProgrammeLoudness::maximum(const Peak &peak, int hops) const noexcept
{
    return {LoudnessWindow::loudness(m_energy.meanSquare(peak.energy, hops)),
            double(peak.hop) / hopsPerSecond};
}

double ProgrammeLoudness::momentary() const noexcept
{
    return LoudnessWindow::loudness(m_energy.meanSquare(energyOf(momentaryHops), momentaryHops));
}

double ProgrammeLoudness::shortTerm() const noexcept
{
    return LoudnessWindow::loudness(m_energy.meanSquare(energyOf(shortTermHops), shortTermHops));
}

ProgrammeLoudness::Maximum ProgrammeLoudness::maxMomentary() const noexcept
{
    return maximum(m_maxMomentary, momentaryHops);
}

ProgrammeLoudness::Maximum ProgrammeLoudness::maxShortTerm() const noexcept
{
    return maximum(m_maxShortTerm, shortTermHops);
}

} // namespace QTovelMixer
