// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_H
#define QTOVELMIXER_MIXER_METER_METER_H

#include <base/export.h>
#include <base/nonblocking.h>
#include <mixer/meter/loudness_reading.h>
#include <mixer/types.h>

#include <QtCore/QObject>

#include <memory>

namespace QTovelMixer {

class ChannelLayout;
class MeterConfig;
class MeterValues;
struct PeakReading;
template <typename T, unsigned Alignment>
class aligned_vector;

/// Measures one side of the mixer's device: per enabled channel a peak level, a peak hold and, when
/// asked for, a true peak and its hold; over all enabled channels together the momentary and the
/// short-term loudness.
///
/// The audio thread only copies its block into a ring. Measuring happens on a thread that belongs
/// to the meter alone: a timer of 21 ms measures at most one block of 42 ms per tick. A level jumps
/// up at once, stays for its hold time (0.05 s, the held ones 2 s) and then falls by a factor of
/// 0.75 per measured block.
///
/// Lifetime: a meter without a parent lives on its own thread and deletes itself there after
/// `aboutToQuit`. The host may instead delete a meter that it made itself, from any thread that the
/// meter does not wait for; that ends the meter's thread and waits for it. A subclass must have
/// been stopped by then, since its part dies first. The engine makes new, idle meters whenever it
/// opens devices: after `Engine::mixerChanged` earlier pointers to its meters dangle.
///
/// Beside these readings, which end at full scale and are forgotten, a meter keeps the largest
/// peaks and counts overs until `resetHolds`, and measures the loudness of a programme from
/// `startMeasurement` on.
///
/// A meter with a parent stays on the parent's thread and ticks there, by that thread's event loop.
///
/// Signals come from the meter's thread. Connect them with a context object (queued), never
/// blocking, and never directly to what waits for another thread: `start`, `stop` and
/// `aboutToQuit` wait for the meter's thread.
class QTOVELMIXER_EXPORT Meter : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Meter)

public:
    /// An idle meter for blocks of `numChannels` interleaved channels. It measures the channels
    /// that `config` enables, all of them when the configuration is not valid; channels that the
    /// configuration does not describe are not measured and cannot be enabled. With more than 128
    /// enabled channels all readings are silence.
    /// Units: Hz. Threads: any; the thread object of the meter is deleted by the event loop of
    /// this one.
    Meter(Type type, int sampleRate, int numChannels, const MeterConfig &config,
          QObject *parent = nullptr);

    /// Off the meter's own thread, ends it and waits for it. Threads: any.
    ~Meter() override;

    /// Takes a block of interleaved frames. An idle meter takes nothing and answers true.
    /// Errors: false when the ring has no room for the whole block, which is then dropped.
    /// Threads: audio. Real-time: yes.
    bool fill(const aligned_vector<float, 16> &samples) noexcept QTOVELMIXER_NONBLOCKING;

    /// True from `start` to the end of a stop. Threads: any. Real-time: yes.
    bool isRunning() const QTOVELMIXER_NONBLOCKING;

    /// The ends of the host's scale, -120.0 and 0.0 unless set; only kept for the host.
    /// Units: dB. Threads: any. Real-time: yes.
    double minMeterLevel() const;
    void setMinMeterLevel(double level);
    double maxMeterLevel() const;
    void setMaxMeterLevel(double level);

    /// Whether a channel is measured. Errors: false out of range.
    /// Threads: any. Real-time: yes.
    bool channelEnabled(int channel) const;
    /// Answers whether that changed something; a change restarts all readings, the loudness too,
    /// from silence with the next measured block. Errors: false out of range.
    /// Threads: any; waits while a block is measured.
    bool setChannelEnabled(int channel, bool enabled);
    /// Number of enabled channels. Threads: any. Real-time: yes.
    int numMeterChannels() const;

    /// Measures true peaks too, or no longer; a change restarts all readings, the loudness too,
    /// from silence with the next measured block.
    /// Threads: any; waits while a block is measured.
    void setTruePeakEnabled(bool enabled);
    /// Off unless set. Threads: any. Real-time: yes.
    bool isTruePeakEnabled() const;

    /// Does nothing.
    void reset();

    /// Brings `values` up to the published readings and answers whether anything in it changed. A
    /// reading that a float cannot hold exactly, 0.3 say, counts as changed each time. The
    /// true-peak readings are left alone while true peaks are not measured. At most
    /// `MeterValues::capacity` enabled channels are reported.
    /// Threads: any.
    bool getValues(MeterValues &values) const;

    // Peaks above full scale ----------------------------------------------------------------

    /// Brings `peaks` up to what was measured last and answers whether anything in it changed. A
    /// stop that is under way adds nothing, and switched channels and true peaks keep what they
    /// reached. With more than 128 enabled channels all peaks are 0.
    /// Threads: any.
    bool getPeaks(PeakReading &peaks) const;
    /// Forgets the largest peaks and the overs; the levels of `getValues` fall by themselves.
    /// Threads: any; waits while a block is measured.
    void resetHolds();
    /// An over is a run of `samples` (at least 1) neighbouring samples of a channel whose magnitude
    /// is `level` (above 0) or more; a longer run is one over, too. 1 and 1.0 unless set; for
    /// 16-bit material, whose largest sample is below 1, use 32767.0 / 32768. Runs under way start
    /// afresh.
    /// Units: linear amplitude. Errors: false, logged, and nothing changes, out of range.
    /// Threads: any; waits while a block is measured.
    bool setOverRule(int samples, double level = 1.0);
    /// Threads: any; waits while a block is measured.
    int overLength() const;
    double overLevel() const;

    // Loudness of a programme ---------------------------------------------------------------

    /// What the channels are. It decides their weights in the loudness sums, those of `getValues`
    /// too, whichever of them are enabled; where nothing is known the count decides: of the enabled
    /// channels for `getValues`, of all channels for `loudness`. The engine sets what the device
    /// tells. A change restarts all readings, the loudness too, from silence with the next measured
    /// block; a measurement goes on, as after a pause.
    /// Threads: any; waits while a block is measured.
    void setLayout(const ChannelLayout &layout);
    /// Nothing is known unless set. Threads: any; waits while a block is measured.
    ChannelLayout layout() const;

    /// Starts to measure the loudness of the enabled channels with the next measured block, or goes
    /// on after a pause; the meter itself may start and stop meanwhile. No window and no gating
    /// block reaches over a pause, nor over a switch of channels. Costs some three times what the
    /// meter itself does, true peaks included, on the meter's thread.
    /// Threads: any; waits while a block is measured.
    void startMeasurement();
    /// Lets the figures stand, but for momentary and short-term loudness. Nothing without a
    /// measurement. Threads: any; waits while a block is measured.
    void pauseMeasurement();
    /// Forgets the figures; a running measurement begins anew, a paused one stays paused. Nothing
    /// without a measurement. Threads: any; waits while a block is measured.
    void resetMeasurement();
    /// Ends the measurement: the figures are gone, and it costs nothing any more.
    /// Threads: any; waits while a block is measured.
    void endMeasurement();
    /// The figures after the last measured block. Threads: any.
    LoudnessReading loudness() const;

    /// Measures one block of `numFrames` interleaved frames of all channels, publishes the
    /// readings and then emits `meterValuesChanged` unless all held levels are at silence. An
    /// override calls this one. A block without frames measures nothing.
    /// Threads: the meter's, from its timer; any while the meter is idle.
    virtual void updateStatistics(const float *frames, int numFrames);

public Q_SLOTS:
    /// Starts measuring and emits `meterStarted`; on a running meter only cancels a stop that is
    /// under way. Blocks that were fed before a stop and not measured yet come first.
    /// Threads: any; blocks until done.
    void start();

    /// Lets the display fall to silence and then stops, without input too; with `forceStop` stops
    /// now and emits `meterStoped`, also when the meter is idle.
    /// Threads: any; blocks until done (not until the display has fallen).
    void stop(bool forceStop = false);

    /// Stops (`meterStoped` if the meter was running) and ends the meter's thread, which deletes
    /// the meter: the pointer dangles from now on.
    /// Threads: any; blocks until the thread was told.
    void aboutToQuit();

Q_SIGNALS:
    /// The meter was idle and measures now.
    void meterStarted();
    /// There are new readings; not emitted while all held levels are at silence.
    void meterValuesChanged();
    /// The meter is idle.
    void meterStoped();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    friend struct MeterAccess;
    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
