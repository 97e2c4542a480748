// SPDX-License-Identifier: MIT
#include <tovelmix/terminal_view.h>

#include <tovelmix/take.h>

#include <QtCore/QTimerEvent>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace tovelmix {

namespace {

constexpr int frameIntervalMs = 66;
constexpr int lineIntervalMs = 1000;
constexpr int barWidth = 40;
constexpr int maxBars = 16;
constexpr double barFloorDb = -60.0;

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

int barLength(double db)
{
    return int(std::lround(std::clamp(1.0 - db / barFloorDb, 0.0, 1.0) * barWidth));
}

/// "####    |     ": the level, and the held peak as a stroke.
QString bar(double level, double hold)
{
    QString text = QString(barLength(level), '#').leftJustified(barWidth);
    if (const int position = barLength(hold); position > 0)
        text[position - 1] = '|';
    return text;
}

} // namespace

TerminalView::TerminalView(const LiveStatus &status)
    : m_status(status), m_live(isatty(STDOUT_FILENO) != 0)
{
    startTimer(m_live ? frameIntervalMs : lineIntervalMs);
}

void TerminalView::timerEvent(QTimerEvent *)
{
    if (m_live)
        draw();
    else
        printLine();
}

void TerminalView::finish()
{
    if (m_live)
        draw();
    else
        printLine();
}

void TerminalView::announce(const QString &line)
{
    // What was drawn stays above the line, and drawing begins anew below it.
    m_drawnLines = 0;
    std::fprintf(stderr, "tovelmix: %s\n", line.toUtf8().constData());
}

void TerminalView::printLine() const
{
    const std::vector<double> &levels = m_status.levels();
    const auto highest = std::max_element(levels.begin(), levels.end());
    print(QString("%1, level %2 dB\n")
              .arg(m_status.progress())
              .arg(highest != levels.end() ? *highest : silenceDb, 0, 'f', 1));
}

void TerminalView::draw()
{
    QString text;
    if (m_drawnLines > 0)
        text += QString("\x1b[%1A").arg(m_drawnLines);
    const auto line = [&text](const QString &content) { text += content + "\x1b[K\n"; };
    line(m_status.progress());
    const int channels = int(m_status.levels().size());
    const int bars = std::min(channels, maxBars);
    for (int c = 0; c < bars; ++c) {
        const double level = m_status.levels()[size_t(c)];
        const double hold = m_status.holdLevels()[size_t(c)];
        line(QString("%1 [%2] %3 dB").arg(c + 1, 3).arg(bar(level, hold)).arg(level, 6, 'f', 1));
    }
    if (channels > bars)
        line(QString("    and %1 more channels").arg(channels - bars));
    m_drawnLines = 1 + bars + (channels > bars ? 1 : 0);
    print(text);
}

} // namespace tovelmix
