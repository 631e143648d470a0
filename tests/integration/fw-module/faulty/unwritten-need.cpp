// SPDX-License-Identifier: Apache-2.0
// It writes its answer only when an update is needed.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  int answer = 0;
  const int result = sound::checkVersion(version, &answer);
  if (answer != 0) {
    *need = answer;
  }
  return result;
}
