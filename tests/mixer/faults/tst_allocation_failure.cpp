// SPDX-License-Identifier: MIT
#include "faulty_hosts.h"

#include <mixer/api/api_virtual.h>
#include <mixer/engine_p.h>
#include <mixer/io/effect.h>
#include <mixer/io/timeline_p.h>
#include <mixer/meter/meter.h>
#include <mixer/meter/meter_config.h>
#include <mixer/store/store.h>
#include <support/allocation_failure.h>
#include <support/thread_names.h>

#include <QtTest/QTest>

#include <array>
#include <optional>
#include <thread>

using namespace QTovelMixer;

namespace {

constexpr unsigned blockFrames = 256;
constexpr size_t framesHeard = 40 * blockFrames;
constexpr int rate = 8000; // low: the rings are small then, and this is about other things

/// What comes out of the device's first channel. Allocates nothing while it listens.
class Ear
{
public:
    Ear() : m_samples(framesHeard) {}

    void listen()
    {
        m_count = 0;
        m_listening = true;
    }
    void hear(const float *samples, unsigned frames, unsigned channels)
    {
        size_t count = m_count;
        for (unsigned i = 0; m_listening && i < frames && count < framesHeard; ++i)
            m_samples[count++] = samples[i * channels];
        m_count = count;
        m_blocks.fetch_add(1);
    }
    quint64 blocks() const { return m_blocks; }
    bool isFull() const { return m_count == framesHeard; }
    const std::vector<float> &samples() const { return m_samples; }

private:
    std::vector<float> m_samples;
    std::atomic<size_t> m_count{0};
    std::atomic<bool> m_listening{false};
    std::atomic<quint64> m_blocks{0};
};

class Unchanged : public Effect
{
public:
    Unchanged() : Effect(rate, 2) {}
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        std::copy_n(input, channels * frames, output);
        return 1;
    }
};

/// A session, and what a host keeps of it.
struct Host
{
    Host();
    ~Host();

    bool waitForBlocks();
    bool waitUntilEmpty();
    QString fault();

    QTovelMixerApiVirtual::DeviceSetup device;
    Ear ear;
    Unchanged outputEffect;
    Unchanged inputEffect;
    std::unique_ptr<QTovelMixerApiVirtual> backend;
    std::unique_ptr<Engine> engine;
    std::array<QPointer<RampSource>, 3> sources;
    QPointer<TakeSink> sink;
    QByteArray routes;
    int otherRate = 11025;
};

Host::Host()
{
    device.name = QStringLiteral("Desk");
    device.inputChannels = 2;
    device.outputChannels = 2;
    device.sampleRates = {unsigned(rate)};
    device.preferedSampleRate = unsigned(rate);
    device.defaultInput = true;
    device.defaultOutput = true;
}

Host::~Host()
{
    if (engine) {
        engine->replaceOutputEffect(nullptr);
        engine->replaceInputEffect(nullptr);
    }
}

bool Host::waitForBlocks()
{
    const quint64 blocks = ear.blocks() + 20;
    return waitUntil([&] {
        QCoreApplication::processEvents();
        return ear.blocks() >= blocks || engine->numActiveSources() == 0;
    });
}

bool Host::waitUntilEmpty()
{
    const Engine::Data &data = EngineAccess::shipped(*engine);
    return waitUntil([&] {
        QCoreApplication::processEvents();
        return data.sources.empty() && data.sinks.empty() && data.retiredSources.empty() &&
               data.retiredSinks.empty();
    });
}

/// What does not fit together; empty when all does.
QString Host::fault()
{
    if (!engine)
        return QString();
    Engine::Data &data = EngineAccess::shipped(*engine);
    std::atomic<bool> taken{false};
    std::thread other([&] {
        taken = waitUntil([&] { return data.updateLock.tryLock(); });
        if (taken)
            data.updateLock.unlock();
    });
    other.join();
    const auto channels = [](const auto &objects, unsigned sum) {
        for (const auto *object : objects)
            sum += channelsOf(object);
        return sum;
    };
    const std::pair<bool, const char *> facts[] = {
        {taken, "the update lock is held"},
        {data.changeDepth == 0, "a change of the mix is open"},
        {data.lockedSources.empty() && data.lockedSinks.empty(), "workers are held off"},
        {data.holdCount == 0 || engine->isPaused(), "the mix is held"},
        {data.sourceLinks.size() == data.sources.size(), "a source is half there"},
        {data.sinkLinks.size() == data.sinks.size(), "a sink is half there"},
        {data.sourceCount == data.sources.size(), "sources are miscounted"},
        {data.sinkCount == data.sinks.size(), "sinks are miscounted"},
        {data.streamUsers == int(data.sinks.size()), "users of the stream are miscounted"},
        {data.removedBuses.empty(), "buses are left over"},
        {!data.apiOpen() || data.inputBuses.size() == channels(data.sources, data.numInputChannels),
         "input buses do not fit"},
        {!data.apiOpen() || data.outputBuses.size() == channels(data.sinks, data.numOutputChannels),
         "output buses do not fit"},
        {!data.apiOpen() || (data.inputMeter && data.outputMeter), "a meter is missing"},
    };
    for (const auto &[holds, what] : facts) {
        if (!holds)
            return QString::fromLatin1(what);
    }
    return QString();
}

// The set-up, step by step. Each one may be repeated after it has failed --------------------------

bool makeBackend(Host &host)
{
    using Pacing = QTovelMixerApiVirtual::Pacing;
    auto backend = std::make_unique<QTovelMixerApiVirtual>(Pacing::FreeWheel, blockFrames);
    backend->setOutputHandler([&ear = host.ear](const float *samples, unsigned frames,
                                                unsigned channels,
                                                quint64) { ear.hear(samples, frames, channels); });
    host.backend = std::move(backend);
    return true;
}

bool plugDevice(Host &host)
{
    return host.backend->plug(host.device);
}

bool listDevices(Host &host)
{
    return host.backend->updateDeviceList() && host.backend->devices().size() == 1;
}

bool makeEngine(Host &host)
{
    host.engine = std::make_unique<Engine>(host.backend.get());
    host.backend.release();
    return true;
}

bool storeLayouts(Host &host)
{
    Device *const device = host.engine->defaultDevice(DeviceKind::Output);
    Route route(2, device);
    route.setGain(0, 0, 1.0f);
    route.setGain(0, 1, 0.0f);
    route.setGain(1, 0, 0.0f);
    route.setGain(1, 1, 1.0f);
    Store::store()->addRoute(route);
    MeterConfig meters(Type::Output, device);
    meters.setMeterEnabled(1, false);
    Store::store()->addMeterConfig(meters);
    return !Store::store()->routes().isEmpty() && !Store::store()->meterConfigs().isEmpty();
}

bool activateEngine(Host &host)
{
    host.engine->activate();
    return host.engine->isActive() && host.engine->canPlayback();
}

bool setEffects(Host &host)
{
    host.engine->replaceOutputEffect(&host.outputEffect);
    host.engine->replaceInputEffect(&host.inputEffect);
    const Engine::Data &data = EngineAccess::shipped(*host.engine);
    return data.outputEffect == &host.outputEffect && data.inputEffect == &host.inputEffect;
}

bool addSource(Host &host, size_t number, int sourceRate, int channels)
{
    auto source = std::make_unique<RampSource>(host.engine.get(), sourceRate, channels, 2.0);
    if (!host.engine->addSource(source.get()))
        return false;
    host.sources[number] = source.release();
    return host.engine->isValid(host.sources[number]);
}

bool addFirstSource(Host &host)
{
    return addSource(host, 0, rate, 2);
}

bool addSecondSource(Host &host)
{
    return addSource(host, 1, host.otherRate, 2);
}

bool addThirdSource(Host &host)
{
    return addSource(host, 2, rate, 1);
}

bool setGains(Host &host)
{
    Engine &engine = *host.engine;
    return engine.setGain(host.sources[0], 0, 1, 0.5f) &&
           engine.setChannelsMask(host.sources[1], 1, 1.0f, true);
}

bool editTimeline(Host &host)
{
    Engine &engine = *host.engine;
    engine.setLimits(0.0, 2.0);
    engine.addSelection(0.25, 0.5);
    engine.addSelection(1.0, 1.5);
    engine.removeSelection(0.3, 0.4);
    engine.setLooping(true);
    const std::vector<Range> &slices = TimelineAccess::data(*engine.timeline()).slices;
    return engine.timeline()->hasSlices() && slices.size() == 3 && engine.isLooping();
}

bool addTake(Host &host)
{
    auto sink = std::make_unique<TakeSink>(host.engine.get(), 16000, 2);
    if (!host.engine->addSink(sink.get()))
        return false;
    host.sink = sink.release();
    return host.engine->isValid(host.sink);
}

bool routeToTake(Host &host)
{
    return host.engine->addRoute(host.sources[0], host.sink);
}

bool measure(Host &host)
{
    Engine &engine = *host.engine;
    engine.setChannelMeterEnabled(Type::Output, 1, true);
    engine.outputMeter()->setTruePeakEnabled(true);
    engine.outputMeter()->start();
    engine.setMonitoring(true);
    return engine.outputMeter()->isTruePeakEnabled() && engine.isMonitoring();
}

bool startPlaying(Host &host)
{
    return host.engine->start(0.25);
}

bool listen(Host &host)
{
    return host.waitForBlocks();
}

bool seek(Host &host)
{
    host.engine->setTime(1.0);
    return true;
}

bool pauseAndResume(Host &host)
{
    Engine &engine = *host.engine;
    if (!engine.isPaused() && !engine.pause())
        return false;
    return engine.resume();
}

bool saveRoutes(Host &host)
{
    host.routes = Store::store()->saveRoutes();
    return host.routes.size() > 2;
}

bool restoreRoutes(Host &host)
{
    return Store::store()->restoreRoutes(host.routes) && !Store::store()->routes().isEmpty();
}

bool stopPlaying(Host &host)
{
    host.engine->stop(true, UserStopAction);
    return true;
}

bool waitForTheEnd(Host &host)
{
    return host.waitUntilEmpty();
}

bool saveState(Host &host)
{
    return host.engine->save();
}

bool restoreState(Host &host)
{
    return host.engine->restore();
}

bool openAgain(Host &host)
{
    host.engine->deactivate();
    host.engine->activate();
    return host.engine->isActive() && host.engine->canPlayback();
}

bool deleteUnstarted(Host &host)
{
    if (!host.sources[0] && !addFirstSource(host))
        return false;
    host.engine->deleteSource(host.sources[0]);
    return host.engine->numActiveSources() == 0;
}

bool isRampHeard(const Host &host)
{
    for (size_t frame = 0; frame < framesHeard; ++frame) {
        if (host.ear.samples()[frame] != float(double(frame) * RampSource::unit / rate))
            return false;
    }
    return true;
}

bool playExactly(Host &host)
{
    if (!host.sources[0] && !addFirstSource(host))
        return false;
    host.ear.listen();
    if (host.engine->start(0.0) && waitUntil([&] { return host.ear.isFull(); }) &&
        isRampHeard(host))
        return true;
    // A source whose worker has ended is not played again.
    host.engine->stop(true, UserStopAction);
    host.waitUntilEmpty();
    return false;
}

struct Step
{
    const char *name;
    bool (*run)(Host &host);
};

constexpr Step steps[] = {
    {"make the backend", makeBackend},
    {"plug the device", plugDevice},
    {"list the devices", listDevices},
    {"make the engine", makeEngine},
    {"store layouts", storeLayouts},
    {"activate", activateEngine},
    {"set effects", setEffects},
    {"add the first source", addFirstSource},
    {"add the second source", addSecondSource},
    {"add the third source", addThirdSource},
    {"set gains", setGains},
    {"edit the timeline", editTimeline},
    {"add the take", addTake},
    {"route to the take", routeToTake},
    {"measure", measure},
    {"start", startPlaying},
    {"listen", listen},
    {"seek", seek},
    {"listen on", listen},
    {"pause and resume", pauseAndResume},
    {"save the routes", saveRoutes},
    {"restore the routes", restoreRoutes},
    {"stop", stopPlaying},
    {"wait for the end", waitForTheEnd},
    {"save the state", saveState},
    {"restore the state", restoreState},
    {"open again", openAgain},
    {"delete an unstarted source", deleteUnstarted},
    {"play a ramp", playExactly},
    {"stop the ramp", stopPlaying},
    {"wait for its end", waitForTheEnd},
};

/// Runs the step; what memory runs out in is checked and repeated. Answers what is wrong.
QString runStep(Host &host, const Step &step)
{
    const auto say = [&step](const QString &what) {
        return QString("%1: %2").arg(QString::fromLatin1(step.name), what);
    };
    // Looking takes memory itself.
    const auto check = [&] {
        const QString fault = AllocationFailure::happened() ? host.fault() : QString();
        return fault.isEmpty() ? fault : say(fault);
    };
    const bool before = AllocationFailure::happened();
    bool done = false;
    bool thrown = false;
    try {
        done = step.run(host);
    } catch (const std::bad_alloc &) {
        thrown = true;
    }
    if (thrown && (before || !AllocationFailure::happened()))
        return say("an exception out of nothing");
    if (done || before != AllocationFailure::happened()) {
        const QString fault = check();
        if (!fault.isEmpty())
            return fault;
    }
    if (!done && !before && AllocationFailure::happened())
        done = step.run(host);
    return done ? check() : say("refused");
}

/// Runs the session; allocations count from the named step on. Answers what is wrong.
QString runSession(quint64 number, AllocationFailure::Threads threads,
                   AllocationFailure::Requests requests, const QString &from)
{
    Host host;
    host.otherRate += int(number); // no filter that a former session has made
    std::optional<AllocationFailure> failure;
    for (const Step &step : steps) {
        if (from == QLatin1String(step.name))
            failure.emplace(number, threads, requests);
        const QString fault = runStep(host, step);
        if (!fault.isEmpty())
            return fault;
    }
    return QString();
}

/// Whether the thread of a meter is there that nobody ended.
bool isMeterLeft()
{
    return !threadNames().filter(QStringLiteral("QTovelMixer::Me")).isEmpty();
}

std::atomic<int> criticalLines{0};

/// Takes memory as Qt's own does.
void writeNowhere(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const QByteArray line = qFormatLogMessage(type, context, text).toLocal8Bit();
    if (type == QtCriticalMsg && !line.isEmpty())
        ++criticalLines;
}

class TestAllocationFailure : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void setUp_survives_anyFailedAllocation_data();
    void setUp_survives_anyFailedAllocation();
};

void TestAllocationFailure::initTestCase()
{
    Engine::Initialize();
    qInstallMessageHandler(writeNowhere);
    // What is made once and kept is there from now on.
    QCOMPARE(runSession(0, AllocationFailure::OfThisThread, AllocationFailure::OfTheProgram,
                        QString::fromLatin1(steps[0].name)),
             QString());
}

void TestAllocationFailure::cleanupTestCase()
{
    qInstallMessageHandler(nullptr);
}

void TestAllocationFailure::setUp_survives_anyFailedAllocation_data()
{
    QTest::addColumn<int>("threads");
    QTest::addColumn<int>("requests");
    QTest::addColumn<int>("fewest");
    QTest::addColumn<int>("step");
    QTest::addColumn<QString>("from");

    const QString all = QString::fromLatin1(steps[0].name);
    const QString ramp = QStringLiteral("play a ramp");
    const int own = AllocationFailure::OfThisThread;
    const int others = AllocationFailure::OfOtherThreads;
    const int program = AllocationFailure::OfTheProgram;
    const int containers = AllocationFailure::OfContainers;
    QTest::newRow("main thread") << own << program << 200 << 1 << all;
    QTest::newRow("workers") << others << program << 50 << 1 << all;
    // How many of the workers come before is the scheduler's choice.
    QTest::newRow("workers, from the ramp on") << others << program << 2 << 1 << ramp;
    if (AllocationFailure::seesContainers) {
        // Much of the same: the lines of the log. All are tried with
        // QTTOVELMIXER_ALLOCATION_STEP=1.
        bool isGiven = false;
        const int given = qEnvironmentVariableIntValue("QTTOVELMIXER_ALLOCATION_STEP", &isGiven);
        const int step = isGiven ? std::max(given, 1) : 7;
        QTest::newRow("main thread, lists and strings") << own << containers << 200 << step << all;
        QTest::newRow("workers, lists and strings") << others << containers << 50 << step << all;
    }
}

void TestAllocationFailure::setUp_survives_anyFailedAllocation()
{
    QFETCH(int, threads);
    QFETCH(int, requests);
    QFETCH(int, fewest);
    QFETCH(int, step);
    QFETCH(QString, from);

    int number = 1;
    for (bool happened = true; happened; number += step) {
        criticalLines = 0;
        const QString fault = runSession(quint64(number), AllocationFailure::Threads(threads),
                                         AllocationFailure::Requests(requests), from);
        happened = AllocationFailure::happened();
        if (!fault.isEmpty()) {
            const QString text =
                QString("allocation %1: %2\n%3")
                    .arg(QString::number(number), fault, AllocationFailure::place());
            QFAIL(qPrintable(text));
        }
        QVERIFY2(waitUntil([] { return !isMeterLeft(); }), qPrintable(QString::number(number)));
        // A worker that ends says so, and no more than why.
        QVERIFY(criticalLines <= 2);
    }
    // The seam sees what it is there for.
    QVERIFY2(number > fewest, qPrintable(QString::number(number)));
}

} // namespace

QTEST_GUILESS_MAIN(TestAllocationFailure)
#include "tst_allocation_failure.moc"
