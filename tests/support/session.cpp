// SPDX-License-Identifier: MIT
#include <support/session.h>

#include <base/trace_p.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>

#include <QtCore/QDeadlineTimer>
#include <QtTest/QTest>

#include <limits>

using namespace QTovelMixer;

namespace {

constexpr int patience = 10000; // ms until a test gives up

template <typename Condition>
bool waitFor(Condition condition)
{
    const QDeadlineTimer deadline(patience);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::yieldCurrentThread();
    }
    return true;
}

} // namespace

Session::TraceEnd::~TraceEnd()
{
    flushTrace();
}

Session::Session(int inputs, int outputs, int rate) : api(new TestApi(blockFrames)), engine(api)
{
    TestDevice *device = api->addTestDevice("Desk", unsigned(inputs), unsigned(outputs));
    device->prefered = unsigned(rate);
    device->defaultInput = inputs > 0;
    device->defaultOutput = outputs > 0;
    api->updateDeviceList();

    const auto counted = [this](const char *name) {
        return [this, key = QString::fromLatin1(name)] { ++m_counts[key]; };
    };
    Engine *e = &engine;
    QObject::connect(e, &Engine::sourceAdded, e, counted("sourceAdded"));
    QObject::connect(e, &Engine::sinkAdded, e, counted("sinkAdded"));
    QObject::connect(e, &Engine::sourceStateChanged, e, counted("sourceStateChanged"));
    QObject::connect(e, &Engine::sinkStateChanged, e, counted("sinkStateChanged"));
    QObject::connect(e, &Engine::sourceFinished, e, counted("sourceFinished"));
    QObject::connect(e, &Engine::sinkFinished, e, counted("sinkFinished"));
    QObject::connect(e, &Engine::deviceListChanged, e, counted("deviceListChanged"));
    QObject::connect(e, &Engine::updatingDeviceList, e, counted("updatingDeviceList"));
    QObject::connect(e, &Engine::updateDeviceListFailed, e, counted("updateDeviceListFailed"));
    QObject::connect(e, &Engine::started, e, counted("started"));
    QObject::connect(e, &Engine::paused, e, counted("paused"));
    QObject::connect(e, &Engine::resumed, e, counted("resumed"));
    QObject::connect(e, &Engine::activated, e, counted("activated"));
    QObject::connect(e, &Engine::deactivated, e, counted("deactivated"));
    QObject::connect(e, &Engine::mixerChanged, e, counted("mixerChanged"));
    QObject::connect(e, &Engine::meterLayoutChanged, e, counted("meterLayoutChanged"));
    QObject::connect(e, &Engine::stopped, e, [this](StopReason reason) {
        ++m_counts["stopped"];
        lastReason = reason;
    });
    QObject::connect(e, &Engine::deviceFailed, e,
                     [this](bool wasPlaying, bool wasCapturing, const QString &backend) {
                         ++m_counts["deviceFailed"];
                         failure = QString("playing=%1 capturing=%2 %3")
                                       .arg(wasPlaying)
                                       .arg(wasCapturing)
                                       .arg(backend);
                     });
    engine.activate();
}

void Session::runWithoutWaiting(int blocks)
{
    for (int i = 0; i < blocks; ++i)
        api->runBlock();
}

std::vector<float> Session::run(qint64 blocks)
{
    std::vector<float> first;
    first.reserve(size_t(blocks) * blockFrames);
    const int inputs = int(api->numInputChannels());
    const int outputs = int(api->numOutputChannels());
    for (qint64 block = 0; block < blocks; ++block) {
        if (!waitForBlock()) {
            QTest::qFail("a source did not deliver in time", __FILE__, __LINE__);
            return first;
        }
        for (int frame = 0; frame < blockFrames; ++frame, ++m_inputFrame) {
            for (int channel = 0; channel < inputs; ++channel)
                api->input[frame * inputs + channel] = float(m_inputFrame);
        }
        api->output.zero();
        api->runBlock();
        for (int frame = 0; frame < blockFrames && outputs > 0; ++frame)
            first.push_back(api->output[frame * outputs]);
    }
    return first;
}

bool Session::startRecording()
{
    if (!engine.start(0.0))
        return false;
    return waitFor([this] {
        for (Sink *sink : engine.activeSinks()) {
            if (!sink->isRunning())
                return false;
        }
        return true;
    });
}

RampSource *Session::addRamp(int rate, double seconds, float gain)
{
    auto *source = new RampSource(&engine, rate, 2, seconds);
    if (!engine.addSource(source, gain)) {
        delete source;
        return nullptr;
    }
    return source;
}

void Session::expectEnd(RampSource *source, qint64 mixerFrame)
{
    const double end = engine.timeline()->mixer_time(engine.timeline()->end());
    m_ends[source] = mixerFrame >= 0 ? mixerFrame : qint64(end * engine.sampleRate() + 0.5);
}

bool Session::waitForBlock()
{
    const Engine::Data &data = EngineAccess::shipped(engine);
    if (data.holdCount != 0)
        return true;
    return waitFor([&] {
        for (Source *source : data.sources) {
            const auto &state = SourceAccess::data(*source);
            const FrameRing *ring = state.ring;
            if (!ring || state.running == 0 || state.pendingUpdates != 0)
                continue;
            const FrameRing::Slice slice = ring->readSlice();
            const auto end = m_ends.find(source);
            // What resamplers withhold at the end never comes.
            const qint64 withheld = source->sampleRate() == int(data.rate()) ? 0 : 256;
            const qint64 last =
                end == m_ends.end() ? std::numeric_limits<qint64>::max() : end->second - withheld;
            const qint64 wanted = std::min<qint64>(data.mixTime + blockFrames, last);
            if (state.frameBase + slice.position + slice.frames < wanted)
                return false;
        }
        return true;
    });
}

QString Session::restFault()
{
    const Engine::Data &data = EngineAccess::shipped(engine);
    const std::pair<bool, const char *> counters[] = {
        {data.holdCount.load() == 0, "the mix is held"},
        {data.changeDepth == 0, "a change of the mix is open"},
        {data.streamUsers.load() == 0, "the stream is used"},
        {data.sourceCount.load() == 0, "sources are counted"},
        {data.sinkCount.load() == 0, "sinks are counted"},
        {data.apiRefs == 0, "the backend is referred to"},
        {data.lockedSources.empty(), "sources are locked"},
        {data.sourceLinks.empty(), "sources are linked"},
        {data.sinkLinks.empty(), "sinks are linked"},
    };
    for (const auto &[rests, fault] : counters) {
        if (!rests)
            return QString::fromLatin1(fault);
    }
    return mappingFault();
}

void Session::checkAtRest()
{
    const Engine::Data &data = EngineAccess::shipped(engine);
    QCOMPARE(restFault(), QString());
    QTRY_VERIFY(data.retiredSources.empty());
    QTRY_VERIFY(data.retiredSinks.empty());
}

QString Session::mappingFault()
{
    const Engine::Data &data = EngineAccess::shipped(engine);
    size_t inputs = data.numInputChannels;
    for (const Source *source : data.sources)
        inputs += size_t(source->numChannels());
    size_t outputs = data.numOutputChannels;
    for (const Sink *sink : data.sinks)
        outputs += size_t(sink->numChannels());
    const auto fault = [](const char *side, size_t buses, size_t wanted) {
        return buses == wanted ? QString()
                               : QString("%1 %2 buses instead of %3")
                                     .arg(QString::number(buses), side, QString::number(wanted));
    };
    const QString input = fault("input", data.inputBuses.size(), inputs);
    return input.isEmpty() ? fault("output", data.outputBuses.size(), outputs) : input;
}

void Session::checkMapping()
{
    QCOMPARE(mappingFault(), QString());
}
