// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_MONITORING_H
#define TOVELMIX_MONITORING_H

#include <tovelmix/live_command.h>

#include <QtCore/QElapsedTimer>

namespace tovelmix {

/// Shows what an input device hears, and lets an output device play it when asked to.
class Monitoring : public LiveCommand
{
    Q_OBJECT

public:
    /// `through`: the input is heard on the output.
    Monitoring(const DeviceOptions &options, bool through);

    QString progress() const override;

protected:
    bool prepare() override;
    bool attach() override;
    void onDetached(double seconds) override;
    bool isComplete() const override;
    QString place() const override;
    void timerEvent(QTimerEvent *event) override;

private:
    double seconds() const { return double(m_clock.elapsed()) / 1000.0; }

    bool m_through;
    QElapsedTimer m_clock;
    QBasicTimer m_endTimer;
    bool m_timeIsUp = false;
};

} // namespace tovelmix

#endif
