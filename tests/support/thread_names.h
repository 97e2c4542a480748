// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_THREAD_NAMES_H
#define QTOVELMIXER_TESTS_SUPPORT_THREAD_NAMES_H

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QStringList>

/// The names of the threads that the process has now; the system cuts them to 15 characters.
inline QStringList threadNames()
{
    QStringList names;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile name(tasks.filePath(task + QStringLiteral("/comm")));
        if (name.open(QIODevice::ReadOnly))
            names += QString::fromUtf8(name.readAll()).trimmed();
    }
    return names;
}

#endif
