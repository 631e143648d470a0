// SPDX-License-Identifier: Apache-2.0
// Its identifier has no NUL behind it.
#define OWN_getEMPID
#include "sound-module.h"

int getEMPID(char* out) {
  const char identifier[] = {'s', 'o', 'u', 'n', 'd', 'e', 'm', 'p', 'f', 'w'};
  std::memcpy(out, identifier, sizeof identifier);
  return 0;
}
