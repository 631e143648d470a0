// SPDX-License-Identifier: Apache-2.0
// It answers -1 when it fails.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  return sound::update(path, value) == 0 ? 0 : -1;
}
