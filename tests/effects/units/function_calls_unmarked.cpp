// SPDX-License-Identifier: MIT
#include <mixer/engine.h>

void wake(QTovelMixer::Engine &engine) noexcept QTOVELMIXER_NONBLOCKING
{
    engine.wakeMix();
}
