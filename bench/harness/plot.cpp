// SPDX-License-Identifier: MIT
#include "harness/report.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QRegularExpression>
#include <QtCore/QTextStream>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>

namespace Bench {

namespace {

constexpr int labelWidth = 560;
constexpr int barWidth = 420;
constexpr int rowHeight = 22;
constexpr int head = 48;
constexpr int foot = 32;

/// Bars of very different lengths share a logarithmic scale from a tenth to a thousand.
double place(double ratio)
{
    return std::clamp((std::log10(std::max(ratio, 0.1)) + 1.0) / 4.0, 0.0, 1.0) * barWidth;
}

QString escaped(const QString &text)
{
    return text.toHtmlEscaped();
}

QString fileName(const QString &section)
{
    static const QRegularExpression other(QStringLiteral("[^a-z0-9]+"));
    QString name = section.toLower();
    name.replace(other, QStringLiteral("-"));
    return name + QLatin1String(".svg");
}

void drawScale(QTextStream &svg, int height)
{
    for (const double mark : {0.1, 1.0, 10.0, 100.0, 1000.0}) {
        const double x = labelWidth + place(mark);
        svg << "<line x1='" << x << "' x2='" << x << "' y1='" << head - 6 << "' y2='" << height - 8
            << "' stroke='" << (mark == 1.0 ? "#444" : "#ccc") << "'/>\n<text x='" << x << "' y='"
            << head - 10 << "' text-anchor='middle' fill='#555'>" << mark << "×</text>\n";
    }
}

/// A row as it is drawn: how many times as fast as another, or as its bound demands.
struct Bar
{
    QString label;
    double ratio;
    double must; ///< 0: nothing is demanded
    bool holds;
};

QString quantity(double value, QString unit)
{
    for (const char *larger : {"µs", "ms"}) {
        if (value < 1e3 || !(unit.startsWith(u"ns") || unit.startsWith(u"µs")))
            break;
        value /= 1e3;
        unit.replace(0, 2, QString::fromUtf8(larger));
    }
    return QString::number(value, 'g', 3) + u' ' + unit;
}

std::optional<Bar> barOf(const QJsonObject &row)
{
    const QString name = row[QStringLiteral("name")].toString();
    const double must = row[QStringLiteral("must")].toDouble();
    const bool holds = must == 0.0 || row[QStringLiteral("holds")].toBool();
    if (row.contains(QStringLiteral("ratio"))) {
        const QString label =
            name + QLatin1String(" : ") + row[QStringLiteral("reference")].toString();
        return Bar{label, row[QStringLiteral("ratio")].toDouble(), must, holds};
    }
    const double ours = row[QStringLiteral("ours")].toDouble();
    const bool bounded = must > 0.0 && ours > 0.0;
    if (!bounded || row[QStringLiteral("atLeast")].toBool())
        return std::nullopt;
    const QString unit = row[QStringLiteral("unit")].toString();
    return Bar{name + QLatin1String(" : at most ") + quantity(must, unit), must / ours, 1.0, holds};
}

void drawRow(QTextStream &svg, const Bar &bar, int y)
{
    const double ratio = bar.ratio;
    const double must = bar.must;
    svg << "<text x='" << labelWidth - 8 << "' y='" << y + 15 << "' text-anchor='end'>"
        << escaped(bar.label) << "</text>\n<rect x='" << labelWidth << "' y='" << y + 3
        << "' height='" << rowHeight - 6 << "' width='" << place(ratio) << "' fill='"
        << (bar.holds ? "#4b8bbe" : "#c0504d") << "'/>\n<text x='" << labelWidth + place(ratio) + 6
        << "' y='" << y + 15 << "'>" << QString::number(ratio, 'f', ratio < 10 ? 2 : 0)
        << "×</text>\n";
    if (must == 0.0)
        return;
    const double x = labelWidth + place(must);
    svg << "<line x1='" << x << "' x2='" << x << "' y1='" << y + 1 << "' y2='" << y + rowHeight - 1
        << "' stroke='#000' stroke-width='2'/>\n";
}

bool drawSection(const QString &section, const std::vector<Bar> &rows, const QString &origin,
                 const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return false;
    const int height = head + int(rows.size()) * rowHeight + foot;
    QTextStream svg(&file);
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << labelWidth + barWidth + 90
        << "' height='" << height
        << "' font-family='sans-serif' font-size='12'>\n<rect width='100%' height='100%' "
           "fill='#fff'/>\n<text x='8' y='18' font-size='14' font-weight='bold'>"
        << escaped(section)
        << ": how many times as fast, or as few as allowed (black mark: demanded)</text>\n";
    drawScale(svg, height - foot + 12);
    int y = head;
    for (const Bar &row : rows) {
        drawRow(svg, row, y);
        y += rowHeight;
    }
    svg << "<text x='8' y='" << height - 8 << "' fill='#555'>" << escaped(origin)
        << "</text>\n</svg>\n";
    return true;
}

} // namespace

bool plot(const QJsonObject &report, const QString &folder)
{
    std::vector<QString> order;
    std::map<QString, std::vector<Bar>> sections;
    for (const QJsonValue &item : report[QStringLiteral("rows")].toArray()) {
        const QJsonObject row = item.toObject();
        const std::optional<Bar> bar = barOf(row);
        if (!bar)
            continue;
        const QString section = row[QStringLiteral("section")].toString();
        if (sections[section].empty())
            order.push_back(section);
        sections[section].push_back(*bar);
    }
    const QString origin = report[QStringLiteral("machine")].toString() + QLatin1String("; ") +
                           report[QStringLiteral("date")].toString();
    bool written = QDir().mkpath(folder);
    for (const QString &section : order) {
        written =
            drawSection(section, sections[section], origin, folder + u'/' + fileName(section)) &&
            written;
    }
    return written;
}

} // namespace Bench
