// SPDX-License-Identifier: Apache-2.0
// It needs the version that it has, as long as that is the first one.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  const int result = sound::checkVersion(version, need);
  if (result == 0 && std::strcmp(version, "0.0.0") == 0 && sound::activeVersion() == "0.0.0") {
    *need = 1;
  }
  return result;
}
