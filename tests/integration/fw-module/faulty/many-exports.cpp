// SPDX-License-Identifier: Apache-2.0
// It shows many more than the entry points.
#include "sound-module.h"

#define EXTRA(number)                                      \
  extern "C" FW_UPDATE_MODULE_EXPORT int extra##number() { \
    return number;                                         \
  }

EXTRA(1)
EXTRA(2)
EXTRA(3)
EXTRA(4)
EXTRA(5)
EXTRA(6)
EXTRA(7)
