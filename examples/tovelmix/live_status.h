// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_LIVE_STATUS_H
#define TOVELMIX_LIVE_STATUS_H

#include <QtCore/QString>

#include <vector>

namespace tovelmix {

/// What a terminal shows of a command that goes on.
class LiveStatus
{
public:
    virtual ~LiveStatus() = default;

    virtual QString progress() const = 0;
    /// The meter's latest reading per channel: peak level and peak hold, dB.
    virtual const std::vector<double> &levels() const = 0;
    virtual const std::vector<double> &holdLevels() const = 0;
};

} // namespace tovelmix

#endif
