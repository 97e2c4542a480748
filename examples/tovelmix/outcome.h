// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_OUTCOME_H
#define TOVELMIX_OUTCOME_H

#include <QtCore/QString>

namespace tovelmix {

enum ExitStatus { Done = 0, Failed = 1, Misused = 2, NothingThere = 3, Missed = 4 };

/// How a command ended.
struct Outcome
{
    ExitStatus status = Done;
    QString complaint = {}; ///< one line; empty when all went well
};

} // namespace tovelmix

#endif
