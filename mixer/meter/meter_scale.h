// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_METER_METER_SCALE_H
#define QTOVELMIXER_MIXER_METER_METER_SCALE_H

#include <base/export.h>

#include <QtCore/QString>

#include <vector>

namespace QTovelMixer {

/// Where a reading stands on a meter, so that hosts draw the same. A value that can be copied.
///
/// Units: dBFS, dBTP or LUFS, whatever the meter shows. Positions are 0.0 at the lower end … 1.0 at
/// the upper end. Threads: any. Real-time: yes, but `marks` and `text`.
class QTOVELMIXER_EXPORT MeterScale
{
public:
    /// Usual scales. The K-System's print 0 where 12, 14 or 20 dB of headroom begin; the EBU's
    /// print LU around -23 LUFS (EBU Tech 3341): from -18 to +9, and from -36 to +18.
    enum Kind : qint32 { Digital, EbuPlus9, EbuPlus18, K12, K14, K20 };

    explicit MeterScale(Kind kind = Digital);

    Kind kind() const { return m_kind; }
    /// The readings at the two ends.
    double lowest() const;
    double highest() const;
    /// The reading that the scale prints as 0.
    double zero() const;

    /// Readings beyond an end, and what is no number, stand at that end or at the lower one.
    double position(double reading) const;
    /// The reading at a position, the inverse of `position`.
    double reading(double position) const;

    struct Mark
    {
        double reading = 0.0;
        double position = 0.0;
        QString label; ///< "-18", "0", "+9"
    };
    /// What to print beside the meter, from the lower end up.
    std::vector<Mark> marks() const;

    /// A reading in the scale's own numbers with one decimal and its unit, as screen readers speak
    /// it: "-3.2 dB", "+1.0 LU", "silence" for -120.0 and below.
    QString text(double reading) const;

private:
    Kind m_kind;
};

} // namespace QTovelMixer

#endif
