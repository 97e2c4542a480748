// SPDX-License-Identifier: MIT
#include <support/log_capture.h>

#include <base/trace_p.h>

#include <algorithm>

namespace {
// Guards the current capture and its lines: a thread may be logging while a capture ends.
QBasicMutex mutex;
LogCapture *current = nullptr;

/// Lines that still wait belong to what has been done so far. Audio threads leave them waiting.
void flush()
{
    if (!QTovelMixer::isAudioThread())
        QTovelMixer::flushTrace();
}

QtMessageHandler install(QtMessageHandler handler)
{
    flush();
    return qInstallMessageHandler(handler);
}
} // namespace

LogCapture::LogCapture(Way wayToGo)
    : way(wayToGo), outer(current), previous(install(&LogCapture::handle))
{
    const QMutexLocker lock(&mutex);
    current = this;
}

LogCapture::~LogCapture()
{
    flush();
    const QMutexLocker lock(&mutex);
    current = outer;
    qInstallMessageHandler(previous);
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    QtMessageHandler next = nullptr;
    {
        const QMutexLocker lock(&mutex);
        for (LogCapture *capture = current; capture && !next; capture = capture->outer) {
            capture->collected.append({type, text});
            if (capture->way == Keep && type != QtFatalMsg)
                break;
            if (capture->previous != &LogCapture::handle)
                next = capture->previous;
        }
    }
    if (next)
        next(type, context, text);
}

QList<LogCapture::Line> LogCapture::lines() const
{
    flush();
    // A list of its own: one that shares its data would be copied later, outside the lock.
    const QMutexLocker lock(&mutex);
    return QList<Line>(collected.cbegin(), collected.cend());
}

QStringList LogCapture::texts() const
{
    QStringList result;
    for (const Line &line : lines())
        result.append(line.text);
    return result;
}

QStringList LogCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const Line &line : lines()) {
        if (line.type == type)
            result.append(line.text);
    }
    return result;
}

int LogCapture::count() const
{
    return static_cast<int>(lines().size());
}

int LogCapture::count(const QString &text) const
{
    return static_cast<int>(texts().count(text));
}

int LogCapture::count(QtMsgType type, const QString &text) const
{
    return static_cast<int>(texts(type).count(text));
}

int LogCapture::countStarting(const QString &beginning) const
{
    const QStringList all = texts();
    return static_cast<int>(std::count_if(
        all.begin(), all.end(), [&](const QString &text) { return text.startsWith(beginning); }));
}

bool LogCapture::contains(const QString &words) const
{
    const QStringList all = texts();
    return std::any_of(all.begin(), all.end(),
                       [&](const QString &text) { return text.contains(words); });
}

void LogCapture::clear()
{
    flush();
    const QMutexLocker lock(&mutex);
    collected.clear();
}
