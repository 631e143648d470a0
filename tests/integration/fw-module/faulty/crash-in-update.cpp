// SPDX-License-Identifier: Apache-2.0
// It follows a null pointer while it updates.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
  return sound::update(path, value);
}
