// SPDX-License-Identifier: MIT
#include <mixer/meter/programme_meter_p.h>

#include <mixer/meter/peak_reading.h>

#include <algorithm>

namespace QTovelMixer {

namespace {

double largestTruePeak(const DSPB_Statistics *statistics, int channels)
{
    double largest = 0.0;
    for (int channel = 0; channel < channels; ++channel) {
        double peak = 0.0;
        DSPB_StatisticsMomentaryTruePeak(statistics, channel, &peak);
        largest = std::max(largest, peak);
    }
    return largest;
}

} // namespace

ProgrammeMeter::ProgrammeMeter(int sampleRate) : m_sampleRate(sampleRate), m_loudness(sampleRate) {}

void ProgrammeMeter::setChannels(const std::vector<double> &weights, bool truePeaksElsewhere)
{
    constexpr int reserved = 16;
    StatisticsHandle truePeaks;
    if (!weights.empty() && !truePeaksElsewhere)
        truePeaks.reset(DSPB_StatisticsCreate(m_sampleRate, int(weights.size()), reserved,
                                              DSPB_MeasureTruePeak));
    m_loudness.setChannels(weights);
    m_truePeaks = std::move(truePeaks);
    m_channels = int(weights.size());
}

void ProgrammeMeter::add(const float *frames, int count, const DSPB_Statistics *truePeaks) noexcept
{
    if (m_channels == 0)
        return;
    const double began = m_loudness.seconds();
    m_loudness.add(frames, count);
    // While paused too: its filter looks back at the frames before.
    DSPB_StatisticsAddFrames(m_truePeaks.get(), frames, count);
    if (!m_loudness.isRunning())
        return;
    const double peak = largestTruePeak(m_truePeaks ? m_truePeaks.get() : truePeaks, m_channels);
    if (peak > m_maxTruePeak) {
        m_maxTruePeak = peak;
        m_reading.maxTruePeakTime = began;
    }
}

void ProgrammeMeter::reset() noexcept
{
    m_loudness.reset();
    m_maxTruePeak = 0.0;
    m_reading.maxTruePeakTime = 0.0;
}

const LoudnessReading &ProgrammeMeter::reading() noexcept
{
    constexpr double silence = -120.0;
    m_reading.state = m_loudness.isRunning() ? MeasurementState::MeasurementRunning
                                             : MeasurementState::MeasurementPaused;
    m_reading.seconds = m_loudness.seconds();
    m_reading.momentary = m_loudness.momentary();
    m_reading.shortTerm = m_loudness.shortTerm();
    const auto momentary = m_loudness.maxMomentary();
    m_reading.maxMomentary = momentary.lufs;
    m_reading.maxMomentaryTime = momentary.seconds;
    const auto shortTerm = m_loudness.maxShortTerm();
    m_reading.maxShortTerm = shortTerm.lufs;
    m_reading.maxShortTermTime = shortTerm.seconds;
    m_reading.maxTruePeak = PeakReading::decibels(m_maxTruePeak);
    if (m_readRevision != m_loudness.gateRevision()) {
        m_readRevision = m_loudness.gateRevision();
        const LoudnessGate &gate = m_loudness.gate();
        m_reading.integrated = gate.integrated();
        m_reading.relativeThreshold = gate.relativeThreshold();
        const LoudnessGate::Range range = gate.range();
        m_reading.range = range.range;
        m_reading.rangeLow = range.low;
        m_reading.rangeHigh = range.high;
    }
    const bool known = m_reading.integrated > silence && m_reading.maxTruePeak > silence;
    m_reading.peakToLoudness = known ? m_reading.maxTruePeak - m_reading.integrated : 0.0;
    return m_reading;
}

} // namespace QTovelMixer
