// SPDX-License-Identifier: Apache-2.0
// It waits for hardware that never answers, as soon as it is told its context.
#define OWN_setContext
#include "sound-module.h"

int setContext(const char*, CallerTypes, char*) {
  for (;;) {
    pause();
  }
}
