// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_PLAYBACK_H
#define TOVELMIX_PLAYBACK_H

#include <tovelmix/live_command.h>

#include <QtCore/QStringList>

namespace tovelmix {

/// Plays files side by side, from their beginning, until the longest one has ended.
class Playback : public LiveCommand
{
    Q_OBJECT

public:
    Playback(const DeviceOptions &options, const QStringList &paths);

    QString progress() const override;

protected:
    bool prepare() override;
    bool attach() override;
    void onDetached(double seconds) override;
    bool isComplete() const override;
    QString place() const override;

private:
    double position() const;

    QStringList m_paths;
    double m_length = 0.0;   ///< seconds to be played
    double m_position = 0.0; ///< seconds played when the work was last attached, or ended
};

} // namespace tovelmix

#endif
