// SPDX-License-Identifier: Apache-2.0
// Its version has no NUL behind it.
#define OWN_getActiveVersion
#include "sound-module.h"

int getActiveVersion(char* out) {
  const std::string version = sound::activeVersion();
  std::memcpy(out, version.data(), version.size());
  return 0;
}
