// SPDX-License-Identifier: MIT
// Thousands of random operations, in an order that no host would choose, with everything that
// must always hold checked after each.
#include <support/session.h>

#include <mixer/io/effect.h>
#include <mixer/io/source_p.h>

#include <QtTest/QTest>

#include <random>

using namespace QTovelMixer;

namespace {

constexpr int operations = 3000;
constexpr size_t mostSources = 5;
constexpr size_t mostSinks = 3;

class Halver : public Effect
{
public:
    Halver() : Effect(48000, 2) {}
    int processBuffers(const float *input, float *output, int channels, int frames) override
    {
        for (int i = 0; i < channels * frames; ++i)
            output[i] = input[i] * 0.5f;
        return 1;
    }
};

} // namespace

class tst_RandomTransport : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void everyInvariantHolds_afterEveryOperation_data();
    void everyInvariantHolds_afterEveryOperation();

private:
    void operate();
    void check();

    int pick(int count) { return int(m_random() % unsigned(count)); }
    double seconds(double most) { return most * double(m_random()) / double(m_random.max()); }
    Source *anySource();
    Sink *anySink();
    Engine &engine() { return m_session->engine; }
    Engine::Data &data() { return EngineAccess::data(m_session->engine); }

    std::mt19937 m_random;
    std::unique_ptr<Session> m_session;
    Halver m_effect;
    QString m_operation;
};

Source *tst_RandomTransport::anySource()
{
    const QList<Source *> sources = engine().activeSources();
    return sources.isEmpty() ? nullptr : sources.at(pick(int(sources.size())));
}

Sink *tst_RandomTransport::anySink()
{
    const QList<Sink *> sinks = engine().activeSinks();
    return sinks.isEmpty() ? nullptr : sinks.at(pick(int(sinks.size())));
}

void tst_RandomTransport::operate()
{
    static constexpr int rates[] = {44100, 48000, 96000};
    const int operation = pick(34);
    m_operation = QString::number(operation);
    switch (operation) {
    case 0:
    case 1:
    case 2: {
        if (data().sources.size() >= mostSources)
            break;
        auto *source = new RampSource(&engine(), rates[pick(3)], 1 + pick(3), 30.0);
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
        engine().play(new RampSource(&engine(), rates[pick(3)], 2, 30.0, range));
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
            engine().setChannelsMask(source, m_random());
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
            m_session->api->reportDeviceFailure();
            m_session->api->rearmDeviceFailure();
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

void tst_RandomTransport::check()
{
    const Engine::Data &state = data();
    QVERIFY(state.holdCount >= 0);
    QCOMPARE(state.bracketDepth, 0);
    QVERIFY(state.lockedSources.empty());
    QVERIFY(state.apiRefs >= 0);
    QVERIFY(state.mixTime >= 0);
    QCOMPARE(size_t(state.sourceCount), state.sources.size());
    QCOMPARE(size_t(state.sinkCount), state.sinks.size());
    QCOMPARE(state.sourceLinks.size(), state.sources.size());
    QCOMPARE(state.sinkLinks.size(), state.sinks.size());
    int holders = 0;
    for (const auto &[source, link] : state.sourceLinks)
        holders += link.holdsStream;
    for (const auto &[sink, link] : state.sinkLinks)
        holders += link.holdsStream;
    QCOMPARE(state.streamUsers.load(), holders);
    for (Source *source : state.sources) {
        const auto &own = SourceAccess::data(*source);
        QVERIFY(own.pendingUpdates >= 0);
        QCOMPARE(own.updateWaiters.load(), 0);
    }
    if (m_session->api->isRunning() && state.users() > 0)
        QVERIFY(state.apiRefs >= state.users());
    if (m_session->api->isOpen())
        m_session->checkMapping();
}

void tst_RandomTransport::everyInvariantHolds_afterEveryOperation_data()
{
    QTest::addColumn<unsigned>("seed");
    for (const unsigned seed : {1u, 20040517u, 777u})
        QTest::addRow("seed %u", seed) << seed;
}

void tst_RandomTransport::everyInvariantHolds_afterEveryOperation()
{
    QFETCH(unsigned, seed);
    m_random.seed(seed);
    m_session = std::make_unique<Session>(2, 2);
    for (int i = 0; i < operations / 3; ++i) {
        operate();
        check();
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QString("after step %1, operation %2").arg(i).arg(m_operation)));
        m_session->runWithoutWaiting(pick(3));
    }
    engine().replaceOutputEffect(nullptr);
    m_session->stopAll();
    QTRY_COMPARE(data().users(), 0);
    m_session->stopAll();
    engine().deactivate();
    m_session->checkAtRest();
    m_session.reset();
}

QTEST_GUILESS_MAIN(tst_RandomTransport)
#include "tst_random_transport.moc"
