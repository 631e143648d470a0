// SPDX-License-Identifier: Apache-2.0
// It takes the place of its answer for a longer number.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  int answer = 0;
  const int result = sound::checkVersion(version, &answer);
  const long long wide = answer;
  volatile char* place = reinterpret_cast<char*>(need);
  for (std::size_t i = 0; i < sizeof wide; ++i) {
    place[i] = reinterpret_cast<const char*>(&wide)[i];
  }
  return result;
}
