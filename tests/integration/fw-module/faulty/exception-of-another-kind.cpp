// SPDX-License-Identifier: Apache-2.0
// What it throws is no std::exception.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  if (!sound::isVersion(version)) {
    throw 7;
  }
  return sound::checkVersion(version, need);
}
