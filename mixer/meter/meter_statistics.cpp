// SPDX-License-Identifier: MIT
// What a meter measures and publishes.
#include <mixer/meter/meter_p.h>

#include <base/log_line_p.h>
#include <mixer/meter/ballistics_p.h>
#include <mixer/meter/meter_config.h>
#include <mixer/meter/meter_values.h>

#include <algorithm>
#include <limits>

namespace QTovelMixer {

namespace {

constexpr int blocksInRing = 16;
constexpr double levelHoldTime = 0.05; // seconds
constexpr double peakHoldTime = 2.0;   // seconds
constexpr double audible = 0.0001;     // sum of the held levels, linear

// A bound that keeps the arithmetic of bytes in range, far beyond any rate.
constexpr qint64 mostBlockFrames = 1 << 20;

int framesPerBlock(int sampleRate)
{
    return int(std::clamp<qint64>(qint64(sampleRate) * 42 / 1000, 0, mostBlockFrames));
}

int ringBytes(int blockFrames, int numChannels)
{
    const qint64 frameBytes = numChannels * qint64(sizeof(float));
    if (frameBytes == 0)
        return 0;
    const qint64 most = std::numeric_limits<qint32>::max() / frameBytes * frameBytes;
    return int(std::min(blockFrames * blocksInRing * frameBytes, most));
}

// NaN differs from everything. What a float cannot hold exactly differs from it every time.
template <typename Stored, typename Published>
bool update(Stored &stored, Published published)
{
    if (stored == published)
        return false;
    stored = Stored(published);
    return true;
}

} // namespace

Meter::Data::Data(Type side, int rate, int channels, const MeterConfig &config)
    : type(side), sampleRate(rate), numChannels(std::max(channels, 0)),
      blockFrames(framesPerBlock(rate)),
      ringBuffer(BLRINGBUFFER_NewEx(ringBytes(blockFrames, numChannels), 1)),
      enabledChannels(config.isValid() ? config.meters().size() : size_t(numChannels)),
      levelStats(makeStatistics(numChannels, DSPB_MeasureLevels)), level(size_t(numChannels)),
      holdLevel(size_t(numChannels)), levelHold(size_t(numChannels)),
      holdLevelHold(size_t(numChannels)), latches(numChannels), publishedLevel(size_t(numChannels)),
      publishedHoldLevel(size_t(numChannels)), publishedLatches(size_t(numChannels))
{
    for (size_t channel = 0; channel < enabledChannels.size(); ++channel) {
        const bool on = !config.isValid() || config.meters()[channel];
        enabledChannels[channel] = on;
        publishedEnabled.push_back(on);
    }
}

Meter::Data::~Data()
{
    if (timerActive)
        log("QTovelMixer::Meter::Data: Deleting Meter", "with timer still active!");
    log("Finalized", "meter!");
}

void Meter::Data::log(const char *before, const char *after) const
{
    composeLine(QtInfoMsg, [=, this](QDebug &line) { line << before << toString(type) << after; });
}

bool Meter::Data::enabled(int channel) const
{
    return channel >= 0 && channel < numChannels && size_t(channel) < enabledChannels.size() &&
           enabledChannels[size_t(channel)];
}

bool Meter::Data::publishedAsEnabled(int channel) const
{
    return size_t(channel) < publishedEnabled.size() && publishedEnabled[size_t(channel)];
}

Meter::Data::Statistics Meter::Data::makeStatistics(int channels, uint32_t measures) const
{
    constexpr int reserved = 16;
    return Statistics(DSPB_StatisticsCreate(sampleRate, channels, reserved, measures));
}

void Meter::Data::rebuildActiveChannels()
{
    activeChannels.clear();
    for (int channel = 0; channel < numChannels; ++channel) {
        if (enabled(channel))
            activeChannels.push_back(channel);
    }
    levelStats.reset();
    truePeakStats.reset();
    if (const int active = int(activeChannels.size()); active > 0) {
        levelStats = makeStatistics(active, DSPB_MeasureLevels);
        if (truePeakEnabled)
            truePeakStats = makeStatistics(active, DSPB_MeasureTruePeak);
        for (int i = 0; layout.isKnown() && i < active; ++i)
            DSPB_StatisticsSetChannelWeight(levelStats.get(), i,
                                            layout.weight(activeChannels[size_t(i)]));
    }
    weighChannels();
    latches.breakRuns();
    for (auto *levels : {&level, &holdLevel, &truePeakLevel, &truePeakHoldLevel})
        std::fill(levels->begin(), levels->end(), 0.0);
    for (auto *holds : {&levelHold, &holdLevelHold, &truePeakHold, &truePeakHoldLevelHold})
        std::fill(holds->begin(), holds->end(), 0);
    rebuildNeeded = false;
}

// The active channels alone, interleaved.
const float *Meter::Data::compact(const float *frames, int numFrames)
{
    if (activeChannels.size() == size_t(numChannels))
        return frames;
    scratch.resize(activeChannels.size() * size_t(numFrames));
    float *out = scratch.data();
    for (int frame = 0; frame < numFrames; ++frame, frames += numChannels) {
        for (const int channel : activeChannels)
            *out++ = frames[channel];
    }
    return scratch.data();
}

double Meter::Data::measure(const float *frames, int numFrames)
{
    const float *const measured = compact(frames, numFrames);
    DSPB_StatisticsAddFrames(levelStats.get(), measured, numFrames);
    DSPB_StatisticsAddFrames(truePeakStats.get(), measured, numFrames);
    DSPB_StatisticsMomentaryLoudness(levelStats.get(), &momentaryLoudness);
    DSPB_StatisticsShortTermLoudness(levelStats.get(), &shortTermLoudness);

    const bool falling = stopRequested;
    const int levelTime = holdBlocks(levelHoldTime, sampleRate, numFrames);
    const int holdTime = holdBlocks(peakHoldTime, sampleRate, numFrames);
    double sum = 0.0;
    for (size_t i = 0; i < activeChannels.size(); ++i) {
        const size_t channel = size_t(activeChannels[i]);
        double peak = 0.0;
        if (!falling)
            DSPB_StatisticsMomentarySamplePeak(levelStats.get(), int(i), &peak);
        if (!falling)
            latches.addLevel(int(channel), peak,
                             {measured + i, numFrames, int(activeChannels.size())});
        followPeak(level[channel], levelHold[channel], peak, levelTime);
        followPeak(holdLevel[channel], holdLevelHold[channel], peak, holdTime);
        if (truePeakStats) {
            double truePeak = 0.0;
            if (!falling)
                DSPB_StatisticsMomentaryTruePeak(truePeakStats.get(), int(i), &truePeak);
            latches.addTruePeak(int(channel), truePeak);
            followPeak(truePeakLevel[channel], truePeakHold[channel], truePeak, levelTime);
            followPeak(truePeakHoldLevel[channel], truePeakHoldLevelHold[channel], truePeak,
                       holdTime);
        }
        sum += holdLevel[channel];
    }
    if (!falling) {
        latches.advance(numFrames);
        measureProgramme(measured, numFrames);
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
    std::copy(enabledChannels.begin(), enabledChannels.end(), publishedEnabled.begin());
    publishedHasTruePeak = truePeakStats != nullptr;
    if (publishedHasTruePeak) {
        publishedTruePeak = truePeakLevel;
        publishedTruePeakHold = truePeakHoldLevel;
    }
    publishedLatches = latches.latches();
    publishedFrames = latches.frames();
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
        if (d->programme)
            d->publishLoudness();
    }
    if (sum > audible)
        emit meterValuesChanged();
    else if (d->stopRequested)
        stop(true);
}

bool Meter::channelEnabled(int channel) const
{
    return d->enabled(channel);
}

bool Meter::setChannelEnabled(int channel, bool enabled)
{
    const QMutexLocker locker(&d->statsMutex);
    const bool known =
        channel >= 0 && channel < d->numChannels && size_t(channel) < d->enabledChannels.size();
    if (!known || d->enabledChannels[size_t(channel)] == enabled)
        return false;
    d->enabledChannels[size_t(channel)] = enabled;
    d->rebuildNeeded = true;
    return true;
}

int Meter::numMeterChannels() const
{
    int count = 0;
    for (int channel = 0; channel < d->numChannels; ++channel)
        count += d->enabled(channel);
    return count;
}

void Meter::setTruePeakEnabled(bool enabled)
{
    const QMutexLocker locker(&d->statsMutex);
    if (d->truePeakEnabled == enabled)
        return;
    // Even when memory runs out below: what is measured then fits what there is room for.
    d->rebuildNeeded = true;
    const size_t count = enabled ? size_t(d->numChannels) : 0;
    for (auto *levels : {&d->truePeakLevel, &d->truePeakHoldLevel})
        levels->assign(count, 0.0);
    for (auto *holds : {&d->truePeakHold, &d->truePeakHoldLevelHold})
        holds->assign(count, 0);
    d->truePeakEnabled = enabled;
}

bool Meter::isTruePeakEnabled() const
{
    return d->truePeakEnabled;
}

bool Meter::getValues(MeterValues &values) const
{
    const QMutexLocker locker(&d->valuesMutex);
    bool changed = update(values.momentary, d->publishedMomentary);
    changed |= update(values.shortTerm, d->publishedShortTerm);
    int slot = 0;
    for (int c = 0; c < d->numChannels && slot < MeterValues::capacity; ++c) {
        if (!d->publishedAsEnabled(c))
            continue;
        const size_t channel = size_t(c);
        changed |= update(values.levels[slot], d->publishedLevel[channel]);
        changed |= update(values.holdLevels[slot], d->publishedHoldLevel[channel]);
        if (d->publishedHasTruePeak) {
            changed |= update(values.truePeaks[slot], d->publishedTruePeak[channel]);
            changed |= update(values.truePeakHolds[slot], d->publishedTruePeakHold[channel]);
        }
        changed |= update(values.channels[slot], c);
        ++slot;
    }
    changed |= update(values.numFilled, slot);
    return changed;
}

} // namespace QTovelMixer
