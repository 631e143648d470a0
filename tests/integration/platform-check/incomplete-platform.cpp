// SPDX-License-Identifier: Apache-2.0
// A platform library that has one call alone.
#include "lwipc.h"

int LwipcEventDone(const char* /*event*/) {
  return 0;
}
