// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_TERMINAL_VIEW_H
#define TOVELMIX_TERMINAL_VIEW_H

#include <tovelmix/recording.h>

#include <QtCore/QObject>

namespace tovelmix {

/// Shows how a recording goes on, on stdout: a progress line with meter bars that is redrawn in
/// place in a terminal, one plain line per second anywhere else.
class TerminalView : public QObject
{
    Q_OBJECT

public:
    explicit TerminalView(const Recording &recording);

    /// Draws the last state; to be called when the recording has finished.
    void finish();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void draw();
    void printLine() const;

    const Recording &m_recording;
    bool m_live;
    int m_drawnLines = 0;
};

} // namespace tovelmix

#endif
