// SPDX-License-Identifier: Apache-2.0
// It needs every version that is another one.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  const int result = sound::checkVersion(version, need);
  if (result == 0) {
    *need = sound::activeVersion() != version ? 1 : 0;
  }
  return result;
}
