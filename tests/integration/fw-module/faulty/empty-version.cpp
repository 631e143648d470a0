// SPDX-License-Identifier: Apache-2.0
// It needs an empty version.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  if (version[0] != '\0') {
    return sound::checkVersion(version, need);
  }
  *need = 1;
  return 0;
}
