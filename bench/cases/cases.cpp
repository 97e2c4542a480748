// SPDX-License-Identifier: MIT
#include "cases/cases.h"

namespace Bench {

Suite allCases()
{
    Suite suite;
    addMatrixCases(suite);
    addMixerCases(suite);
    addLayoutCases(suite);
    addRingCases(suite);
    addResampleCases(suite);
    addMeterCases(suite);
    addLoudnessCases(suite);
    addCallbackCases(suite);
    addDeviceCases(suite);
    addWorkerFigures(suite);
    addLockFigures(suite);
    addHostFigures(suite);
    addOfflineFigures(suite);
    addPriorityFigures(suite);
    return suite;
}

} // namespace Bench
