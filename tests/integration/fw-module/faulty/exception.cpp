// SPDX-License-Identifier: Apache-2.0
// An exception for a version that is none gets out.
#define OWN_checkVersion
#include "sound-module.h"

#include <stdexcept>

int checkVersion(const char* version, int* need) {
  if (!sound::isVersion(version)) {
    throw std::invalid_argument("no version");
  }
  return sound::checkVersion(version, need);
}
