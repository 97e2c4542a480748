// SPDX-License-Identifier: MIT
// What a meter measures and publishes.
#include <mixer/meter/meter_p.h>

#include <base/ringbuffer.h>
#include <dsp/statistics.h>
#include <mixer/meter/ballistics_p.h>
#include <mixer/meter/meter_values.h>

#include <QtCore/QDebug>

#include <algorithm>
#include <limits>

namespace QTovelMixer {

namespace {

constexpr int blocksInRing = 16;
constexpr double levelHoldTime = 0.05; // seconds
constexpr double peakHoldTime = 2.0;
constexpr double audible = 0.0001; // sum of the holds, linear
constexpr int statisticsOption = 16;
constexpr unsigned levelMeasures = 0x7C00;
constexpr unsigned truePeakMeasures = 0x200;

int ringBytes(int blockFrames, int numChannels)
{
    const qint64 frameBytes = qint64(numChannels) * qint64(sizeof(float));
    if (frameBytes <= 0)
        return 0;
    const qint64 wanted = qint64(blockFrames) * blocksInRing * frameBytes;
    const qint64 most = std::numeric_limits<qint32>::max() / frameBytes * frameBytes;
    return int(std::clamp<qint64>(wanted, 0, most));
}

} // namespace

Meter::Data::Data(Type side, int rate, int channels, std::vector<bool> flags)
    : type(side), sampleRate(rate), numChannels(std::max(channels, 0)),
      blockFrames(int(std::clamp<qint64>(qint64(rate) * 42 / 1000, 0, 1 << 20))),
      ringBuffer(BLRINGBUFFER_NewEx(ringBytes(blockFrames, numChannels), 1)),
      enabledChannels(std::move(flags)),
      levelStats(DSPB_StatisticsCreate(sampleRate, numChannels, statisticsOption, levelMeasures)),
      level(size_t(numChannels)), holdLevel(size_t(numChannels)), levelHold(size_t(numChannels)),
      holdLevelHold(size_t(numChannels)), publishedLevel(size_t(numChannels)),
      publishedHoldLevel(size_t(numChannels)), publishedEnabled(enabledChannels)
{}

Meter::Data::~Data()
{
    BLRINGBUFFER_Destroy(&ringBuffer);
    DSPB_StatisticsDestroy(&levelStats);
    DSPB_StatisticsDestroy(&truePeakStats);
    qInfo() << "Finalized" << toString(type) << "meter!";
}

bool Meter::Data::enabled(const std::vector<bool> &flags, int channel, int channels)
{
    return channel >= 0 && channel < channels && size_t(channel) < flags.size() &&
           flags[size_t(channel)];
}

void Meter::Data::rebuildActiveChannels()
{
    activeChannels.clear();
    for (int channel = 0; channel < numChannels; ++channel) {
        if (enabled(enabledChannels, channel, numChannels))
            activeChannels.push_back(channel);
    }
    DSPB_StatisticsDestroy(&levelStats);
    DSPB_StatisticsDestroy(&truePeakStats);
    const int active = int(activeChannels.size());
    if (active > 0) {
        levelStats = DSPB_StatisticsCreate(sampleRate, active, statisticsOption, levelMeasures);
        if (truePeakEnabled)
            truePeakStats =
                DSPB_StatisticsCreate(sampleRate, active, statisticsOption, truePeakMeasures);
    }
    for (auto *values : {&level, &holdLevel, &truePeakLevel, &truePeakHoldLevel})
        std::fill(values->begin(), values->end(), 0.0);
    for (auto *counts : {&levelHold, &holdLevelHold, &truePeakHold, &truePeakHoldLevelHold})
        std::fill(counts->begin(), counts->end(), 0);
    rebuildNeeded = false;
}

// The statistics take the active channels alone, frame after frame.
const float *Meter::Data::compact(const float *frames, int numFrames)
{
    const size_t active = activeChannels.size();
    if (active == size_t(numChannels))
        return frames;
    scratch.resize(active * size_t(numFrames));
    float *out = scratch.data();
    for (int frame = 0; frame < numFrames; ++frame, frames += numChannels) {
        for (const int channel : activeChannels)
            *out++ = frames[channel];
    }
    return scratch.data();
}

double Meter::Data::measure(const float *frames, int numFrames)
{
    const float *measured = compact(frames, numFrames);
    DSPB_StatisticsAddFrames(levelStats, measured, numFrames);
    DSPB_StatisticsAddFrames(truePeakStats, measured, numFrames);
    DSPB_StatisticsMomentaryLoudness(levelStats, &momentaryLoudness);
    DSPB_StatisticsShortTermLoudness(levelStats, &shortTermLoudness);
    const bool falling = stopRequested;
    const auto follow = [&](double &value, int &hold, double peak, double holdTime) {
        followPeak(value, hold, peak, holdTime, sampleRate, numFrames);
    };
    double sum = 0.0;
    for (int i = 0; i < int(activeChannels.size()); ++i) {
        const size_t channel = size_t(activeChannels[size_t(i)]);
        double peak = 0.0;
        DSPB_StatisticsMomentarySamplePeak(levelStats, i, &peak);
        if (falling)
            peak = 0.0;
        follow(level[channel], levelHold[channel], peak, levelHoldTime);
        follow(holdLevel[channel], holdLevelHold[channel], peak, peakHoldTime);
        if (truePeakStats) {
            double truePeak = 0.0;
            DSPB_StatisticsMomentaryTruePeak(truePeakStats, i, &truePeak);
            if (falling)
                truePeak = 0.0;
            follow(truePeakLevel[channel], truePeakHold[channel], truePeak, levelHoldTime);
            follow(truePeakHoldLevel[channel], truePeakHoldLevelHold[channel], truePeak,
                   peakHoldTime);
        }
        sum += holdLevel[channel];
    }
    return sum;
}

void Meter::Data::publishValues()
{
    const QMutexLocker locker(&valuesMutex);
    publishedMomentary = momentaryLoudness;
    publishedShortTerm = shortTermLoudness;
    publishedLevel = level;
    publishedHoldLevel = holdLevel;
    publishedEnabled = enabledChannels;
    publishedHasTruePeak = truePeakStats != nullptr;
    if (publishedHasTruePeak) {
        publishedTruePeak = truePeakLevel;
        publishedTruePeakHold = truePeakHoldLevel;
    }
}

void Meter::updateStatistics(const float *frames, int numFrames)
{
    double sum = 0.0;
    {
        const QMutexLocker locker(&d->statsMutex);
        if (d->rebuildNeeded)
            d->rebuildActiveChannels();
        if (!d->activeChannels.empty() && numFrames > 0)
            sum = d->measure(frames, numFrames);
        d->publishValues();
    }
    if (sum > audible)
        emit meterValuesChanged();
    else if (d->stopRequested)
        stop(true);
}

bool Meter::channelEnabled(int channel) const
{
    const QMutexLocker locker(&d->statsMutex);
    return Data::enabled(d->enabledChannels, channel, d->numChannels);
}

bool Meter::setChannelEnabled(int channel, bool enabled)
{
    const QMutexLocker locker(&d->statsMutex);
    if (channel < 0 || channel >= d->numChannels || size_t(channel) >= d->enabledChannels.size() ||
        d->enabledChannels[size_t(channel)] == enabled)
        return false;
    d->enabledChannels[size_t(channel)] = enabled;
    d->rebuildNeeded = true;
    return true;
}

int Meter::numMeterChannels() const
{
    const QMutexLocker locker(&d->statsMutex);
    int count = 0;
    for (int channel = 0; channel < d->numChannels; ++channel)
        count += Data::enabled(d->enabledChannels, channel, d->numChannels);
    return count;
}

void Meter::setTruePeakEnabled(bool enabled)
{
    const QMutexLocker locker(&d->statsMutex);
    if (d->truePeakEnabled == enabled)
        return;
    d->truePeakEnabled = enabled;
    const size_t size = enabled ? size_t(d->numChannels) : 0;
    for (auto *values : {&d->truePeakLevel, &d->truePeakHoldLevel})
        values->assign(size, 0.0);
    for (auto *counts : {&d->truePeakHold, &d->truePeakHoldLevelHold})
        counts->assign(size, 0);
    d->rebuildNeeded = true;
}

bool Meter::isTruePeakEnabled() const
{
    const QMutexLocker locker(&d->statsMutex);
    return d->truePeakEnabled;
}

namespace {

// NaN differs from everything, itself included.
bool take(double &value, double published)
{
    if (value == published)
        return false;
    value = published;
    return true;
}

bool take(float &value, double published)
{
    if (double(value) == published)
        return false;
    value = float(published);
    return true;
}

bool take(int &value, int published)
{
    if (value == published)
        return false;
    value = published;
    return true;
}

} // namespace

bool Meter::getValues(MeterValues &values) const
{
    const QMutexLocker locker(&d->valuesMutex);
    bool changed = take(values.m_momentaryLoudness, d->publishedMomentary);
    changed |= take(values.m_shortTermLoudness, d->publishedShortTerm);
    int slot = 0;
    for (int i = 0; i < d->numChannels && slot < MeterValues::capacity; ++i) {
        if (!Data::enabled(d->publishedEnabled, i, d->numChannels))
            continue;
        const size_t channel = size_t(i);
        changed |= take(values.m_level[slot], d->publishedLevel[channel]);
        changed |= take(values.m_holdLevel[slot], d->publishedHoldLevel[channel]);
        if (d->publishedHasTruePeak) {
            changed |= take(values.m_truePeakLevel[slot], d->publishedTruePeak[channel]);
            changed |= take(values.m_truePeakHoldLevel[slot], d->publishedTruePeakHold[channel]);
        }
        changed |= take(values.m_channelIndex[slot], i);
        ++slot;
    }
    changed |= take(values.m_numChannels, slot);
    return changed;
}

} // namespace QTovelMixer
