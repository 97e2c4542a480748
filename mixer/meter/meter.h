// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_H
#define QTOVELMIXER_MIXER_METER_METER_H

#include <base/export.h>
#include <mixer/types.h>

#include <QtCore/QObject>

#include <memory>

namespace QTovelMixer {

class MeterConfig;
class MeterValues;
template <typename T, unsigned Alignment>
class aligned_vector;

/// Measures one side of the mixer's device: per channel a peak level, a peak hold and, when asked
/// for, a true peak and its hold; over all enabled channels the momentary and the short-term
/// loudness. The audio thread only copies its block into a ring; everything else happens on a
/// thread that belongs to the meter alone, on a timer of 21 ms that measures at most one block of
/// 42 ms per tick.
///
/// Lifetime: `aboutToQuit` ends the thread, whereupon the meter deletes itself. A meter may also
/// be deleted directly from another thread, which waits for its own.
///
/// The meter's signals are emitted on its own thread: connect with a context object, and do not
/// block in a slot for a thread that may be waiting for the meter.
class QTOVELMIXER_EXPORT Meter : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(Meter)

public:
    /// An idle meter for blocks of `numChannels` channels at `sampleRate` Hz. The channels that
    /// `config` enables are measured; all of them when it is not valid. With a parent the meter
    /// stays on its parent's thread.
    Meter(Type type, int sampleRate, int numChannels, const MeterConfig &config, QObject *parent);
    ~Meter() override;

    /// Takes a block of interleaved frames. An idle meter takes nothing and answers true; a full
    /// ring drops the whole block and answers false. Threads: audio. Real-time: yes.
    bool fill(const aligned_vector<float, 16> &samples) noexcept;

    /// True between `start` and the end of a stop. Threads: any. Real-time: yes.
    bool isRunning() const;

    /// The ends of the host's scale in dB, −120 and 0 at first; they have no effect here.
    /// Threads: any.
    double minMeterLevel() const;
    void setMinMeterLevel(double level);
    double maxMeterLevel() const;
    void setMaxMeterLevel(double level);

    /// False for a channel that is out of range. Threads: any.
    bool channelEnabled(int channel) const;
    /// Answers whether that changed something. A change restarts all readings from silence.
    /// Threads: any.
    bool setChannelEnabled(int channel, bool enabled);
    /// Number of enabled channels. Threads: any.
    int numMeterChannels() const;
    /// Switches the true-peak readings; a change restarts all readings from silence.
    /// Threads: any.
    void setTruePeakEnabled(bool enabled);
    bool isTruePeakEnabled() const;

    /// Copies the published readings and answers whether any of them differs from what `values`
    /// held. A reading that a float cannot hold exactly differs each time. At most 128 enabled
    /// channels are reported. Threads: any.
    bool getValues(MeterValues &values) const;

    /// Measures one block of interleaved frames of all channels and publishes the readings.
    /// Called on the meter's thread; an override calls this one.
    virtual void updateStatistics(const float *frames, int numFrames);

public Q_SLOTS:
    /// Starts measuring, or cancels a stop that is under way. Emits `meterStarted` when the meter
    /// was idle. Threads: any, blocking until done.
    void start();
    /// Lets the display fall to silence and stops then; with `forceStop` stops at once. Emits
    /// `meterStoped`. Threads: any, blocking until done.
    void stop(bool forceStop = false);
    /// Stops and ends the meter's thread, whereupon the meter is deleted. Threads: any, blocking
    /// until the thread was told.
    void aboutToQuit();
    /// Does nothing.
    void reset();

Q_SIGNALS:
    void meterStarted();
    /// New readings; not emitted while all peak holds are at silence.
    void meterValuesChanged();
    void meterStoped();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    bool onOwnThread() const;

    struct Data;
    std::unique_ptr<Data> d;
};

} // namespace QTovelMixer

#endif
