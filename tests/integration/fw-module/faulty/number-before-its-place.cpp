// SPDX-License-Identifier: Apache-2.0
// It writes in front of the number that it is asked for.
#define OWN_getExpectedTime
#include "sound-module.h"

int getExpectedTime(int* seconds) {
  volatile int* place = seconds;
  place[-1] = 7;
  *seconds = 30;
  return 0;
}
