// SPDX-License-Identifier: MIT
#include <mixer/engine/calls_p.h>

#include <base/trace_p.h>
#include <mixer/io/sink.h>
#include <mixer/io/source.h>
#include <mixer/meter/meter_p.h>

#include <QtCore/QThread>

namespace QTovelMixer {

// First whether it is a block: to ask for the identity of a thread that Qt does not know allocates.
bool EngineCalls::onMainThread() const
{
    return !isAudioThread() &&
           (QThread::currentThread() == engine->thread() || IsRunningInMainThread());
}

bool EngineCalls::onWorkerThread()
{
    const QThread *const current = QThread::currentThread();
    return qobject_cast<const Source *>(current) || qobject_cast<const Sink *>(current) ||
           isMeterThread(current);
}

bool EngineCalls::requireMainThread(const char *operation) const
{
    if (onMainThread())
        return true;
    if (!refuseInBlock(operation))
        BLDEBUG_Error(-1, "QTovelMixer::%s: refused outside main thread!!", operation);
    return false;
}

bool EngineCalls::refuseInBlock(const char *operation)
{
    if (!isAudioThread())
        return false;
    BLDEBUG_Error(-1, "QTovelMixer::%s: refused inside a block!!", operation);
    return true;
}

} // namespace QTovelMixer
