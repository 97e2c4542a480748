// SPDX-License-Identifier: MIT
#include "harness/report.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QSysInfo>
#include <QtCore/QThread>

#include <cmath>
#include <cstdio>
#include <map>

namespace Bench {

namespace {

QString number(double value)
{
    if (std::abs(value) >= 1000.0)
        return QString::number(value, 'f', 0);
    return QString::number(value, 'g', 3);
}

QString quantity(double nanoseconds, const QString &unit)
{
    if (!unit.startsWith(QLatin1String("ns")))
        return number(nanoseconds) + u' ' + unit;
    if (nanoseconds >= 1e6)
        return number(nanoseconds / 1e6) + QStringLiteral(" ms");
    if (nanoseconds >= 1e4)
        return number(nanoseconds / 1e3) + QStringLiteral(" µs");
    return number(nanoseconds) + QStringLiteral(" ns");
}

const Contestant *find(const Case &work, const QString &name)
{
    for (const Contestant &who : work.contestants) {
        if (who.name == name)
            return &who;
    }
    return nullptr;
}

Row rowFor(const Case &work)
{
    Row row;
    row.section = work.section;
    row.name = work.name;
    row.unit = QLatin1String("ns per ") + work.unit;
    row.ours = nanoseconds(work.contestants.front());
    row.rounds = work.contestants.front().rounds;
    return row;
}

Row comparison(const Case &work, const Contestant &other)
{
    Row row = rowFor(work);
    row.reference = other.name;
    row.theirs = nanoseconds(other);
    row.ratio = timesAsFast(work, other);
    return row;
}

std::optional<Row> demanded(const Case &work, const Demand &demand)
{
    if (demand.kind == Demand::TimesAsFast) {
        const Contestant *other = find(work, demand.against);
        if (!other)
            return std::nullopt;
        Row row = comparison(work, *other);
        row.must = demand.bound;
        return row;
    }
    Row row = rowFor(work);
    row.must = demand.bound;
    row.atLeast = false;
    if (demand.kind == Demand::Instructions) {
        if (work.contestants.front().instructions < 0.0)
            return std::nullopt;
        row.unit = QLatin1String("instructions per ") + work.unit;
        row.ours = work.contestants.front().instructions;
    }
    return row;
}

std::vector<Row> instructionRows(const Case &work)
{
    std::vector<Row> rows;
    for (size_t i = 1; i < work.contestants.size(); ++i) {
        const Contestant &other = work.contestants[i];
        if (other.instructions < 0.0 || work.contestants.front().instructions <= 0.0)
            continue;
        Row row = rowFor(work);
        row.unit = QLatin1String("instructions per ") + work.unit;
        row.reference = other.name;
        row.ours = work.contestants.front().instructions;
        row.theirs = other.instructions;
        row.ratio = row.theirs / row.ours;
        rows.push_back(row);
    }
    return rows;
}

} // namespace

bool Row::holds() const
{
    if (must == 0.0)
        return true;
    if (!atLeast)
        return ours <= must;
    return (reference.isEmpty() ? ours : ratio) >= must;
}

QString Row::key() const
{
    return section + u'/' + name + u'/' + reference + u'/' + unit;
}

std::vector<Row> rowsOf(const Case &work)
{
    std::vector<Row> rows;
    for (const Demand &demand : work.demands) {
        if (const std::optional<Row> row = demanded(work, demand))
            rows.push_back(*row);
    }
    if (work.contestants.front().rounds.empty()) {
        const std::vector<Row> counted = instructionRows(work);
        rows.insert(rows.end(), counted.begin(), counted.end());
        return rows;
    }
    for (size_t i = 1; i < work.contestants.size(); ++i) {
        const Contestant &other = work.contestants[i];
        bool listed = false;
        for (const Demand &demand : work.demands)
            listed |= demand.against == other.name;
        if (!listed)
            rows.push_back(comparison(work, other));
    }
    if (rows.empty())
        rows.push_back(rowFor(work));
    return rows;
}

std::vector<Row> rowsOf(const std::vector<Figure> &figures)
{
    std::vector<Row> rows;
    for (const Figure &figure : figures) {
        Row row;
        row.section = figure.section;
        row.name = figure.name;
        row.unit = figure.unit;
        row.ours = figure.value;
        row.must = figure.bound;
        row.atLeast = figure.atLeast;
        rows.push_back(row);
    }
    return rows;
}

void printRow(const Row &row, bool firstOfSection)
{
    if (firstOfSection) {
        std::printf("\n### %s\n\n| what | ours | compared with | its figure | times as fast | "
                    "demanded | holds |\n|---|---|---|---|---|---|---|\n",
                    qUtf8Printable(row.section));
    }
    QString must;
    if (row.must != 0.0) {
        must = row.atLeast ? QStringLiteral("≥ ") : QStringLiteral("≤ ");
        must += row.reference.isEmpty() ? quantity(row.must, row.unit)
                                        : QString::number(row.must, 'g', 3);
    }
    std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", qUtf8Printable(row.name),
                qUtf8Printable(quantity(row.ours, row.unit)), qUtf8Printable(row.reference),
                row.reference.isEmpty() ? "" : qUtf8Printable(quantity(row.theirs, row.unit)),
                row.reference.isEmpty() ? "" : qUtf8Printable(QString::number(row.ratio, 'f', 2)),
                qUtf8Printable(must), row.must == 0.0 ? "" : (row.holds() ? "yes" : "**no**"));
    std::fflush(stdout);
}

QString machine()
{
    QString name = QSysInfo::currentCpuArchitecture();
    QFile file(QStringLiteral("/proc/cpuinfo"));
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.startsWith("model name")) {
                name = QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
                break;
            }
        }
    }
    return QStringLiteral("%1, %2 processors, %3, g++ %4")
        .arg(name)
        .arg(QThread::idealThreadCount())
        .arg(QSysInfo::prettyProductName(), QLatin1String(__VERSION__));
}

QJsonObject toJson(const std::vector<Row> &rows)
{
    QJsonArray list;
    for (const Row &row : rows) {
        QJsonObject item{{QStringLiteral("section"), row.section},
                         {QStringLiteral("name"), row.name},
                         {QStringLiteral("unit"), row.unit},
                         {QStringLiteral("ours"), row.ours}};
        if (!row.reference.isEmpty()) {
            item[QStringLiteral("reference")] = row.reference;
            item[QStringLiteral("theirs")] = row.theirs;
            item[QStringLiteral("ratio")] = row.ratio;
        }
        if (row.must != 0.0) {
            item[QStringLiteral("must")] = row.must;
            item[QStringLiteral("atLeast")] = row.atLeast;
            item[QStringLiteral("holds")] = row.holds();
        }
        item[QStringLiteral("key")] = row.key();
        list.append(item);
    }
    return {{QStringLiteral("machine"), machine()},
            {QStringLiteral("date"), QDateTime::currentDateTimeUtc().toString(Qt::ISODate)},
            {QStringLiteral("rows"), list}};
}

std::optional<QJsonObject> readReport(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject report = QJsonDocument::fromJson(file.readAll()).object();
    if (!report[QStringLiteral("rows")].isArray())
        return std::nullopt;
    return report;
}

bool writeReport(const QString &path, const QJsonObject &report)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(report).toJson()) > 0;
}

void compare(const QJsonObject &before, const std::vector<Row> &rows)
{
    std::map<QString, QJsonObject> old;
    for (const QJsonValue &item : before[QStringLiteral("rows")].toArray())
        old[item.toObject()[QStringLiteral("key")].toString()] = item.toObject();
    std::printf("\n### Compared with %s\n\n| what | compared with | before | now | change |\n"
                "|---|---|---|---|---|\n",
                qUtf8Printable(before[QStringLiteral("date")].toString()));
    for (const Row &row : rows) {
        const auto found = old.find(row.key());
        if (found == old.end())
            continue;
        const bool relative = !row.reference.isEmpty();
        const double then =
            found->second[relative ? QStringLiteral("ratio") : QStringLiteral("ours")].toDouble();
        const double value = relative ? row.ratio : row.ours;
        const double change = then != 0.0 ? (value / then - 1.0) * 100.0 : 0.0;
        std::printf("| %s: %s | %s | %s | %s | %+.0f %% |\n", qUtf8Printable(row.section),
                    qUtf8Printable(row.name), qUtf8Printable(row.reference),
                    qUtf8Printable(number(then)), qUtf8Printable(number(value)), change);
    }
}

} // namespace Bench
