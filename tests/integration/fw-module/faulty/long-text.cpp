// SPDX-License-Identifier: Apache-2.0
// Its version has more than 127 characters.
#define OWN_getActiveVersion
#include "sound-module.h"

int getActiveVersion(char* out) {
  volatile char* place = out;
  for (int i = 0; i < 200; ++i) {
    place[i] = i < 199 ? '1' : '\0';
  }
  return 0;
}
