// SPDX-License-Identifier: Apache-2.0
// It writes in front of its text.
#define OWN_getActiveVersion
#include "sound-module.h"

int getActiveVersion(char* out) {
  volatile char* place = out;
  place[-1] = 'v';
  std::snprintf(out, 128, "%s", sound::activeVersion().c_str());
  return 0;
}
