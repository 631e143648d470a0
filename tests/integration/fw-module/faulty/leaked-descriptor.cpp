// SPDX-License-Identifier: Apache-2.0
// It leaves a file open each time it tells its version.
#define OWN_getActiveVersion
#include "sound-module.h"

int getActiveVersion(char* out) {
  open("/etc/passwd", O_RDONLY | O_CLOEXEC);
  std::snprintf(out, 128, "%s", sound::activeVersion().c_str());
  return 0;
}
