// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_CALLS_P_H
#define QTOVELMIXER_MIXER_ENGINE_CALLS_P_H

#include <base/blocking_call_p.h>
#include <base/debug.h>
#include <mixer/engine.h>

#include <QtCore/QMetaObject>
#include <QtCore/QPointer>

#include <new>

namespace QTovelMixer {

/// Which thread may call the engine, and how the others have it called.
struct EngineCalls
{
    explicit EngineCalls(Engine *owner) : engine(owner), self(owner) {}

    /// The engine's thread, or the host's main thread, and not inside a block.
    bool onMainThread() const;
    /// True on the thread of a source, sink or meter of any engine: the main thread may be waiting
    /// for it.
    static bool onWorkerThread();
    /// As onMainThread; logs a refusal that names the operation otherwise.
    bool requireMainThread(const char *operation) const;
    /// True inside a block, which must not wait for anything; logs a refusal then.
    static bool refuseInBlock(const char *operation);
    /// Calls what an event loop calls: no loop passes exceptions on. Returns false, and logs one
    /// line that names the operation, when memory ran out.
    template <typename Operation>
    static bool callFromLoop(const char *name, Operation operation);
    /// Calls `operation` from the event loop of the engine's thread.
    template <typename Operation>
    void callLater(const char *name, Operation operation);
    /// Runs `operation` on the engine's thread: queued when called from the thread of a source,
    /// sink or meter, for which the engine's thread may be waiting; blocking otherwise.
    template <typename Operation>
    void callOnEngineThread(const char *name, Operation operation);

    Engine *const engine;
    QPointer<Engine> self; ///< the first one: further ones share its memory and take none
};

template <typename Operation>
bool EngineCalls::callFromLoop(const char *name, Operation operation)
{
    try {
        operation();
    } catch (const std::bad_alloc &) {
        BLDEBUG_Error(-1, "QTovelMixer::%s: Out of memory!!", name);
        return false;
    }
    return true;
}

template <typename Operation>
void EngineCalls::callLater(const char *name, Operation operation)
{
    QMetaObject::invokeMethod(
        engine, [name, operation] { callFromLoop(name, operation); }, Qt::QueuedConnection);
}

template <typename Operation>
void EngineCalls::callOnEngineThread(const char *name, Operation operation)
{
    if (refuseInBlock(name))
        return;
    if (onWorkerThread())
        callLater(name, operation);
    else
        callAndWait(engine, operation);
}

} // namespace QTovelMixer

#endif
