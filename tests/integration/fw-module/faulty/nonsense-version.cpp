// SPDX-License-Identifier: Apache-2.0
// It needs what is no version.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  if (version[0] == '\0' || sound::isVersion(version)) {
    return sound::checkVersion(version, need);
  }
  *need = 1;
  return 0;
}
