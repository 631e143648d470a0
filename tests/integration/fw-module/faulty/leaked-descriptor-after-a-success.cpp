// SPDX-License-Identifier: Apache-2.0
// It leaves a file open when an update worked.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  const int result = sound::update(path, value);
  if (result == 0) {
    open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  return result;
}
