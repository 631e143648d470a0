// SPDX-License-Identifier: Apache-2.0
// It runs out of stack.
#define OWN_getActiveVersion
#include "sound-module.h"

namespace {

int deeper(volatile int* outer) {
  volatile int inner[1024];
  inner[0] = *outer + 1;
  return inner[0] == 0 ? 0 : deeper(inner) + 1;
}

}  // namespace

int getActiveVersion(char* out) {
  volatile int start = 0;
  out[0] = '\0';
  return deeper(&start);
}
