// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_TREE_FOREIGN_MIXER_API_API_RTAUDIO_H
#define QTOVELMIXER_TESTS_TREE_FOREIGN_MIXER_API_API_RTAUDIO_H

#include <RtAudio.h>
#include <soxr.h>

#endif
