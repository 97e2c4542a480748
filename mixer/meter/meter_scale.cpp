// SPDX-License-Identifier: MIT
#include <mixer/meter/meter_scale.h>

#include <algorithm>
#include <cmath>
#include <span>

namespace QTovelMixer {

namespace {

constexpr double silence = -120.0;

/// Between two knots the scale is straight.
struct Knot
{
    double reading;  // relative to the scale's zero
    double position; // 0 … 1
};

struct Shape
{
    double zero; // the reading printed as 0
    const char *unit;
    std::span<const Knot> knots;
    std::span<const int> marks; // as printed
};

// The last 12 dB get a third of the length: there a tenth matters.
constexpr Knot digitalKnots[] = {{-60.0, 0.0},  {-40.0, 0.15}, {-30.0, 0.3}, {-20.0, 0.5},
                                 {-12.0, 0.68}, {-6.0, 0.84},  {0.0, 1.0}};
constexpr int digitalMarks[] = {-60, -50, -40, -30, -20, -12, -6, -3, 0};

// Tech 3341: LU are spaced evenly.
constexpr Knot ebu9Knots[] = {{-18.0, 0.0}, {9.0, 1.0}};
constexpr int ebu9Marks[] = {-18, -15, -12, -9, -6, -3, 0, 3, 6, 9};
constexpr Knot ebu18Knots[] = {{-36.0, 0.0}, {18.0, 1.0}};
constexpr int ebu18Marks[] = {-36, -30, -24, -18, -12, -6, 0, 6, 12, 18};

// The K-System spaces decibels evenly above -24.
constexpr Knot k12Knots[] = {{-44.0, 0.0}, {-24.0, 0.15}, {12.0, 1.0}};
constexpr int k12Marks[] = {-40, -30, -24, -18, -12, -6, 0, 4, 8, 12};
constexpr Knot k14Knots[] = {{-44.0, 0.0}, {-24.0, 0.15}, {14.0, 1.0}};
constexpr int k14Marks[] = {-40, -30, -24, -18, -12, -6, 0, 4, 8, 14};
constexpr Knot k20Knots[] = {{-44.0, 0.0}, {-24.0, 0.15}, {20.0, 1.0}};
constexpr int k20Marks[] = {-40, -30, -24, -18, -12, -6, 0, 4, 8, 12, 16, 20};

Shape shapeOf(MeterScale::Kind kind)
{
    switch (kind) {
    case MeterScale::EbuPlus9:
        return {-23.0, "LU", ebu9Knots, ebu9Marks};
    case MeterScale::EbuPlus18:
        return {-23.0, "LU", ebu18Knots, ebu18Marks};
    case MeterScale::K12:
        return {-12.0, "dB", k12Knots, k12Marks};
    case MeterScale::K14:
        return {-14.0, "dB", k14Knots, k14Marks};
    case MeterScale::K20:
        return {-20.0, "dB", k20Knots, k20Marks};
    case MeterScale::Digital:
        break;
    }
    return {0.0, "dB", digitalKnots, digitalMarks};
}

double between(double value, double from, double to, double first, double second)
{
    return first + (value - from) / (to - from) * (second - first);
}

} // namespace

MeterScale::MeterScale(Kind kind) : m_kind(kind) {}

double MeterScale::zero() const
{
    return shapeOf(m_kind).zero;
}

double MeterScale::lowest() const
{
    const Shape shape = shapeOf(m_kind);
    return shape.zero + shape.knots.front().reading;
}

double MeterScale::highest() const
{
    const Shape shape = shapeOf(m_kind);
    return shape.zero + shape.knots.back().reading;
}

double MeterScale::position(double reading) const
{
    const Shape shape = shapeOf(m_kind);
    const double value = reading - shape.zero;
    if (!(value > shape.knots.front().reading))
        return 0.0;
    for (size_t i = 1; i < shape.knots.size(); ++i) {
        const Knot &from = shape.knots[i - 1];
        const Knot &to = shape.knots[i];
        if (value < to.reading)
            return between(value, from.reading, to.reading, from.position, to.position);
    }
    return 1.0;
}

double MeterScale::reading(double position) const
{
    const Shape shape = shapeOf(m_kind);
    if (!(position > 0.0))
        return lowest();
    for (size_t i = 1; i < shape.knots.size(); ++i) {
        const Knot &from = shape.knots[i - 1];
        const Knot &to = shape.knots[i];
        if (position < to.position)
            return shape.zero +
                   between(position, from.position, to.position, from.reading, to.reading);
    }
    return highest();
}

std::vector<MeterScale::Mark> MeterScale::marks() const
{
    const Shape shape = shapeOf(m_kind);
    std::vector<Mark> marks;
    for (const int printed : shape.marks) {
        const double at = shape.zero + printed;
        const QString label = QString::number(printed);
        marks.push_back({at, position(at), printed > 0 ? '+' + label : label});
    }
    return marks;
}

QString MeterScale::text(double reading) const
{
    if (!(reading > silence))
        return QStringLiteral("silence");
    const Shape shape = shapeOf(m_kind);
    // Never "-0.0".
    const double value = std::round((reading - shape.zero) * 10.0) / 10.0 + 0.0;
    const bool isRelative = shape.zero != 0.0;
    return QStringLiteral("%1%2 %3")
        .arg(isRelative && value > 0.0 ? QStringLiteral("+") : QString())
        .arg(value, 0, 'f', 1)
        .arg(QLatin1String(shape.unit));
}

} // namespace QTovelMixer
