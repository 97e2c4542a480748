// SPDX-License-Identifier: MIT
#include <mixer/meter/channel_layout.h>

#include <QtCore/QHash>

#include <algorithm>
#include <cmath>
#include <utility>

namespace QTovelMixer {

namespace {

constexpr ChannelPosition at(double azimuth, double elevation = 0.0)
{
    return {ChannelPosition::Speaker, azimuth, elevation};
}

constexpr ChannelPosition lowFrequency{ChannelPosition::LowFrequency, 0.0, 0.0};

// Of speakers above and below; only that they lie 30 degrees or more off the ears matters.
constexpr double upper = 30.0;
constexpr double lower = -30.0;

constexpr double rearWithSides = 135.0;
constexpr double rearAlone = 110.0;

struct Named
{
    const char *name;
    const char *abbreviation;
    ChannelPosition position;
};

// The azimuths are those of BS.2051. A rear speaker's depends on the others.
constexpr Named speakers[] = {
    {"mono", "M", at(0.0)},
    {"front-left", "FL", at(30.0)},
    {"front-right", "FR", at(-30.0)},
    {"front-center", "FC", at(0.0)},
    {"lfe", "LFE", lowFrequency},
    {"subwoofer", "LFE2", lowFrequency},
    {"rear-left", "RL", at(rearWithSides)},
    {"rear-right", "RR", at(-rearWithSides)},
    {"rear-center", "RC", at(180.0)},
    {"front-left-of-center", "FLC", at(15.0)},
    {"front-right-of-center", "FRC", at(-15.0)},
    {"front-left-wide", "FLW", at(60.0)},
    {"front-right-wide", "FRW", at(-60.0)},
    {"side-left", "SL", at(90.0)},
    {"side-right", "SR", at(-90.0)},
    {"surround-left", "LS", at(110.0)},
    {"surround-right", "RS", at(-110.0)},
    {"rear-left-of-center", "RLC", at(165.0)},
    {"rear-right-of-center", "RRC", at(-165.0)},
    {"top-center", "TC", at(0.0, 90.0)},
    {"top-front-left", "TFL", at(45.0, upper)},
    {"top-front-right", "TFR", at(-45.0, upper)},
    {"top-front-center", "TFC", at(0.0, upper)},
    {"top-side-left", "TSL", at(90.0, upper)},
    {"top-side-right", "TSR", at(-90.0, upper)},
    {"top-rear-left", "TRL", at(135.0, upper)},
    {"top-rear-right", "TRR", at(-135.0, upper)},
    {"top-rear-center", "TRC", at(180.0, upper)},
    {"bottom-front-center", "BFC", at(0.0, lower)},
    {"bottom-front-left", "BFL", at(45.0, lower)},
    {"bottom-front-right", "BFR", at(-45.0, lower)},
};

struct Standard
{
    const char *name;
    const char *labels;
};

constexpr Standard standards[] = {
    {"mono", "M+000"},
    {"stereo", "M+030 M-030"},
    {"2.0", "M+030 M-030"},
    {"3.0", "M+030 M-030 M+000"},
    {"4.0", "M+030 M-030 M+110 M-110"},
    {"5.0", "M+030 M-030 M+000 M+110 M-110"},
    {"5.1", "M+030 M-030 M+000 LFE1 M+110 M-110"},
    {"7.1", "M+030 M-030 M+000 LFE1 M+090 M-090 M+135 M-135"},
    {"5.1.4", "M+030 M-030 M+000 LFE1 M+110 M-110 U+030 U-030 U+110 U-110"},
    {"7.1.4", "M+030 M-030 M+000 LFE1 M+090 M-090 M+135 M-135 U+045 U-045 U+135 U-135"},
    {"22.2", "M+060 M-060 M+000 LFE1 M+135 M-135 M+030 M-030 M+180 LFE2 M+090 M-090 "
             "U+045 U-045 U+000 T+000 U+135 U-135 U+090 U-090 U+180 B+000 B+045 B-045"},
};

/// "M+110": a layer and an azimuth.
ChannelPosition fromLabel(const QString &label)
{
    if (label.startsWith(QLatin1String("LFE")))
        return lowFrequency;
    if (label.size() != 5 || (label[1] != '+' && label[1] != '-'))
        return {};
    bool ok = false;
    const int degrees = label.mid(1).toInt(&ok);
    if (!ok || std::abs(degrees) > 180)
        return {};
    switch (label[0].toLatin1()) {
    case 'M':
        return at(degrees);
    case 'U':
        return at(degrees, upper);
    case 'B':
        return at(degrees, lower);
    case 'T':
        return at(degrees, 90.0);
    default:
        return {};
    }
}

const QHash<QString, ChannelPosition> &knownNames()
{
    static const QHash<QString, ChannelPosition> known = [] {
        QHash<QString, ChannelPosition> names;
        for (const Named &speaker : speakers) {
            names.insert(QLatin1String(speaker.name), speaker.position);
            names.insert(QString(QLatin1String(speaker.abbreviation)).toLower(), speaker.position);
        }
        return names;
    }();
    return known;
}

/// Some systems say "back" for what others call "rear", and the middle is spelled in two ways.
QString plain(const QString &name)
{
    QString text = name.trimmed().toLower();
    text.replace("back", "rear").replace("centre", "center");
    if (text == QLatin1String("bl") || text == QLatin1String("br") || text == QLatin1String("bc"))
        text[0] = 'r';
    return text;
}

bool isEarHigh(const ChannelPosition &position, double azimuth)
{
    return position.kind == ChannelPosition::Speaker && position.elevation == 0.0 &&
           std::abs(position.azimuth) == azimuth;
}

} // namespace

ChannelLayout::ChannelLayout() = default;

ChannelLayout::ChannelLayout(std::vector<ChannelPosition> positions)
    : m_positions(std::move(positions))
{}

ChannelLayout ChannelLayout::named(const QString &name)
{
    if (name == QLatin1String("dual mono"))
        return ChannelLayout({{ChannelPosition::DualMono, 0.0, 0.0}});
    for (const Standard &standard : standards) {
        if (name == QLatin1String(standard.name)) {
            std::vector<ChannelPosition> positions;
            for (const QString &label : QString(QLatin1String(standard.labels)).split(' '))
                positions.push_back(fromLabel(label));
            return ChannelLayout(std::move(positions));
        }
    }
    return {};
}

ChannelLayout ChannelLayout::fromNames(const QStringList &names)
{
    std::vector<ChannelPosition> positions;
    std::vector<bool> isRear;
    bool hasSides = false;
    for (const QString &name : names) {
        const auto known = knownNames().constFind(plain(name));
        const bool isLabel = known == knownNames().constEnd();
        const ChannelPosition position = isLabel ? fromLabel(name.trimmed().toUpper()) : *known;
        positions.push_back(position);
        isRear.push_back(!isLabel && isEarHigh(position, rearWithSides));
        hasSides = hasSides || isEarHigh(position, 90.0) || isEarHigh(position, 110.0);
    }
    for (size_t i = 0; i < positions.size() && !hasSides; ++i) {
        if (isRear[i])
            positions[i].azimuth = std::copysign(rearAlone, positions[i].azimuth);
    }
    return ChannelLayout(std::move(positions));
}

bool ChannelLayout::isKnown() const
{
    return std::any_of(m_positions.begin(), m_positions.end(), [](const ChannelPosition &each) {
        return each.kind != ChannelPosition::Unknown;
    });
}

int ChannelLayout::count() const
{
    return int(m_positions.size());
}

ChannelPosition ChannelLayout::position(int channel) const
{
    return channel >= 0 && channel < count() ? m_positions[size_t(channel)] : ChannelPosition{};
}

double ChannelLayout::weight(int channel) const
{
    constexpr double surround = 1.41;
    const ChannelPosition place = position(channel);
    switch (place.kind) {
    case ChannelPosition::Unknown:
        return 1.0;
    case ChannelPosition::LowFrequency:
        return 0.0;
    case ChannelPosition::DualMono:
        return 2.0;
    case ChannelPosition::Speaker:
        break;
    }
    const double aside = std::abs(place.azimuth);
    const bool isSurround = std::abs(place.elevation) < 30.0 && aside >= 60.0 && aside <= 120.0;
    return isSurround ? surround : 1.0;
}

bool ChannelLayout::operator==(const ChannelLayout &other) const
{
    return m_positions == other.m_positions;
}

} // namespace QTovelMixer
