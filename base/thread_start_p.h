// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_THREAD_START_P_H
#define QTOVELMIXER_BASE_THREAD_START_P_H

#include <QtCore/QThread>

namespace QTovelMixer {

enum class ThreadStart { Started, NoThread, NoDescriptor };

/// Lets `startThread` notice that the thread has begun. Call it once, when the thread is made: it
/// takes memory, which the start itself then does not.
void watchStart(QThread &thread);

/// Starts a watched thread, or tells what is missing. Every thread of Qt's takes a descriptor for
/// its event dispatcher when it begins, and without one Qt ends the process: this looks first
/// whether there is one for this thread and for all that are on their way.
/// Threads: any but audio. Real-time: no.
ThreadStart startThread(QThread &thread, QThread::Priority priority);

/// What is missing, in the words of a line in the log.
const char *missingFor(ThreadStart start);

} // namespace QTovelMixer

#endif
