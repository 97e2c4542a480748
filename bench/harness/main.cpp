// SPDX-License-Identifier: MIT
// Measures the library beside what others reach on the same work, in one process and in turn, and
// prints one table.
#include "cases/cases.h"
#include "harness/instructions.h"
#include "harness/report.h"

#include <mixer/engine.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

#include <cstdio>

using namespace Bench;

namespace {

struct Options
{
    QString only;
    QString json;
    QString compareWith;
    QString plotFolder;
    bool instructions = false;
    bool check = false;
    Pace pace;
};

Options parse(const QCoreApplication &application)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Measures the mixer library beside what others reach."));
    parser.addHelpOption();
    const QCommandLineOption only(QStringLiteral("only"),
                                  QStringLiteral("Sections or cases whose name holds TEXT."),
                                  QStringLiteral("TEXT"));
    const QCommandLineOption json(
        QStringLiteral("json"), QStringLiteral("Write the table to FILE."), QStringLiteral("FILE"));
    const QCommandLineOption before(QStringLiteral("compare"),
                                    QStringLiteral("Compare with the table in FILE."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption pictures(QStringLiteral("plot"),
                                      QStringLiteral("Draw the table into FOLDER."),
                                      QStringLiteral("FOLDER"));
    const QCommandLineOption instructions(
        QStringLiteral("instructions"),
        QStringLiteral("Count instructions too, with valgrind's callgrind."));
    const QCommandLineOption check(
        QStringLiteral("check"),
        QStringLiteral("End with 1 when something demanded does not hold."));
    const QCommandLineOption rounds(QStringLiteral("rounds"),
                                    QStringLiteral("Rounds of slices (15)."), QStringLiteral("N"),
                                    QStringLiteral("15"));
    const QCommandLineOption slice(QStringLiteral("slice"),
                                   QStringLiteral("Milliseconds of a slice (2.5)."),
                                   QStringLiteral("MS"), QStringLiteral("2.5"));
    parser.addOptions({only, json, before, pictures, instructions, check, rounds, slice});
    parser.process(application);
    Options options;
    options.only = parser.value(only);
    options.json = parser.value(json);
    options.compareWith = parser.value(before);
    options.plotFolder = parser.value(pictures);
    options.instructions = parser.isSet(instructions);
    options.check = parser.isSet(check);
    options.pace.rounds = std::max(1, parser.value(rounds).toInt());
    options.pace.sliceMilliseconds = std::max(0.1, parser.value(slice).toDouble());
    return options;
}

bool wanted(const Options &options, const QString &section, const QString &name)
{
    return options.only.isEmpty() || section.contains(options.only, Qt::CaseInsensitive) ||
           name.contains(options.only, Qt::CaseInsensitive);
}

/// Whether its case has to be made to see whether it is wanted.
bool mayBeWanted(const Options &options, const Suite::Entry &entry)
{
    return entry.name.isEmpty() || wanted(options, entry.section, entry.name);
}

class Table
{
public:
    void add(const std::vector<Row> &more)
    {
        for (const Row &row : more) {
            printRow(row, row.section != section);
            section = row.section;
            rows.push_back(row);
        }
    }
    void sum() const
    {
        int demanded = 0;
        int held = 0;
        for (const Row &row : rows) {
            demanded += row.must != 0.0;
            held += row.must != 0.0 && row.holds();
        }
        std::printf("\n%d of %d demands hold.\n", held, demanded);
    }
    bool allHold() const
    {
        return std::all_of(rows.begin(), rows.end(), [](const Row &row) { return row.holds(); });
    }

    std::vector<Row> rows;

private:
    QString section;
};

void countAll(const Suite &suite, const Options &options)
{
    for (const Suite::Entry &entry : suite.entries) {
        if (!entry.makeCase || !mayBeWanted(options, entry))
            continue;
        const Case work = entry.makeCase();
        if (wanted(options, work.section, work.name))
            count(work);
    }
}

void measureAll(const Suite &suite, const Options &options, Table &table)
{
    const int processor = QThread::idealThreadCount() - 1;
    for (const Suite::Entry &entry : suite.entries) {
        if (entry.makeFigures) {
            if (wanted(options, entry.section, entry.section))
                table.add(rowsOf(entry.makeFigures()));
            continue;
        }
        if (!mayBeWanted(options, entry))
            continue;
        Case work = entry.makeCase();
        if (!wanted(options, work.section, work.name))
            continue;
        if (!work.measureBy) // which may have threads of its own
            pin(processor);
        measure(work, options.pace);
        pin(-1);
        table.add(rowsOf(work));
    }
}

void addInstructions(const Suite &suite, const Options &options, Table &table)
{
    QStringList arguments;
    if (!options.only.isEmpty())
        arguments << QStringLiteral("--only") << options.only;
    const std::map<QString, double> counts = countElsewhere(arguments);
    for (const Suite::Entry &entry : suite.entries) {
        if (!entry.makeCase || !mayBeWanted(options, entry))
            continue;
        Case work = entry.makeCase();
        takeCounts(work, counts);
        std::vector<Row> rows = rowsOf(work);
        std::erase_if(rows, [](const Row &row) { return !row.unit.startsWith(u"instr"); });
        for (Row &row : rows)
            row.section = QStringLiteral("Instructions");
        for (Row &row : rows)
            row.name = work.section + QLatin1String(": ") + row.name;
        table.add(rows);
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const Options options = parse(application);
    const Suite suite = allCases();
    if (isCounting()) {
        countAll(suite, options);
        return 0;
    }
    std::printf("machine: %s\n", qUtf8Printable(machine()));
    Table table;
    measureAll(suite, options, table);
    if (options.instructions)
        addInstructions(suite, options, table);
    table.sum();

    const QJsonObject report = toJson(table.rows);
    if (!options.compareWith.isEmpty()) {
        if (const std::optional<QJsonObject> before = readReport(options.compareWith))
            compare(*before, table.rows);
        else
            std::fprintf(stderr, "%s is no table\n", qUtf8Printable(options.compareWith));
    }
    if (!options.json.isEmpty() && !writeReport(options.json, report)) {
        std::fprintf(stderr, "%s cannot be written\n", qUtf8Printable(options.json));
        return 2;
    }
    if (!options.plotFolder.isEmpty() && !plot(report, options.plotFolder)) {
        std::fprintf(stderr, "%s cannot be written\n", qUtf8Printable(options.plotFolder));
        return 2;
    }
    return options.check && !table.allHold() ? 1 : 0;
}
