// SPDX-License-Identifier: MIT
#include <base/thread.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

namespace {
const Qt::HANDLE loadingThread = QThread::currentThreadId();
}

extern "C" __attribute__((weak)) bool BLTHREAD_IsRunningInMainThread(void)
{
    if (const QCoreApplication *application = QCoreApplication::instance())
        return QThread::currentThread() == application->thread();
    return QThread::currentThreadId() == loadingThread;
}
