// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_HARNESS_INSTRUCTIONS_H
#define QTOVELMIXER_BENCH_HARNESS_INSTRUCTIONS_H

#include "harness/suite.h"

#include <QtCore/QStringList>

#include <map>

namespace Bench {

/// Whether this process runs where instructions are counted.
bool isCounting();

/// Counts what every contestant executes. Only where `isCounting`; the counts are read by
/// `readCounts` of the process that started this one.
void count(const Case &work);

/// Runs this program again under callgrind with the arguments. Answers the counts per unit by
/// "section/name/contestant". Errors: an empty map when callgrind is missing or fails.
std::map<QString, double> countElsewhere(const QStringList &arguments);

/// Puts the counts into the case.
void takeCounts(Case &work, const std::map<QString, double> &counts);

} // namespace Bench

#endif
