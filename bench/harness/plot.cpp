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

namespace Bench {

namespace {

constexpr int labelWidth = 470;
constexpr int barWidth = 420;
constexpr int rowHeight = 22;
constexpr int head = 48;

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

void drawRow(QTextStream &svg, const QJsonObject &row, int y)
{
    const double ratio = row[QStringLiteral("ratio")].toDouble();
    const double must = row[QStringLiteral("must")].toDouble();
    const bool holds = must == 0.0 || row[QStringLiteral("holds")].toBool();
    svg << "<text x='" << labelWidth - 8 << "' y='" << y + 15 << "' text-anchor='end'>"
        << escaped(row[QStringLiteral("name")].toString() + QLatin1String(" : ") +
                   row[QStringLiteral("reference")].toString())
        << "</text>\n<rect x='" << labelWidth << "' y='" << y + 3 << "' height='" << rowHeight - 6
        << "' width='" << place(ratio) << "' fill='" << (holds ? "#4b8bbe" : "#c0504d")
        << "'/>\n<text x='" << labelWidth + place(ratio) + 6 << "' y='" << y + 15 << "'>"
        << QString::number(ratio, 'g', 3) << "×</text>\n";
    if (must == 0.0)
        return;
    const double x = labelWidth + place(must);
    svg << "<line x1='" << x << "' x2='" << x << "' y1='" << y + 1 << "' y2='" << y + rowHeight - 1
        << "' stroke='#000' stroke-width='2'/>\n";
}

bool drawSection(const QString &section, const std::vector<QJsonObject> &rows, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text))
        return false;
    const int height = head + int(rows.size()) * rowHeight + 12;
    QTextStream svg(&file);
    svg << "<svg xmlns='http://www.w3.org/2000/svg' width='" << labelWidth + barWidth + 90
        << "' height='" << height
        << "' font-family='sans-serif' font-size='12'>\n<rect width='100%' height='100%' "
           "fill='#fff'/>\n<text x='8' y='18' font-size='14' font-weight='bold'>"
        << escaped(section) << ": times as fast (black mark: demanded)</text>\n";
    drawScale(svg, height);
    int y = head;
    for (const QJsonObject &row : rows) {
        drawRow(svg, row, y);
        y += rowHeight;
    }
    svg << "</svg>\n";
    return true;
}

} // namespace

bool plot(const QJsonObject &report, const QString &folder)
{
    std::vector<QString> order;
    std::map<QString, std::vector<QJsonObject>> sections;
    for (const QJsonValue &item : report[QStringLiteral("rows")].toArray()) {
        const QJsonObject row = item.toObject();
        if (!row.contains(QStringLiteral("ratio")) ||
            !row[QStringLiteral("unit")].toString().startsWith(QLatin1String("ns")))
            continue;
        const QString section = row[QStringLiteral("section")].toString();
        if (sections[section].empty())
            order.push_back(section);
        sections[section].push_back(row);
    }
    bool written = QDir().mkpath(folder);
    for (const QString &section : order) {
        written =
            drawSection(section, sections[section], folder + u'/' + fileName(section)) && written;
    }
    return written;
}

} // namespace Bench
