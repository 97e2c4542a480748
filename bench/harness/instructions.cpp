// SPDX-License-Identifier: MIT
#include "harness/instructions.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <algorithm>
#include <cstdio>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define QTOVELMIXER_BENCH_CALLGRIND
#endif

namespace Bench {

namespace {

#ifdef QTOVELMIXER_BENCH_CALLGRIND

/// Other threads work now and then, and what they do counts too: the least of some counts is that
/// of the work alone.
constexpr int windows = 9;

/// So many that the way in does not count, so few that a large case ends.
long callsToCount(const Contestant &who)
{
    const int64_t begin = now();
    who.run(1);
    const int64_t taken = now() - begin;
    return taken > 4000000 ? 1 : taken > 400000 ? 5 : 20;
}

#endif

QString keyOf(const Case &work, const Contestant &who)
{
    return work.section + u'/' + work.name + u'/' + who.name;
}

} // namespace

bool isCounting()
{
#ifdef QTOVELMIXER_BENCH_CALLGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return false;
#endif
}

void count([[maybe_unused]] const Case &work)
{
#ifdef QTOVELMIXER_BENCH_CALLGRIND
    holdToTarget(work.target);
    for (const Contestant &who : work.contestants) {
        who.run(1);
        const long calls = callsToCount(who);
        const QByteArray label = QStringLiteral("%1/%2")
                                     .arg(double(calls) * work.unitsPerCall)
                                     .arg(keyOf(work, who))
                                     .toUtf8();
        for (int window = 0; window < windows; ++window) {
            CALLGRIND_START_INSTRUMENTATION;
            CALLGRIND_ZERO_STATS;
            who.run(calls);
            CALLGRIND_STOP_INSTRUMENTATION;
            CALLGRIND_DUMP_STATS_AT(label.constData());
        }
    }
    holdToTarget(0);
#endif
}

std::map<QString, double> countElsewhere(const QStringList &arguments)
{
    std::map<QString, double> counts;
    const QTemporaryDir folder;
    const QString out = folder.filePath(QStringLiteral("counts"));
    QProcess valgrind;
    valgrind.setProcessChannelMode(QProcess::SeparateChannels);
    QStringList all{QStringLiteral("--tool=callgrind"), QStringLiteral("--instr-atstart=no"),
                    QStringLiteral("--combine-dumps=yes"),
                    QStringLiteral("--callgrind-out-file=") + out,
                    QCoreApplication::applicationFilePath()};
    valgrind.start(QStringLiteral("valgrind"), all + arguments);
    if (!valgrind.waitForFinished(-1) || valgrind.exitCode() != 0) {
        std::fprintf(stderr, "instructions are not counted: valgrind does not run\n%s\n",
                     valgrind.readAllStandardError().right(2000).constData());
        return counts;
    }
    QFile file(out);
    if (!file.open(QIODevice::ReadOnly))
        return counts;
    QString label;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        const QString begin = QStringLiteral("desc: Trigger: Client Request: ");
        if (line.startsWith(begin))
            label = line.mid(begin.size());
        if ((line.startsWith(QLatin1String("summary: ")) ||
             line.startsWith(QLatin1String("totals: "))) &&
            !label.isEmpty()) {
            const qsizetype slash = label.indexOf(u'/');
            const double units = label.left(slash).toDouble();
            const double total = line.mid(line.indexOf(u' ') + 1).toDouble();
            if (total > 0.0) {
                const auto known = counts.try_emplace(label.mid(slash + 1), total / units).first;
                known->second = std::min(known->second, total / units);
            }
        }
    }
    return counts;
}

void takeCounts(Case &work, const std::map<QString, double> &counts)
{
    for (Contestant &who : work.contestants) {
        const auto found = counts.find(keyOf(work, who));
        if (found != counts.end())
            who.instructions = found->second;
    }
}

} // namespace Bench
