// SPDX-License-Identifier: Apache-2.0
// It refuses a caller.
#define OWN_setContext
#include "sound-module.h"

int setContext(const char* libName, CallerTypes caller, char*) {
  sound::keepName(libName);
  return caller == CALLER_LSM ? sound::failure(EPERM) : 0;
}
