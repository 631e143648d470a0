// SPDX-License-Identifier: Apache-2.0
// It prints when it is told its context.
#define OWN_setContext
#include "sound-module.h"

int setContext(const char* libName, CallerTypes caller, char*) {
  sound::keepName(libName);
  std::printf("%s: caller %d\n", libName, caller);
  return 0;
}
