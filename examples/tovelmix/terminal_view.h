// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_TERMINAL_VIEW_H
#define TOVELMIX_TERMINAL_VIEW_H

#include <tovelmix/live_status.h>

#include <QtCore/QObject>

namespace tovelmix {

/// Shows how a command goes on, on stdout: a progress line with meter bars that is redrawn in
/// place in a terminal, one plain line per second anywhere else.
class TerminalView : public QObject
{
    Q_OBJECT

public:
    explicit TerminalView(const LiveStatus &status);

    /// Draws the last state; to be called when it has finished.
    void finish();

    /// Prints a line on stderr without spoiling what is drawn.
    void announce(const QString &line);

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    void draw();
    void printLine() const;

    const LiveStatus &m_status;
    bool m_live;
    int m_drawnLines = 0;
};

} // namespace tovelmix

#endif
