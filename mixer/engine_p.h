// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_P_H
#define QTOVELMIXER_MIXER_ENGINE_P_H

// The private record of `mixer/engine.h`, by the name that goes with it.
#include <mixer/engine/engine_p.h>

#endif
