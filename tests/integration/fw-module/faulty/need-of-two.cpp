// SPDX-License-Identifier: Apache-2.0
// It answers 2 for needed.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  const int result = sound::checkVersion(version, need);
  if (result == 0) {
    *need *= 2;
  }
  return result;
}
