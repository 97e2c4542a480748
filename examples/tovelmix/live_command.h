// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_LIVE_COMMAND_H
#define TOVELMIX_LIVE_COMMAND_H

#include <tovelmix/device_choice.h>
#include <tovelmix/live_status.h>
#include <tovelmix/meter_reading.h>

#include <mixer/engine.h>

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>

#include <memory>

namespace tovelmix {

/// An engine that tells how far it got.
class LiveEngine : public QTovelMixer::Engine
{
public:
    using Engine::Engine;

    bool stop_mixer(bool force, QTovelMixer::Source *source,
                    QTovelMixer::StopReason reason) override;

    /// To be called before each start.
    void forgetStop() { m_stopTime = -1.0; }
    /// Seconds from the start to the stop, or to the end of the material.
    double playedTime() const { return m_stopTime >= 0.0 ? m_stopTime : time(); }

private:
    double m_stopTime = -1.0; ///< a stop turns the clock back
};

/// A command on real devices: opens them, runs until its work is done, and goes on after a device
/// was lost when it is asked to. Lives on the main thread and needs its event loop.
class LiveCommand : public QObject, public LiveStatus
{
    Q_OBJECT

public:
    enum Side { RecordingSide = 1, PlayingSide = 2, BothSides = 3 };

    LiveCommand(const DeviceOptions &options, Side side);
    ~LiveCommand() override;

    /// Opens and begins. Errors: false, with the reason in `outcome`.
    bool start();
    /// Ends early; `finished` follows.
    void interrupt();

    /// One or more lines about the devices in use.
    QString title() const;
    const Outcome &outcome() const { return m_outcome; }
    bool wasInterrupted() const { return m_interrupted; }

    const std::vector<double> &levels() const override { return m_reading.levels(); }
    const std::vector<double> &holdLevels() const override { return m_reading.holdLevels(); }

Q_SIGNALS:
    /// Something the user should know at once, one line.
    void announced(const QString &line);
    void finished();

protected:
    /// Checks what does not need devices. Errors: false, by `fail`.
    virtual bool prepare() { return true; }
    /// Puts the work into the mix and starts it. Errors: false, by `fail`.
    virtual bool attach() = 0;
    /// The work has left the mix, `seconds` after it was attached.
    virtual void onDetached(double seconds) = 0;
    /// Nothing is left to do.
    virtual bool isComplete() const = 0;
    /// Comes before `finished`.
    virtual void conclude() {}
    /// New readings of the meter.
    virtual void onReading() {}
    /// What is lost with a device, as in "lost NULL1 …".
    virtual QString place() const = 0;

    bool fail(ExitStatus status, const QString &line);
    /// Ends the work that is attached.
    void end();
    /// For destructors: nothing of the work is touched afterwards.
    void closeEngine() { m_engine.reset(); }

    LiveEngine &engine() const { return *m_engine; }
    bool isAttached() const { return m_attached; }
    /// Seconds since the work was attached; 0 while it is not.
    double attachedTime() const;
    const DeviceOptions &options() const { return m_options; }
    /// Seconds until what is mixed now has left the device.
    double outputLatency() const;
    const MeterReading &reading() const { return m_reading; }
    void timerEvent(QTimerEvent *event) override;

private:
    QTovelMixer::Meter *meter() const;
    bool chooseDevices(QTovelMixer::Device *&output, QTovelMixer::Device *&input);
    bool openDevices(QTovelMixer::Device *output, QTovelMixer::Device *input);
    bool begin();
    void readMeter();
    void onStopped(QTovelMixer::StopReason reason);
    void onDeviceFailed();
    void lose();
    void tryAgain();
    void finish();

    DeviceOptions m_options;
    Side m_side;
    QTovelMixer::Api *m_api = nullptr; ///< the engine's
    std::unique_ptr<LiveEngine> m_engine;
    QString m_outputIdentity; ///< of the devices last used
    QString m_inputIdentity;
    QString m_name;
    QString m_notes;
    MeterReading m_reading;
    QBasicTimer m_retryTimer;
    Outcome m_outcome;
    bool m_attached = false;
    bool m_deviceFailed = false;
    bool m_ending = false;
    bool m_interrupted = false;
    bool m_finished = false;
};

} // namespace tovelmix

#endif
