// SPDX-License-Identifier: Apache-2.0
// It updates once in a process.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  return sound::percent == 100 ? sound::failure(EBUSY) : sound::update(path, value);
}
