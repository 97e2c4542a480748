// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_KINDS_P_H
#define QTOVELMIXER_MIXER_ENGINE_KINDS_P_H

#include <mixer/engine/engine_p.h>
#include <mixer/io/sink.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

namespace QTovelMixer {

/// What differs between sources and sinks on their way into the mix and out of it.
template <typename T>
struct Kind;

template <>
struct Kind<Source>
{
    using Data = Engine::Data;
    using Link = EngineAttached::Link;
    using Access = SourceAccess;
    static constexpr const char *noRoom = "QTovelMixer::addSource: Unable to add source (%p)!!";
    static constexpr const char *unknown =
        "QTovelMixer::removeSource: invalid source pointer (%p)!!";
    static constexpr const char *wrongThread =
        "QTovelMixer::removeSource: cannot remove source outside main thread!!";
    static constexpr const char *stillRunning =
        "QTovelMixer::removeSource: cannot remove source in running state!!";
    static constexpr const char *added =
        "QTovelMixer::addSource: The source (%p) is in the mix already!!";
    static constexpr const char *foreign =
        "QTovelMixer::addSource: The source (%p) was built for another engine!!";
    static constexpr const char *usedUp =
        "QTovelMixer::addSource: The source (%p) has ended, or was removed!!";
    static constexpr const char *goneElsewhere =
        "QTovelMixer::Source: Deleted in the mix outside main thread (%p)!!";
    static constexpr const char *deleting = "deleteSource";
    static constexpr const char *item = "source";
    static constexpr const char *removeEvent = "Engine::removeSource";

    static constexpr DeviceKind wiredTo = DeviceKind::Output;

    static auto &list(auto &d) { return d.sources; }
    static auto &links(auto &d) { return d.sourceLinks; }
    static auto &locked(auto &d) { return d.lockedSources; }
    static auto &retired(auto &d) { return d.retiredSources; }
    static auto &buses(auto &d) { return d.inputBuses; }
    static auto &count(auto &d) { return d.sourceCount; }
    static unsigned firstBus(const Data &d, const Source *source) { return d.rowOf(source); }
    static bool holdsStream(const Source *source) { return source->isContinuous(); }
    static bool wasStopped(const Source *source) { return source->wasStoped(); }
    static void unlockRing(Source *source) { source->update_unlock(); }
    static void removeGains(Data &d, unsigned first, unsigned channels)
    {
        d.remove_input_gains(first, channels);
    }
    static void connectTo(Engine *engine, Source *source, Link &link)
    {
        link.connections[0] = QObject::connect(source, &Source::sourceStateChanged, engine,
                                               &Engine::sourceStateChanged);
        link.connections[1] =
            QObject::connect(source, &Source::sourceFinished, engine, &Engine::sourceFinished);
        // The call may come when the source is gone and another one has its address.
        link.connections[2] = QObject::connect(
            source, &QThread::finished, engine, [engine, guarded = QPointer(source)] {
                if (guarded)
                    EngineCalls::callFromLoop("removeSource",
                                              [&] { engine->removeSource(guarded); });
            });
    }
    static void announce(Engine *engine, Source *source) { emit engine->sourceAdded(source); }
    static void remove(Engine *engine, Source *source) { engine->removeSource(source); }
    static void destroy(Engine *engine, Source *source) { engine->deleteSource(source); }
};

template <>
struct Kind<Sink>
{
    using Data = Engine::Data;
    using Link = EngineAttached::Link;
    using Access = SinkAccess;
    static constexpr const char *noRoom = "QTovelMixer::addSink: Unable to add sink (%p)!!";
    static constexpr const char *unknown = "QTovelMixer::removeSink: invalid sink pointer (%p)!!";
    static constexpr const char *wrongThread =
        "QTovelMixer::removeSink: cannot remove sink outside main thread!!";
    static constexpr const char *stillRunning =
        "QTovelMixer::removeSink: cannot remove sink in running state!!";
    static constexpr const char *added =
        "QTovelMixer::addSink: The sink (%p) is in the mix already!!";
    static constexpr const char *foreign =
        "QTovelMixer::addSink: The sink (%p) was built for another engine!!";
    static constexpr const char *usedUp =
        "QTovelMixer::addSink: The sink (%p) has ended, or was removed!!";
    static constexpr const char *goneElsewhere =
        "QTovelMixer::Sink: Deleted in the mix outside main thread (%p)!!";
    static constexpr const char *deleting = "deleteSink";
    static constexpr const char *item = "sink";
    static constexpr const char *removeEvent = "Engine::removeSink";

    static constexpr DeviceKind wiredTo = DeviceKind::Input;

    static auto &list(auto &d) { return d.sinks; }
    static auto &links(auto &d) { return d.sinkLinks; }
    static auto &locked(auto &d) { return d.lockedSinks; }
    static auto &retired(auto &d) { return d.retiredSinks; }
    static auto &buses(auto &d) { return d.outputBuses; }
    static auto &count(auto &d) { return d.sinkCount; }
    static unsigned firstBus(const Data &d, const Sink *sink) { return d.columnOf(sink); }
    static bool holdsStream(const Sink *) { return true; }
    static bool wasStopped(const Sink *sink) { return SinkAccess::isOver(*sink); }
    static void unlockRing(Sink *sink) { SinkAccess::unlockRing(*sink); }
    static void removeGains(Data &d, unsigned first, unsigned channels)
    {
        d.remove_output_gains(first, channels);
    }
    static void connectTo(Engine *engine, Sink *sink, Link &link)
    {
        link.connections[0] =
            QObject::connect(sink, &Sink::sinkStateChanged, engine, &Engine::sinkStateChanged);
        link.connections[1] =
            QObject::connect(sink, &Sink::sinkFinished, engine, &Engine::sinkFinished);
        link.connections[2] =
            QObject::connect(sink, &QThread::finished, engine, [engine, guarded = QPointer(sink)] {
                if (guarded)
                    EngineCalls::callFromLoop("removeSink", [&] { engine->removeSink(guarded); });
            });
    }
    static void announce(Engine *engine, Sink *sink) { emit engine->sinkAdded(sink); }
    static void remove(Engine *engine, Sink *sink) { engine->removeSink(sink); }
    static void destroy(Engine *engine, Sink *sink) { engine->deleteSink(sink); }
};

template <typename T>
void disconnect(const std::map<const T *, EngineAttached::Link> &links)
{
    for (const auto &[object, link] : links) {
        for (const QMetaObject::Connection &connection : link.connections)
            QObject::disconnect(connection);
    }
}

/// Undoes the attaching of an object, or as much of it as was done. Returns false when it is not
/// listed. Does not count.
bool undoAttach(Engine::Data &d, Source *source);
bool undoAttach(Engine::Data &d, Sink *sink);

} // namespace QTovelMixer

#endif
