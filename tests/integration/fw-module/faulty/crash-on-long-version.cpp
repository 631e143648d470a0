// SPDX-License-Identifier: Apache-2.0
// It copies the version into a buffer without looking at its length.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  char copy[128];
  char* volatile place = copy;
  std::strcpy(place, version);
  return sound::checkVersion(copy, need);
}
