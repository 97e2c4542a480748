// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_CONTROL_PANEL_P_H
#define QTOVELMIXER_MIXER_API_CONTROL_PANEL_P_H

#include <mixer/types.h>

namespace QTovelMixer {

/// Shows the desktop's sound settings at the Output or the Input tab, if it has any.
void showSoundSettings(DeviceKind kind);

} // namespace QTovelMixer

#endif
