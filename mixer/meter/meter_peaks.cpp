// SPDX-License-Identifier: MIT
// What a meter tells of peaks above full scale.
#include <mixer/meter/meter_p.h>

#include <base/debug.h>
#include <mixer/meter/peak_reading.h>

#include <algorithm>
#include <cmath>

namespace QTovelMixer {

bool Meter::getPeaks(PeakReading &peaks) const
{
    const QMutexLocker locker(&d->valuesMutex);
    const double rate = std::max(d->sampleRate, 1);
    const bool hasTruePeak = d->publishedHasTruePeak;
    const double seconds = double(d->publishedFrames) / rate;
    bool changed = peaks.hasTruePeak != hasTruePeak || peaks.seconds != seconds;
    peaks.hasTruePeak = hasTruePeak;
    peaks.seconds = seconds;
    size_t slot = 0;
    for (int c = 0; c < d->numChannels; ++c) {
        if (!d->publishedAsEnabled(c))
            continue;
        const size_t channel = size_t(c);
        const PeakLatch &latch = d->publishedLatches[channel];
        ChannelPeaks now;
        now.channel = c;
        now.level = d->publishedLevel[channel];
        now.holdLevel = d->publishedHoldLevel[channel];
        if (hasTruePeak) {
            now.truePeakLevel = d->publishedTruePeak[channel];
            now.truePeakHoldLevel = d->publishedTruePeakHold[channel];
        }
        now.maxLevel = latch.maxLevel;
        now.maxLevelTime = double(latch.maxLevelFrame) / rate;
        now.maxTruePeak = latch.maxTruePeak;
        now.maxTruePeakTime = double(latch.maxTruePeakFrame) / rate;
        now.overs = latch.overs;
        if (slot == peaks.channels.size()) {
            peaks.channels.push_back(now);
            changed = true;
        } else if (peaks.channels[slot] != now) {
            peaks.channels[slot] = now;
            changed = true;
        }
        ++slot;
    }
    changed = changed || peaks.channels.size() != slot;
    peaks.channels.resize(slot);
    return changed;
}

void Meter::resetHolds()
{
    const QMutexLocker locker(&d->statsMutex);
    d->latches.reset();
    const QMutexLocker publishing(&d->valuesMutex);
    d->publishedLatches = d->latches.latches();
    d->publishedFrames = 0;
}

bool Meter::setOverRule(int samples, double level)
{
    if (samples < 1 || !(level > 0.0) || !std::isfinite(level)) {
        BLDEBUG_Error(-1, "QTovelMixer::Meter::setOverRule: Invalid rule (%d samples of %g)!!",
                      samples, level);
        return false;
    }
    const QMutexLocker locker(&d->statsMutex);
    d->latches.rule = {samples, level};
    d->latches.breakRuns();
    return true;
}

int Meter::overLength() const
{
    const QMutexLocker locker(&d->statsMutex);
    return d->latches.rule.length;
}

double Meter::overLevel() const
{
    const QMutexLocker locker(&d->statsMutex);
    return d->latches.rule.level;
}

} // namespace QTovelMixer
