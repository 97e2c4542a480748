// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_MIX_P_H
#define QTOVELMIXER_MIXER_ENGINE_MIX_P_H

#include <mixer/aligned_vector.h>
#include <mixer/engine.h>
#include <mixer/engine/gain_matrix_p.h>
#include <mixer/engine/host_gains_p.h>
#include <mixer/io/timeline.h>

#include <atomic>
#include <vector>

namespace QTovelMixer {

/// What a block mixes: one bus per channel, the gains between them, effects, meters, and the clock.
struct EngineMix
{
    using Bus = aligned_vector<float, 16>;
    struct SavedState
    {
        Timeline *timeline;
        bool outputBypass;
        bool inputBypass;
    };

    static constexpr unsigned maxChannels = GainMatrix::size;

    // The gain matrix; each takes the update lock.
    void set_mixer_gains(unsigned row0, unsigned rows, unsigned col0, unsigned cols, float gain,
                         const float *gains);
    void set_input_mask(unsigned row0, unsigned rows, unsigned col0, unsigned cols,
                        unsigned long long mask);
    void remove_input_gains(unsigned first, unsigned count);
    void remove_output_gains(unsigned first, unsigned count);
    void resetGainMatrix();
    /// Writes what the host set, here and for every device that is opened later.
    bool setCell(const HostGains::Cell &cell, float gain);
    /// Rebuilds the mixing plan ahead of the next block, under the update lock.
    void planMix();
    /// Whether the gain is finite; logs a refusal that names the operation otherwise.
    static bool requireFinite(const char *operation, float gain);

    // Buses (buses.cpp)
    static std::vector<Bus> makeBuses(unsigned count, unsigned frames);
    void rebuildBuses(Device *output, Device *input);
    /// First row or column of a listed object; the number of buses for one that has none.
    unsigned rowOf(const Source *source) const;
    unsigned columnOf(const Sink *sink) const;
    /// The stored or the default wiring of what has so many channels to a device.
    std::vector<float> initialGains(const Source *, unsigned channels, Device *output) const;
    std::vector<float> initialGains(const Sink *, unsigned channels, Device *input) const;
    void writeGains(const Source *source, unsigned row, float gain,
                    const std::vector<float> &table);
    void writeGains(const Sink *sink, unsigned column, float gain, const std::vector<float> &table);
    bool writeRoute(const Source *source, const Sink *sink, float gain);
    void writeMonitorGains(bool on);
    void writeMask(const Source *source, quint64 mask);
    bool cellOf(const HostGains::Cell &cell, unsigned &row, unsigned &column) const;

    Effect *replaceEffect(Effect *&slot, QMetaObject::Connection &link, Effect *effect);
    void deleteMeters();

    // Main thread
    HostGains hostGains;
    MixPlan plans[2];
    MixPlan *sparePlan = &plans[1]; ///< is made while the other one mixes
    std::vector<Bus> removedBuses;  ///< has room for all; freed outside the update lock
    QMetaObject::Connection outputEffectLink;
    QMetaObject::Connection inputEffectLink;
    std::vector<SavedState> savedStates;
    double keptPosition = 0.0; ///< seconds in the material, where playback stood last

    // Written on the main thread, read anywhere
    std::atomic<bool> monitoring{false};
    std::atomic<double> startTime{0.0}; ///< seconds in the material
    std::atomic<int> outputEffectBypass{0};
    std::atomic<int> inputEffectBypass{0};
    std::atomic<float> masterOutputGain{1.0f};
    std::atomic<float> masterInputGain{1.0f};

    // Guarded by the update lock
    unsigned numInputChannels = 0; ///< of the open device; the mix uses `maxChannels` of them
    unsigned numOutputChannels = 0;
    unsigned blockFrames = 0; ///< of the open stream, whatever the backend is told since
    std::vector<Bus> inputBuses;
    std::vector<Bus> outputBuses;
    GainMatrix matrix;
    float (&gainMatrix)[maxChannels][maxChannels] = matrix.gain;
    float (&enableMatrix)[maxChannels][maxChannels] = matrix.enable;
    MixPlan *plan = &plans[0];
    Effect *outputEffect = nullptr;
    Effect *inputEffect = nullptr;
    Meter *inputMeter = nullptr;
    Meter *outputMeter = nullptr;
    Timeline *timeline = nullptr;
    bool inputReplacementTold = false; ///< since the device was opened
    bool outputReplacementTold = false;

    // Audio thread
    std::atomic<qint64> mixTime{0}; ///< the clock, frames
    float masterOutputGainApplied = 1.0f;
    float masterInputGainApplied = 1.0f;
    std::atomic<unsigned> blockNumber{0}; ///< odd while a block is under way
    std::atomic<quint64> callbackCount{0};
    std::atomic<quint64> droppedBlocks{0};
    std::atomic<quint64> replacedSamples{0}; ///< that were not finite
    std::atomic<qint64> lastCallbackLoad{0}; ///< tenths of a millisecond
    std::atomic<qint64> peakCallbackLoad{0};
    std::atomic<double> averageCallbackLoad{0.0};
};

} // namespace QTovelMixer

#endif
