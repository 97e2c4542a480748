// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_LOG_CAPTURE_H
#define QTOVELMIXER_TESTS_SUPPORT_LOG_CAPTURE_H

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QStringList>

/// Collects what any thread writes to Qt's message log while the object lives, the library's lines
/// that still wait in their queue included. Of several objects the youngest collects; they end in
/// reverse order.
class LogCapture
{
public:
    enum Way {
        Keep,       ///< the lines go nowhere else
        KeepAndPass ///< they also go where they would have gone
    };

    struct Line
    {
        QtMsgType type;
        QString text;
    };

    explicit LogCapture(Way way = Keep);
    ~LogCapture();
    Q_DISABLE_COPY_MOVE(LogCapture)

    QList<Line> lines() const;
    QStringList texts() const;
    QStringList texts(QtMsgType type) const;

    /// The number of lines in all, and of those that equal, or begin with, the text.
    int count() const;
    int count(const QString &text) const;
    int count(QtMsgType type, const QString &text) const;
    int countStarting(const QString &beginning) const;

    /// Whether a line contains the words.
    bool contains(const QString &words) const;

    void clear();

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);

    const Way way;
    LogCapture *const outer;
    const QtMessageHandler previous;
    QList<Line> collected;
};

#endif
