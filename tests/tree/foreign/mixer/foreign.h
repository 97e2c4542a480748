// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_TREE_FOREIGN_MIXER_FOREIGN_H
#define QTOVELMIXER_TESTS_TREE_FOREIGN_MIXER_FOREIGN_H

#include <RtAudio.h>
#include <hwy/highway.h>

#endif
