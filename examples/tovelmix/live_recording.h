// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_LIVE_RECORDING_H
#define TOVELMIX_LIVE_RECORDING_H

#include <tovelmix/live_command.h>
#include <tovelmix/take.h>
#include <tovelmix/take_sink.h>

#include <memory>

namespace tovelmix {

/// Records an input device into a WAV file, at the rate and with the channels of the first device.
class LiveRecording : public LiveCommand
{
    Q_OBJECT

public:
    LiveRecording(const DeviceOptions &options, const QString &takePath);
    ~LiveRecording() override;

    QString progress() const override;

    /// What became of it; complete after `finished`.
    const Take &take() const { return m_take; }

protected:
    bool attach() override;
    void onDetached(double seconds) override;
    bool isComplete() const override;
    void conclude() override;
    void onReading() override;
    QString place() const override;

private:
    void openTake();
    double recorded() const;

    QString m_takePath;
    int m_channels = 0;
    qint64 m_wantedFrames = 0;
    std::unique_ptr<WavWriter> m_writer;
    TakeProgress m_progress;
    Take m_take;
};

} // namespace tovelmix

#endif
