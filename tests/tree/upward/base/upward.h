// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_TREE_UPWARD_BASE_UPWARD_H
#define QTOVELMIXER_TESTS_TREE_UPWARD_BASE_UPWARD_H

#include <mixer/types.h>

#endif
