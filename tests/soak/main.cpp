// SPDX-License-Identifier: MIT
// Operates a mixer at random for as long as one likes and compares every frame that it records.
#include "session.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QTextStream>
#include <QtCore/QTimer>

#include <cstdio>

namespace {

constexpr int usageError = 2;
constexpr qint64 realTimeGap = Material::mixerRate / 4; // frames between two operations, on average

struct Plan
{
    SoakSession::Setup session;
    qint64 frames = 0;
    qint64 operations = 0;
};

struct Memory
{
    qint64 early = 0; ///< KiB
    qint64 late = 0;
};

/// Proportional set size in KiB, 0 where the system does not tell.
qint64 residentMemory()
{
    QFile file(QStringLiteral("/proc/self/smaps_rollup"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("Pss:"))
            return line.simplified().split(' ').value(1).toLongLong();
    }
    return 0;
}

/// Only what is wrong is worth a line.
void onMessage(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        std::fprintf(stderr, "mixer: %s\n", qPrintable(text));
}

bool readPlan(const QCoreApplication &app, Plan &plan)
{
    QCommandLineParser parser;
    parser.addOption({QStringLiteral("freewheel"), {}, QStringLiteral("frames")});
    parser.addOption({QStringLiteral("operations"), {}, QStringLiteral("count")});
    parser.addOption({QStringLiteral("seed"), {}, QStringLiteral("number"), QStringLiteral("1")});
    parser.addOption(QCommandLineOption(QStringLiteral("plant-fault")));
    parser.addPositionalArgument(QStringLiteral("minutes"), {});
    if (!parser.parse(app.arguments()))
        return false;
    bool numbers = true;
    const auto number = [&](const QString &text) {
        bool ok = false;
        const double value = text.toDouble(&ok);
        numbers = numbers && ok && value > 0.0 && value < 1e15;
        return ok ? value : 0.0;
    };
    plan.session.seed = quint32(number(parser.value(QStringLiteral("seed"))));
    plan.session.plantFault = parser.isSet(QStringLiteral("plant-fault"));
    const QStringList minutes = parser.positionalArguments();
    if (parser.isSet(QStringLiteral("freewheel"))) {
        plan.session.pacing = SoakSession::Pacing::FreeWheel;
        plan.frames = qint64(number(parser.value(QStringLiteral("freewheel"))));
        plan.operations = qint64(number(parser.value(QStringLiteral("operations"))));
        return numbers && minutes.isEmpty();
    }
    plan.frames = qint64(number(minutes.value(0)) * 60.0 * Material::mixerRate);
    plan.operations = plan.frames / realTimeGap;
    return numbers && minutes.size() == 1 && !parser.isSet(QStringLiteral("operations"));
}

/// The operations, spread at random over the frames. Memory is looked at after a tenth of them,
/// when all rings have been filled, and at the end.
bool run(SoakSession &session, const Plan &plan, Memory &memory)
{
    std::mt19937 random(plan.session.seed + 1);
    const double gap = double(plan.frames) / double(plan.operations + 1);
    std::exponential_distribution<double> gaps(1.0 / gap);
    QTimer waker;
    waker.setTimerType(Qt::PreciseTimer);
    waker.start(1);
    double target = gaps(random);
    qint64 done = 0;
    qint64 seen = 0;
    QElapsedTimer moving;
    moving.start();
    while (done < plan.operations || session.mixedFrames() < plan.frames) {
        const qint64 frames = session.mixedFrames();
        if (done < plan.operations && double(frames) >= target) {
            if (!session.operate())
                return false;
            if (++done == plan.operations / 10 + 1)
                memory.early = residentMemory();
            target += gaps(random);
        } else {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        if (frames != seen) {
            seen = frames;
            moving.start();
        } else if (moving.elapsed() > 20000) {
            std::fprintf(stderr, "failed: no block for 20 s: %s\n", qPrintable(session.describe()));
            return false;
        }
    }
    memory.late = residentMemory();
    return true;
}

void print(const SoakSession &session, const Plan &plan, double seconds, const Memory &memory)
{
    const bool realTime = plan.session.pacing == SoakSession::Pacing::RealTime;
    qint64 operations = 0;
    for (const qint64 count : session.operations)
        operations += count;
    QTextStream out(stdout);
    out.setRealNumberNotation(QTextStream::FixedNotation);
    out.setRealNumberPrecision(3);
    out << "pacing:             " << (realTime ? "real time" : "free-wheel") << ", seed "
        << plan.session.seed << '\n'
        << "frames mixed:       " << session.mixedFrames() << " in " << seconds << " s\n"
        << "frames recorded:    " << session.ledger.frames << " by four sinks\n"
        << "samples verified:   " << session.ledger.verified << '\n'
        << "samples waited for: " << session.ledger.waited
        << ", silent while sources were read anew\n"
        << "operations:         " << operations << '\n';
    for (auto it = session.operations.cbegin(); it != session.operations.cend(); ++it)
        out << "  " << it.key().leftJustified(18) << it.value() << '\n';
    out << "dropped blocks:     " << session.droppedBlocks() << '\n';
    if (realTime) {
        out << "late blocks:        " << session.lateBlocks << ", the latest by "
            << double(session.worstDelay) / 1e6 << " ms\n"
            << "callback time:      worst " << double(session.times.worst() + 1) / 1e3
            << " ms, 99.9 % below " << double(session.times.percentile(99.9) + 1) / 1e3 << " ms\n";
    }
    out << "memory (Pss):       " << memory.early << " KiB after the start, " << memory.late
        << " KiB at the end\n"
        << "lost frames:        " << session.ledger.lost << '\n';
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Plan plan;
    if (!readPlan(app, plan)) {
        std::fprintf(stderr, "usage: soak MINUTES [--seed N]\n"
                             "       soak --freewheel FRAMES --operations N [--seed N]\n");
        return usageError;
    }
    qInstallMessageHandler(onMessage);
    QTovelMixer::Engine::Initialize();
    SoakSession session(plan.session);
    QElapsedTimer clock;
    clock.start();
    bool well = session.begin();
    Memory memory;
    well = well && run(session, plan, memory) && session.end();
    print(session, plan, double(clock.elapsed()) / 1e3, memory);
    return well && session.ledger.lost == 0 ? 0 : 1;
}
