// SPDX-License-Identifier: MIT
// What a meter tells of the loudness of a programme, and how its channels weigh.
#include <mixer/meter/meter_p.h>

#include <dsp/k_weighting_p.h>

#include <QtCore/QScopeGuard>

namespace QTovelMixer {

namespace {

// What the statistics can measure; beyond it all readings are silence.
constexpr int mostChannels = 128;
constexpr int highestRate = 1536000; // Hz

} // namespace

void Meter::setLayout(const ChannelLayout &layout)
{
    const QMutexLocker locker(&d->statsMutex);
    if (d->layout == layout)
        return;
    d->layout = layout;
    d->rebuildNeeded = true;
}

ChannelLayout Meter::layout() const
{
    const QMutexLocker locker(&d->statsMutex);
    return d->layout;
}

void Meter::startMeasurement()
{
    const QMutexLocker locker(&d->statsMutex);
    if (!d->programme) {
        d->programme = std::make_unique<ProgrammeMeter>(d->sampleRate);
        auto undo = qScopeGuard([this] { d->programme.reset(); });
        if (!d->rebuildNeeded)
            d->weighChannels();
        undo.dismiss();
    }
    d->programme->setRunning(true);
    d->publishLoudness();
}

void Meter::pauseMeasurement()
{
    const QMutexLocker locker(&d->statsMutex);
    if (!d->programme)
        return;
    d->programme->setRunning(false);
    d->publishLoudness();
}

void Meter::resetMeasurement()
{
    const QMutexLocker locker(&d->statsMutex);
    if (!d->programme)
        return;
    d->programme->reset();
    d->publishLoudness();
}

void Meter::endMeasurement()
{
    const QMutexLocker locker(&d->statsMutex);
    d->programme.reset();
    const QMutexLocker publishing(&d->valuesMutex);
    d->publishedLoudness = {};
}

LoudnessReading Meter::loudness() const
{
    const QMutexLocker locker(&d->valuesMutex);
    return d->publishedLoudness;
}

// Of the active channels: by what they are, or by how many are fed.
void Meter::Data::weighChannels()
{
    if (!programme)
        return;
    const bool measurable = activeChannels.size() <= size_t(mostChannels) && sampleRate >= 1 &&
                            sampleRate <= highestRate;
    std::vector<double> weights;
    for (const int channel : activeChannels) {
        if (measurable)
            weights.push_back(layout.isKnown() ? layout.weight(channel)
                                               : loudnessWeight(channel, numChannels));
    }
    programme->setChannels(weights, truePeakStats != nullptr);
}

void Meter::Data::measureProgramme(const float *measured, int numFrames)
{
    if (programme)
        programme->add(measured, numFrames, truePeakStats.get());
}

void Meter::Data::publishLoudness()
{
    const LoudnessReading &reading = programme->reading();
    const QMutexLocker locker(&valuesMutex);
    publishedLoudness = reading;
}

} // namespace QTovelMixer
