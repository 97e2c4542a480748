// SPDX-License-Identifier: MIT
#include <support/random_operations.h>

#include <mixer/io/source_p.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDeadlineTimer>

#include <initializer_list>
#include <utility>

using namespace QTovelMixer;

namespace {

constexpr size_t mostSources = 5;
constexpr size_t mostSinks = 3;
constexpr int patience = 10000; // ms until the end counts as hung

QString firstBroken(std::initializer_list<std::pair<bool, const char *>> promises)
{
    for (const auto &[kept, promise] : promises) {
        if (!kept)
            return QString::fromLatin1(promise);
    }
    return {};
}

} // namespace

int RandomOperations::Halver::processBuffers(const float *input, float *output, int channels,
                                             int frames)
{
    for (int i = 0; i < channels * frames; ++i)
        output[i] = input[i] * 0.5f;
    return 1;
}

RandomOperations::RandomOperations(Draw draw, float bufferSeconds)
    : m_draw(std::move(draw)), m_bufferSeconds(bufferSeconds), m_session(2, 2)
{}

double RandomOperations::seconds(double most)
{
    return most * m_draw(65536) / 65535.0;
}

RampSource *RandomOperations::withShortRing(RampSource *source)
{
    SourceAccess::data(*source).bufferSeconds = m_bufferSeconds;
    return source;
}

Source *RandomOperations::anySource()
{
    const QList<Source *> sources = engine().activeSources();
    return sources.isEmpty() ? nullptr : sources.at(pick(int(sources.size())));
}

Sink *RandomOperations::anySink()
{
    const QList<Sink *> sinks = engine().activeSinks();
    return sinks.isEmpty() ? nullptr : sinks.at(pick(int(sinks.size())));
}

void RandomOperations::operate()
{
    static constexpr int rates[] = {44100, 48000, 96000};
    const int operation = pick(34);
    m_operation = operation;
    switch (operation) {
    case 0:
    case 1:
    case 2: {
        if (data().sources.size() >= mostSources)
            break;
        auto *source = withShortRing(new RampSource(&engine(), rates[pick(3)], 1 + pick(3), 30.0));
        source->acceptsPause = pick(4) != 0;
        source->pauseAt = pick(5) == 0 ? seconds(30.0) : -1.0;
        if (!engine().addSource(source, 1.0f, pick(4) == 0 ? NoTimeline : Options()))
            delete source;
        break;
    }
    case 3: {
        if (data().sinks.size() >= mostSinks)
            break;
        auto *sink = new TakeSink(&engine(), rates[pick(3)], 1 + pick(2));
        if (!engine().addSink(sink))
            delete sink;
        break;
    }
    case 4: {
        if (data().sources.size() >= mostSources || !engine().isActive())
            break;
        const Range range = pick(2) ? Range{1.0, 1.0 + seconds(4.0)} : Range();
        engine().play(withShortRing(new RampSource(&engine(), rates[pick(3)], 2, 30.0, range)));
        break;
    }
    case 5:
    case 6:
        engine().start(seconds(35.0) - 2.0);
        break;
    case 7:
        engine().pause();
        break;
    case 8:
    case 9:
        engine().resume();
        break;
    case 10:
        engine().stop(pick(2) != 0, StopReason(pick(7)));
        break;
    case 11:
        if (Source *source = anySource())
            engine().stop(source, pick(2) != 0, StopReason(pick(7)));
        break;
    case 12:
    case 13:
        engine().setTime(seconds(40.0) - 5.0);
        break;
    case 14:
        engine().setLooping(pick(2) != 0);
        break;
    case 15:
        engine().setLimits(seconds(10.0), 10.0 + seconds(20.0));
        break;
    case 16:
        engine().addSelection(seconds(30.0), seconds(30.0));
        break;
    case 17:
        engine().removeSelection(seconds(30.0), seconds(30.0));
        break;
    case 18:
        engine().clearSelections();
        break;
    case 19:
        if (Source *source = anySource())
            engine().setGain(source, pick(4), pick(3), float(seconds(2.0)));
        break;
    case 20:
        if (Source *source = anySource())
            engine().setChannelsMask(source, quint64(m_draw(65536)));
        break;
    case 21:
        engine().addRoute(anySource(), anySink(), 0.5f);
        break;
    case 22:
        engine().replaceOutputEffect(pick(2) ? &m_effect : nullptr);
        break;
    case 23:
        if (pick(10) == 0)
            engine().open(engine().currentDevice(DeviceKind::Output),
                          engine().currentDevice(DeviceKind::Input), pick(2) ? 48000 : 44100);
        break;
    case 24:
        if (pick(6) == 0)
            engine().deactivate(UserStopAction);
        break;
    case 25:
        engine().activate();
        break;
    case 26:
        engine().save();
        break;
    case 27:
        engine().restore();
        break;
    case 28:
        engine().setMonitoring(pick(2) != 0);
        break;
    case 29:
        engine().setPauseMode(PauseMode(pick(2)));
        break;
    case 30:
        engine().removeSource(anySource());
        break;
    case 31:
        if (pick(8) == 0) {
            m_session.api->reportDeviceFailure();
            m_session.api->rearmDeviceFailure();
        }
        break;
    case 32:
        if (pick(8) == 0)
            engine().reset();
        break;
    default:
        QCoreApplication::processEvents();
        break;
    }
}

QString RandomOperations::fault()
{
    const QString fault = stateFault();
    return fault.isEmpty()
               ? fault
               : QString("after operation %1: %2").arg(QString::number(m_operation), fault);
}

QString RandomOperations::stateFault()
{
    const Engine::Data &state = data();
    int holders = 0;
    for (const auto &[source, link] : state.sourceLinks)
        holders += link.holdsStream;
    for (const auto &[sink, link] : state.sinkLinks)
        holders += link.holdsStream;
    const QString fault = firstBroken({
        {state.holdCount >= 0, "holds are released as often as taken"},
        {state.changeDepth == 0, "no change of the mix is open"},
        {state.lockedSources.empty(), "no source is locked"},
        {state.apiRefs >= 0, "the backend is not released too often"},
        {state.mixTime >= 0, "the clock is not negative"},
        {size_t(state.sourceCount) == state.sources.size(), "sources are counted"},
        {size_t(state.sinkCount) == state.sinks.size(), "sinks are counted"},
        {state.sourceLinks.size() == state.sources.size(), "sources are linked"},
        {state.sinkLinks.size() == state.sinks.size(), "sinks are linked"},
        {state.streamUsers.load() == holders, "users of the stream are counted"},
        {!m_session.api->isRunning() || state.users() <= 0 || state.apiRefs >= state.users(),
         "a running backend has a reference for each user"},
    });
    if (!fault.isEmpty())
        return fault;
    for (Source *source : state.sources) {
        const auto &own = SourceAccess::data(*source);
        if (own.pendingUpdates < 0 || own.updateWaiters.load() != 0)
            return "a source's updates are released as often as taken";
    }
    return m_session.api->isOpen() ? m_session.mappingFault() : QString();
}

QString RandomOperations::end()
{
    const auto waitUntil = [](auto condition) {
        const QDeadlineTimer deadline(patience);
        while (!condition() && !deadline.hasExpired()) {
            QCoreApplication::processEvents();
            QThread::yieldCurrentThread();
        }
        return condition();
    };
    engine().replaceOutputEffect(nullptr);
    m_session.stopAll();
    if (!waitUntil([this] { return data().users() == 0; }))
        return "the end: sources or sinks do not stop";
    m_session.stopAll();
    engine().deactivate();
    if (const QString fault = m_session.restFault(); !fault.isEmpty())
        return "the end: " + fault;
    const auto retired = [this] {
        return data().retiredSources.empty() && data().retiredSinks.empty();
    };
    return waitUntil(retired) ? QString() : "the end: retired sources or sinks stay";
}
