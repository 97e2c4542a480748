// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_RTAUDIO_FAULTS_H
#define QTOVELMIXER_TESTS_MIXER_API_RTAUDIO_FAULTS_H

#include "rtaudio_fixture.h"

#include <functional>

/// What may befall a stream, and what must follow. All of it is demanded of the same engine: it
/// says what happened, never holds its thread, and plays again.
struct Fault
{
    enum State { Playing, Open };
    enum Outcome {
        Lost,  ///< reported as a failure, once
        Stops, ///< not reported: the watchdog stops what plays
        GoesOn ///< blocks keep coming
    };

    QString name;
    RtAudioSession::Direction direction = RtAudioSession::Playback;
    State state = Playing;
    Outcome outcome = Lost;
    int lostWithin = 1500; ///< ms
    std::function<void()> happen = {};
    std::function<void()> afterwards = {}; ///< once the outcome is known
    std::function<bool()> heal = {};       ///< brings the server back
    int failures = 1;                      ///< reported, when lost
    int mayFollow = 0;                     ///< more of them, of what comes afterwards
    bool leavesThread = false;             ///< what is stuck for good cannot be brought back
    /// The sound library may hang in its own teardown; the watchdog stops what plays then.
    bool mayHang = false;
};

constexpr qint64 longestHold = 2500; // ms

inline QString directionName(RtAudioSession::Direction direction)
{
    return direction == RtAudioSession::Playback  ? QStringLiteral("playback")
           : direction == RtAudioSession::Capture ? QStringLiteral("capture")
                                                  : QStringLiteral("duplex");
}

/// The rows that befall every kind of server: "killed", "terminated", "frozen and thawed", "frozen,
/// then killed", "killed while open", "frozen while open". `restart` brings a dead server back.
inline Fault serverFault(const QString &name, int direction, SoundServer &server,
                         const std::function<bool()> &restart)
{
    const auto kill = [&server] { server.kill(); };
    const auto freeze = [&server] { server.freeze(); };
    Fault row;
    row.name = name;
    row.direction = RtAudioSession::Direction(direction);
    row.state = name.endsWith(QLatin1String("while open")) ? Fault::Open : Fault::Playing;
    if (name.startsWith(QLatin1String("frozen"))) {
        row.outcome = Fault::Stops;
        row.happen = freeze;
        row.heal = [&server] {
            server.thaw();
            return true;
        };
        if (name == QLatin1String("frozen, then killed")) {
            row.afterwards = kill;
            row.heal = restart;
        }
    } else if (name.startsWith(QLatin1String("killed")) || name == QLatin1String("terminated")) {
        row.lostWithin = 300;
        row.happen = kill;
        if (name == QLatin1String("terminated"))
            row.happen = [&server] { server.terminate(); };
        row.heal = restart;
    }
    return row;
}

inline void runFault(QTovelMixer::Backend backend, const Fault &fault, unsigned frames = 512)
{
    RtAudioSession session(backend, fault.direction, frames);
    // Once through everything, so that what is made once is there.
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
    const Resources before = Resources::now();

    QVERIFY(session.openDefaults());
    if (fault.state == Fault::Playing)
        QVERIFY(session.play());
    QCOMPARE(session.failures, 0);
    session.stops = 0;
    TimedApplication::longest = 0;
    QElapsedTimer clock;
    clock.start();
    fault.happen();

    QString outcome;
    bool hung = false;
    switch (fault.outcome) {
    case Fault::Lost:
        if (fault.state == Fault::Open) {
            // Nobody is told before the stream is used, and its buffers take some blocks first.
            QVERIFY(!session.play() || session.wait([&] { return session.failures > 0; }));
            outcome = session.failures > 0 ? QStringLiteral("deviceFailed when started")
                                           : QStringLiteral("refused to start");
            break;
        }
        QVERIFY(session.wait(
            [&] { return session.failures > 0 || (fault.mayHang && session.stops > 0); }));
        hung = session.failures == 0;
        if (hung) {
            outcome = QStringLiteral("hung, stopped after %1 ms").arg(clock.elapsed());
            break;
        }
        outcome = QStringLiteral("deviceFailed after %1 ms").arg(clock.elapsed());
        QVERIFY2(clock.elapsed() <= fault.lostWithin, qPrintable(outcome));
        break;
    case Fault::Stops:
        if (fault.state == Fault::Playing) {
            QVERIFY(session.wait([&] { return session.stops > 0; }));
            outcome = QStringLiteral("stopped after %1 ms").arg(clock.elapsed());
        } else {
            outcome = QStringLiteral("closed in time");
        }
        break;
    case Fault::GoesOn:
        QVERIFY(session.goesOn(200));
        outcome = QStringLiteral("goes on");
        break;
    }
    if (fault.afterwards)
        fault.afterwards();
    // A host that asks while the server is away is not held either.
    session.timed([&] { session.engine->doDeviceListUpdate(); });
    QCoreApplication::processEvents();
    session.timed([&] { session.engine->deactivate(); });
    QVERIFY(session.wait([&] { return !session.api->isOpen(); }));
    if (fault.heal)
        QVERIFY(fault.heal());

    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
    const int told = fault.outcome == Fault::Lost ? fault.failures : 0;
    // A start that is refused has told of the loss as well.
    const int least = fault.state == Fault::Open || hung ? 0 : told;
    const bool leavesThread = fault.leavesThread || hung;
    const int most = told + fault.mayFollow;
    QVERIFY2(session.failures >= least && session.failures <= most,
             qPrintable(QStringLiteral("%1 failures").arg(session.failures)));
    QVERIFY2(TimedApplication::longest <= longestHold,
             qPrintable(QStringLiteral("held for %1 ms").arg(TimedApplication::longest)));
    if (!leavesThread)
        session.wait([&] { return Resources::now().within(before); });
    const Resources after = Resources::now();
    qInfo().noquote() << QStringLiteral("FAULT | %1 | %2 | %3 | %4 | held %5 ms | threads %6, "
                                        "files %7 more | plays again")
                             .arg(session.api->backendString(), fault.name,
                                  directionName(fault.direction), outcome)
                             .arg(TimedApplication::longest)
                             .arg(after.threads - before.threads)
                             .arg(after.files - before.files);
    if (!leavesThread)
        QVERIFY2(after.within(before), "threads or files were left behind");
}

#endif
