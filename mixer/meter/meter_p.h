// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_P_H
#define QTOVELMIXER_MIXER_METER_METER_P_H

#include <mixer/meter/meter.h>

#include <QtCore/QBasicTimer>
#include <QtCore/QMutex>
#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <atomic>
#include <vector>

struct BLRINGBUFFER;
struct DSPB_Statistics;

namespace QTovelMixer {

struct Meter::Data
{
    Data(Type type, int sampleRate, int numChannels, std::vector<bool> enabled);
    ~Data();

    /// A configuration may have fewer flags than the device has channels: those are disabled.
    static bool enabled(const std::vector<bool> &flags, int channel, int channels);

    void rebuildActiveChannels();
    void publishValues();
    const float *compact(const float *frames, int numFrames);
    double measure(const float *frames, int numFrames);
    int blockSamples() const { return blockFrames * numChannels; }

    const Type type;
    const int sampleRate;  ///< Hz
    const int numChannels; ///< of the fed blocks
    const int blockFrames; ///< 42 ms

    // Single producer: the audio thread; single consumer: the meter's thread.
    BLRINGBUFFER *ringBuffer = nullptr;
    std::atomic<bool> timerActive{false}; ///< what other threads know of the timer

    // The meter's thread.
    QBasicTimer timer;
    int timerId = 0;
    std::atomic<bool> stopRequested{false};
    std::atomic<double> minMeterLevel{-120.0};
    std::atomic<double> maxMeterLevel{0.0};
    QPointer<QThread> thread;

    // Guarded by statsMutex, which is taken before valuesMutex. Levels are linear.
    mutable QBasicMutex statsMutex;
    std::vector<bool> enabledChannels;
    DSPB_Statistics *levelStats = nullptr;
    DSPB_Statistics *truePeakStats = nullptr;
    double momentaryLoudness = -120.0;
    double shortTermLoudness = -120.0;
    std::vector<double> level;
    std::vector<double> holdLevel;
    std::vector<int> levelHold;
    std::vector<int> holdLevelHold;
    std::vector<double> truePeakLevel;
    std::vector<double> truePeakHoldLevel;
    std::vector<int> truePeakHold;
    std::vector<int> truePeakHoldLevelHold;
    std::vector<int> activeChannels;
    std::vector<float> scratch;
    bool rebuildNeeded = true;
    bool truePeakEnabled = false;

    // Guarded by valuesMutex.
    mutable QBasicMutex valuesMutex;
    double publishedMomentary = -120.0;
    double publishedShortTerm = -120.0;
    std::vector<double> publishedLevel;
    std::vector<double> publishedHoldLevel;
    std::vector<double> publishedTruePeak;
    std::vector<double> publishedTruePeakHold;
    std::vector<bool> publishedEnabled;
    bool publishedHasTruePeak = false;
};

} // namespace QTovelMixer

#endif
