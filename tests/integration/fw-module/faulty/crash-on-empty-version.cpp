// SPDX-License-Identifier: Apache-2.0
// It takes for granted that a version has a first character.
#define OWN_checkVersion
#include "sound-module.h"

#include <cstdlib>

int checkVersion(const char* version, int* need) {
  if (version[0] == '\0') {
    std::abort();
  }
  return sound::checkVersion(version, need);
}
