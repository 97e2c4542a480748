// SPDX-License-Identifier: MIT
// Servers that die while they play and record, again and again, with the client library's own
// settings: shared memory and all.
#include "rtaudio_fixture.h"

#include <support/log_capture.h>

#include <thread>

using QTovelMixer::Engine;
using QTovelMixer::Pulse;

namespace {

constexpr qint64 toldWithin = 300; // ms
constexpr qint64 heldAtMost = 100; // ms

/// Rounds of each kind; QTTOVELMIXER_DEATHS asks for more.
int rounds()
{
    const int asked = qEnvironmentVariableIntValue("QTTOVELMIXER_DEATHS");
    return asked > 0 ? asked : 10;
}

/// Keeps every processor busy.
class Load
{
public:
    Load()
    {
        for (unsigned worker = 0; worker < std::thread::hardware_concurrency(); ++worker)
            m_workers.emplace_back([this] {
                while (!m_end)
                    ;
            });
    }
    ~Load()
    {
        m_end = true;
        for (std::thread &worker : m_workers)
            worker.join();
    }
    Q_DISABLE_COPY_MOVE(Load)

private:
    std::atomic<bool> m_end{false};
    std::vector<std::thread> m_workers;
};

} // namespace

class tst_RtAudioPulseDeaths : public QObject
{
    Q_OBJECT

private slots:
    void everyDeath_isToldOnce_data();
    void everyDeath_isToldOnce();
};

void tst_RtAudioPulseDeaths::everyDeath_isToldOnce_data()
{
    QTest::addColumn<bool>("killed");
    QTest::addColumn<bool>("loaded");
    QTest::newRow("killed") << true << false;
    QTest::newRow("terminated") << false << false;
    QTest::newRow("killed, under load") << true << true;
    QTest::newRow("terminated, under load") << false << true;
}

void tst_RtAudioPulseDeaths::everyDeath_isToldOnce()
{
    QFETCH(bool, killed);
    QFETCH(bool, loaded);
    PulseServer server(PulseServer::oneSink());
    QVERIFY2(server.start(), qPrintable(server.report()));
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QStringList told;
    QObject::connect(session.engine.get(), &Engine::deactivated, this,
                     [&] { told += QStringLiteral("deactivated"); });
    QObject::connect(session.engine.get(), &Engine::mixerChanged, this,
                     [&] { told += QStringLiteral("mixerChanged"); });
    QObject::connect(session.engine.get(), &Engine::deviceFailed, this,
                     [&] { told += QStringLiteral("deviceFailed"); });
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
    const Resources before = Resources::now();

    LogCapture log(LogCapture::KeepAndPass);
    std::vector<qint64> times;
    qint64 held = 0;
    for (int round = 0; round < rounds(); ++round) {
        if (!server.isRunning())
            QVERIFY2(server.start(), qPrintable(server.report()));
        QVERIFY(session.openDefaults());
        QVERIFY(session.play());
        session.failures = 0;
        told.clear();
        std::unique_ptr<Load> load;
        if (loaded)
            load = std::make_unique<Load>();
        TimedApplication::longest = 0;
        QElapsedTimer clock;
        clock.start();
        // `kill` waits until the program is gone; the main thread turns no loop meanwhile.
        killed ? server.kill() : server.terminate();
        const qint64 gone = clock.elapsed();
        QVERIFY(session.wait([&] { return session.failures > 0; }));
        times.push_back(clock.elapsed() - gone);
        held = std::max(held, TimedApplication::longest);
        load.reset();
        // `mixerChanged` follows `deactivated` by a connection of the engine's own, which comes
        // first.
        QCOMPARE(told, (QStringList{QStringLiteral("mixerChanged"), QStringLiteral("deactivated"),
                                    QStringLiteral("deviceFailed")}));
        QVERIFY2(times.back() <= toldWithin,
                 qPrintable(QStringLiteral("told after %1 ms").arg(times.back())));
        QVERIFY(session.wait([&] {
            return session.engine->numActiveSources() == 0 &&
                   session.engine->numActiveSinks() == 0 && !session.api->isOpen();
        }));
        QCOMPARE(session.failures, 1);
    }
    std::sort(times.begin(), times.end());
    qInfo("DEATHS | %s%s | %d of %d told once | after %lld to %lld ms, half within %lld ms | held "
          "%lld ms",
          killed ? "killed" : "terminated", loaded ? ", under load" : "", int(times.size()),
          rounds(), static_cast<long long>(times.front()), static_cast<long long>(times.back()),
          static_cast<long long>(times[times.size() / 2]), static_cast<long long>(held));
    QVERIFY2(held <= heldAtMost, qPrintable(QStringLiteral("held for %1 ms").arg(held)));
    QVERIFY(!log.contains(QStringLiteral("orphaned by a wedged teardown thread")));
    QVERIFY(session.wait([&] { return Resources::now().within(before); }));
}

RTAUDIO_TEST_MAIN(tst_RtAudioPulseDeaths)
#include "tst_rtaudio_pulse_deaths.moc"
