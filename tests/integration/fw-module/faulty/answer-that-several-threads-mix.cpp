// SPDX-License-Identifier: Apache-2.0
// It builds its version where every thread does.
#define OWN_getActiveVersion
#include "sound-module.h"

int getActiveVersion(char* out) {
  static std::atomic<int> inside{0};
  const bool alone = ++inside == 1;
  usleep(1000);
  const std::string version = alone && inside == 1 ? sound::activeVersion() : "mixed";
  --inside;
  std::snprintf(out, 128, "%s", version.c_str());
  return 0;
}
