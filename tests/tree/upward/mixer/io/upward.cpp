// SPDX-License-Identifier: MIT
#include <mixer/engine.h>
#include <mixer/engine/engine_p.h>
