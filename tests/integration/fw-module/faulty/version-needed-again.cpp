// SPDX-License-Identifier: Apache-2.0
// It needs the version that it has just written.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  const int result = sound::checkVersion(version, need);
  if (result == 0 && sound::percent == 100 && version == sound::activeVersion()) {
    *need = 1;
  }
  return result;
}
