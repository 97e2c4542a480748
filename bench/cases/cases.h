// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_BENCH_CASES_CASES_H
#define QTOVELMIXER_BENCH_CASES_CASES_H

#include "harness/suite.h"

namespace Bench {

void addMatrixCases(Suite &suite);
void addMixerCases(Suite &suite);
void addLayoutCases(Suite &suite);
void addRingCases(Suite &suite);
void addResampleCases(Suite &suite);
void addMeterCases(Suite &suite);
void addLoudnessCases(Suite &suite);
void addCallbackCases(Suite &suite);
void addDeviceCases(Suite &suite);
void addWorkerFigures(Suite &suite);
void addLockFigures(Suite &suite);
void addHostFigures(Suite &suite);
void addOfflineFigures(Suite &suite);
void addPriorityFigures(Suite &suite);

/// The whole table.
Suite allCases();

} // namespace Bench

#endif
