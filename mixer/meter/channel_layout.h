// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_CHANNEL_LAYOUT_H
#define QTOVELMIXER_MIXER_METER_CHANNEL_LAYOUT_H

#include <base/export.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <vector>

namespace QTovelMixer {

/// What a channel is to the ear.
struct ChannelPosition
{
    enum Kind : qint32 {
        Unknown,      ///< weighs 1
        Speaker,      ///< weighs what its place gives
        LowFrequency, ///< not part of the loudness
        DualMono      ///< one channel that two front speakers play: counts twice
    };
    Kind kind = Unknown;
    double azimuth = 0.0;   ///< degrees to the left of the front, -180 … 180
    double elevation = 0.0; ///< degrees above the ears, -90 … 90

    bool operator==(const ChannelPosition &other) const = default;
};

/// Where the channels of a device are heard from, and so what each weighs in the loudness sum. A
/// value that can be copied.
///
/// Threads: any, one at a time per value.
class QTOVELMIXER_EXPORT ChannelLayout
{
public:
    /// Nothing is known: meters weigh the channels by their count.
    ChannelLayout();
    explicit ChannelLayout(std::vector<ChannelPosition> positions);

    /// A layout by its name: "mono", "dual mono", "stereo" (also "2.0"), "3.0", "4.0", "5.0",
    /// "5.1", "7.1", "5.1.4", "7.1.4", "22.2". The order of the channels is that of ITU-R BS.2051
    /// with L R C LFE first. "4.0" is L R Ls Rs. Errors: nothing is known, for any other name.
    static ChannelLayout named(const QString &name);

    /// Reads what systems call channels: "front-left", "side-right", "lfe", "top-front-center" …;
    /// "FL", "SR", "LFE", "TFC" …; and labels after ITU-R BS.2051, "M+030", "U-110", "LFE1".
    /// "rear" is 135 degrees from the front in layouts that also have sides, and else 110 degrees,
    /// where 5.1 has its surrounds. Names that are none of these are positions that nothing is
    /// known of.
    static ChannelLayout fromNames(const QStringList &names);

    /// True when something is known of any channel.
    bool isKnown() const;
    int count() const;
    /// Errors: an unknown position out of range.
    ChannelPosition position(int channel) const;

    /// What the energy of a channel is multiplied by (ITU-R BS.1770-5 Annex 3): 1.41
    /// between 60 and 120 degrees from the front within 30 degrees of the ears' height, 0 for a
    /// low-frequency channel, 2 for dual mono (EBU Tech 3341), else 1. Errors: 1 out of range.
    double weight(int channel) const;

    bool operator==(const ChannelLayout &other) const;

private:
    std::vector<ChannelPosition> m_positions;
};

} // namespace QTovelMixer

#endif
