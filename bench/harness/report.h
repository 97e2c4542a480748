// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_HARNESS_REPORT_H
#define QTOVELMIXER_BENCH_HARNESS_REPORT_H

#include "harness/suite.h"

#include <QtCore/QJsonObject>

#include <optional>
#include <vector>

namespace Bench {

/// One line of the table.
struct Row
{
    QString section;
    QString name;
    QString reference; ///< who or what the library is compared with; empty for a plain figure
    QString unit;
    double ours = 0.0;
    double theirs = 0.0;
    double ratio = 0.0; ///< how many times as fast as the reference
    double must = 0.0;  ///< 0: nothing is demanded
    bool atLeast = true;
    std::vector<double> rounds; ///< of the library, for the spread

    bool holds() const;
    QString key() const;
};

std::vector<Row> rowsOf(const Case &work);
std::vector<Row> rowsOf(const std::vector<Figure> &figures);

/// Lines of a table of Markdown, with a head above the first of each section.
void printRow(const Row &row, bool firstOfSection);

QJsonObject toJson(const std::vector<Row> &rows);
/// Errors: nothing when the file is no report.
std::optional<QJsonObject> readReport(const QString &path);
bool writeReport(const QString &path, const QJsonObject &report);
/// Prints what became faster or slower.
void compare(const QJsonObject &before, const std::vector<Row> &rows);
/// One picture per section: bars of how many times as fast, with marks at what is demanded.
bool plot(const QJsonObject &report, const QString &folder);

QString machine();

} // namespace Bench

#endif
