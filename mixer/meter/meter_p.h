// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_P_H
#define QTOVELMIXER_MIXER_METER_METER_P_H

#include <base/hidden_p.h>
#include <base/lock_rank_p.h>
#include <base/ringbuffer.h>
#include <dsp/statistics.h>
#include <mixer/meter/channel_layout.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/peak_latch_p.h>
#include <mixer/meter/programme_meter_p.h>

#include <QtCore/QBasicTimer>
#include <QtCore/QPointer>
#include <QtCore/QThread>

#include <atomic>
#include <memory>
#include <vector>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Meter::Data
{
    struct RingDeleter
    {
        void operator()(BLRINGBUFFER *ring) const { BLRINGBUFFER_Destroy(&ring); }
    };
    using Statistics = StatisticsHandle;

    Data(Type side, int rate, int channels, const MeterConfig &config);
    ~Data();

    void takeBlock(Meter &meter);
    void log(const char *before, const char *after) const;
    size_t blockSamples() const { return size_t(blockFrames) * size_t(numChannels); }

    // A configuration may describe more or fewer channels than are fed: this decides for all.
    bool enabled(int channel) const;
    bool publishedAsEnabled(int channel) const;

    // With statsMutex held.
    Statistics makeStatistics(int channels, uint32_t measures) const;
    void rebuildActiveChannels();
    const float *compact(const float *frames, int numFrames);
    double measure(const float *frames, int numFrames); // the sum of the held levels
    void measureProgramme(const float *measured, int numFrames);
    void weighChannels();
    void publishValues();
    void publishLoudness();

    // Fixed at construction.
    const Type type;
    const int sampleRate;  // Hz
    const int numChannels; // of the fed blocks, 0 or more
    const int blockFrames; // 42 ms
    // Produced into by the audio thread, consumed by the meter's.
    const std::unique_ptr<BLRINGBUFFER, RingDeleter> ringBuffer;

    // Any thread. None of these publishes other data, so relaxed access would do.
    std::atomic<bool> timerActive{false}; // what others may know of `timer`; written with it
    std::atomic<bool> stopRequested{false};
    std::atomic<double> minMeterLevel{-120.0}; // dB
    std::atomic<double> maxMeterLevel{0.0};    // dB
    // Written with statsMutex held, read without.
    std::vector<std::atomic<bool>> enabledChannels;
    std::atomic<bool> truePeakEnabled{false};

    // The meter's thread.
    QBasicTimer timer;
    int timerId = 0;
    QPointer<QThread> thread;

    // Guarded by statsMutex, which is taken before valuesMutex. Levels are linear, by channel;
    // holds count blocks. The true-peak vectors are empty while true peaks are not wanted.
    mutable RankedMutex<LockRank::Measurement> statsMutex;
    Statistics levelStats;
    Statistics truePeakStats;
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
    ChannelLayout layout;
    PeakLatches latches;
    std::unique_ptr<ProgrammeMeter> programme; // while there is a measurement

    // Guarded by valuesMutex.
    mutable RankedMutex<LockRank::Values> valuesMutex;
    double publishedMomentary = -120.0;
    double publishedShortTerm = -120.0;
    std::vector<double> publishedLevel;
    std::vector<double> publishedHoldLevel;
    std::vector<double> publishedTruePeak;
    std::vector<double> publishedTruePeakHold;
    std::vector<bool> publishedEnabled;
    bool publishedHasTruePeak = false;
    std::vector<PeakLatch> publishedLatches;
    qint64 publishedFrames = 0; // measured since the holds were reset
    LoudnessReading publishedLoudness;
};

/// Whether it is the thread of a meter.
bool isMeterThread(const QThread *thread);

/// The benchmarks' way to the private record.
struct MeterAccess
{
    static Meter::Data &data(Meter &meter) { return *meter.d; }
};

} // namespace QTovelMixer

#endif
