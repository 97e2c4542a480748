// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BASE_BLOCKING_CALL_P_H
#define QTOVELMIXER_BASE_BLOCKING_CALL_P_H

#include <QtCore/QMetaObject>
#include <QtCore/QObject>

#include <exception>

namespace QTovelMixer {

/// Has the object's thread call it from its event loop, waits, and throws what it throws: the loop
/// passes nothing on.
/// Threads: any but the object's own. Real-time: no.
template <typename Call>
void callAndWait(QObject *object, Call &&call)
{
    std::exception_ptr failure;
    QMetaObject::invokeMethod(
        object,
        [&] {
            try {
                call();
            } catch (...) {
                failure = std::current_exception();
            }
        },
        Qt::BlockingQueuedConnection);
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace QTovelMixer

#endif
